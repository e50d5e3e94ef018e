#include "configstore/read.h"

#include <cerrno>
#include <optional>

#include "configstore/database.h"

namespace platform {

namespace {

/// One row for each value, or one with a null key for an object without values.
constexpr const char* kSelectObjects =
    "SELECT id, name, component, product, instance, key IS NOT NULL, key, value FROM objects"
    " LEFT JOIN object_values ON object = id WHERE ?1 IS NULL OR name = ?1"
    " ORDER BY name, component, product, instance, position";

// One statement is one snapshot: it sees each object as one write left it.
Answer<std::vector<StoredObject>> selectObjects(const std::optional<std::string>& name) {
  Answer<std::vector<StoredObject>> objects;
  Answer<Database> database = Database::openExisting();
  if (database.outcome.status == ENOENT) return objects;
  if (!database.ok()) return {std::move(database.outcome), {}};
  Answer<bool> used = database.value.hasTable("objects");
  if (!used.ok()) return {std::move(used.outcome), {}};
  if (!used.value) return objects;
  Statement query = database.value.prepare(kSelectObjects);
  if (name) query.bind(1, *name);
  std::optional<std::int64_t> current;
  for (Statement::Step step = query.step(); step != Statement::Step::done; step = query.step()) {
    if (step == Statement::Step::failed) return {database.value.trouble(), {}};
    if (current != query.integer(0)) {
      current = query.integer(0);
      objects.value.push_back({query.text(1), query.text(2), query.text(3), query.text(4), {}});
    }
    if (query.integer(5) != 0) objects.value.back().values.emplace_back(query.text(6), query.text(7));
  }
  return objects;
}

}  // namespace

Answer<std::vector<StoredObject>> listStoredObjects() {
  return selectObjects(std::nullopt);
}

Answer<StoredObject> readStoredObject(const std::string& name) {
  Answer<std::vector<StoredObject>> objects = selectObjects(name);
  if (!objects.ok()) return {std::move(objects.outcome), {}};
  if (objects.value.empty()) return {{ENOENT, "no such object"}, {}};
  return {{}, std::move(objects.value.front())};
}

Outcome deleteStoredObject(const std::string& name) {
  Answer<Database> database = Database::openExisting();
  if (!database.ok()) return std::move(database.outcome);
  bool removed = false;
  Outcome outcome = database.value.inTransaction([&]() -> Outcome {
    Answer<bool> used = database.value.hasTable("objects");
    if (!used.ok() || !used.value) return std::move(used.outcome);
    Statement remove = database.value.prepare("DELETE FROM objects WHERE name = ?1 RETURNING id");
    remove.bind(1, name);
    for (Statement::Step step = remove.step(); step != Statement::Step::done; step = remove.step()) {
      if (step == Statement::Step::failed) return database.value.trouble();
      removed = true;
    }
    return {};
  });
  if (!outcome.ok()) return outcome;
  return removed ? Outcome{} : Outcome{ENOENT, "no such object"};
}

}  // namespace platform
