#include "platform/configstore.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "configstore/database.h"
#include "configstore/tables.h"
#include "host/complaints.h"
#include "host/files.h"
#include "host/guarded.h"
#include "host/host.h"

namespace ConfigStore {

struct Object {
  std::array<std::string, 4> names;  ///< itself, component, product, instance
  std::vector<std::pair<std::string, std::string>> values;
};

struct Store {
  std::optional<platform::Database> database;  ///< none where a keeper takes what is stored
};

namespace {

using platform::Database;
using platform::Outcome;
using platform::Statement;

/// Most values of one object, and the longest text of one.
constexpr std::size_t kValuesPerObject = 1024;
constexpr std::size_t kTextBytes = std::size_t{64} * 1024;

template <typename Call>
int guarded(const Call& call) {
  return platform::guarded<int>("configuration store", {ENOMEM, EIO}, call);
}

int failed(const Outcome& outcome) {
  platform::logSparsely("configuration store", "configuration store: " + platform::reasonOf(outcome));
  return outcome.status;
}

int setValue(Object& object, const std::string& key, const std::string& value) {
  if (key.size() > kTextBytes || value.size() > kTextBytes) return E2BIG;
  const auto found =
      std::find_if(object.values.begin(), object.values.end(), [&](const auto& pair) { return pair.first == key; });
  if (found != object.values.end()) {
    found->second = value;
    return 0;
  }
  if (object.values.size() >= kValuesPerObject) return E2BIG;
  object.values.emplace_back(key, value);
  return 0;
}

int setInitialValues(Object& object, const char* initial) {
  const auto values = nlohmann::ordered_json::parse(initial, nullptr, false);
  if (!values.is_object()) return EINVAL;
  for (const auto& [key, value] : values.items()) {
    if (!value.is_string()) return EINVAL;
    const int status = setValue(object, key, value.get<std::string>());
    if (status != 0) return status;
  }
  return 0;
}

Outcome writeObject(Database& database, const Object& object) {
  const auto bindNames = [&](Statement& statement) {
    for (std::size_t i = 0; i < object.names.size(); ++i) statement.bind(static_cast<int>(i) + 1, object.names[i]);
  };
  if (Outcome made = database.run(platform::kCreateObjectTables); !made.ok()) return made;
  Statement remove =
      database.prepare("DELETE FROM objects WHERE name = ?1 AND component = ?2 AND product = ?3 AND instance = ?4");
  bindNames(remove);
  if (Outcome removed = database.finish(remove); !removed.ok()) return removed;

  Statement insert =
      database.prepare("INSERT INTO objects (name, component, product, instance) VALUES (?1, ?2, ?3, ?4) RETURNING id");
  bindNames(insert);
  if (insert.step() != Statement::Step::row) return database.trouble();
  const std::int64_t id = insert.integer(0);
  if (Outcome inserted = database.finish(insert); !inserted.ok()) return inserted;

  Statement add = database.prepare("INSERT INTO object_values (object, position, key, value) VALUES (?1, ?2, ?3, ?4)");
  std::int64_t position = 0;
  for (const auto& [key, value] : object.values) {
    add.reset();
    add.bind(1, id);
    add.bind(2, position++);
    add.bind(3, key);
    add.bind(4, value);
    if (Outcome added = database.finish(add); !added.ok()) return added;
  }
  return {};
}

}  // namespace

int CreateObject(const char* name, const char* component, const char* product, const char* instance,
                 const char* initial, Object** object) {
  for (const char* const text : {name, component, product, instance, initial}) {
    if (text == nullptr) return EINVAL;
  }
  if (*name == '\0' || object == nullptr) return EINVAL;
  return guarded([&] {
    if (const Outcome trouble = platform::currentHost().storeTrouble("store.create"); !trouble.ok()) {
      return failed(trouble);
    }
    auto made = std::make_unique<Object>(Object{{name, component, product, instance}, {}});
    const int status = setInitialValues(*made, initial);
    if (status == 0) *object = made.release();
    return status;
  });
}

int SetValueStr(Object* object, const char* key, const char* value) {
  if (object == nullptr || key == nullptr || value == nullptr) return EINVAL;
  return guarded([&] { return setValue(*object, key, value); });
}

void DestroyConfigStoreObject(Object* object) {
  delete object;
}

int GetStore(int flags, Store** store) {
  if (flags != 0 || store == nullptr) return EINVAL;
  return guarded([&] {
    if (platform::currentHost().keeper() != nullptr) {
      *store = new Store{};
      return 0;
    }
    auto opened = Database::openOrCreate();
    if (!opened.ok()) return failed(opened.outcome);
    *store = new Store{std::move(opened.value)};
    return 0;
  });
}

int SetCachedData(Store* store, const Object* object) {
  if (store == nullptr || object == nullptr) return EINVAL;
  return guarded([&] {
    if (const Outcome trouble = platform::currentHost().storeTrouble("store.write"); !trouble.ok()) {
      return failed(trouble);
    }
    if (platform::Keeper* const keeper = platform::currentHost().keeper(); keeper != nullptr) {
      keeper->keepObject(object->names.front(), object->values);
      return 0;
    }
    if (!store->database) return EBADF;
    Outcome written = store->database->inTransaction([&] { return writeObject(*store->database, *object); });
    return written.ok() ? 0 : failed(written);
  });
}

void DestroyStore(Store* store) {
  delete store;
}

}  // namespace ConfigStore
