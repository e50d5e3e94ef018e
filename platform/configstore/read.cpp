#include "configstore/read.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <tuple>

#include "configstore/database.h"

namespace platform {

namespace {

/// One row for each value, or one with a null key for an object without values.
constexpr const char* kSelectObjects =
    "SELECT id, name, component, product, instance, key IS NOT NULL, key, value FROM objects"
    " LEFT JOIN object_values ON object = id WHERE ?1 IS NULL OR name = ?1"
    " ORDER BY name, component, product, instance, position";

// One statement is one snapshot: it sees each object as one write left it.
Answer<std::vector<StoredObject>> selectObjects(Database& database, const std::optional<std::string>& name) {
  Answer<std::vector<StoredObject>> objects;
  Answer<bool> used = database.hasTable("objects");
  if (!used.ok()) return {std::move(used.outcome), {}};
  if (!used.value) return objects;
  Statement query = database.prepare(kSelectObjects);
  if (name) query.bind(1, *name);
  std::optional<std::int64_t> current;
  for (Statement::Step step = query.step(); step != Statement::Step::done; step = query.step()) {
    if (step == Statement::Step::failed) return {database.trouble(), {}};
    if (current != query.integer(0)) {
      current = query.integer(0);
      objects.value.push_back({query.text(1), query.text(2), query.text(3), query.text(4), {}});
    }
    if (query.integer(5) != 0) objects.value.back().values.emplace_back(query.text(6), query.text(7));
  }
  return objects;
}

Answer<std::vector<StoredObject>> readObjects(const std::optional<std::string>& name) {
  Answer<Database> database = Database::openExisting();
  if (database.outcome.status == ENOENT) return {};
  if (!database.ok()) return {std::move(database.outcome), {}};
  return selectObjects(database.value, name);
}

bool sameNames(const StoredObject& a, const StoredObject& b) {
  return std::tie(a.name, a.component, a.product, a.instance) == std::tie(b.name, b.component, b.product, b.instance);
}

/// The first that `fits`.
template <typename Fits>
Answer<StoredObject> firstOf(Answer<std::vector<StoredObject>> objects, const Fits& fits) {
  if (!objects.ok()) return {std::move(objects.outcome), {}};
  const auto found = std::find_if(objects.value.begin(), objects.value.end(), fits);
  if (found == objects.value.end()) return {{ENOENT, "no such object"}, {}};
  return {{}, std::move(*found)};
}

}  // namespace

Answer<std::vector<StoredObject>> listStoredObjects() {
  return readObjects(std::nullopt);
}

Answer<StoredObject> readStoredObject(const std::string& name) {
  return firstOf(readObjects(name), [](const StoredObject&) { return true; });
}

Answer<StoredObject> readStoredObject(const std::string& name, const std::string& component, const std::string& product,
                                      const std::string& instance) {
  const StoredObject wanted{name, component, product, instance, {}};
  return firstOf(readObjects(name), [&](const StoredObject& object) { return sameNames(object, wanted); });
}

Outcome deleteUnchangedObject(const StoredObject& known) {
  Answer<Database> database = Database::openExisting();
  if (!database.ok()) return std::move(database.outcome);
  return database.value.inTransaction([&]() -> Outcome {
    Answer<StoredObject> now = firstOf(selectObjects(database.value, known.name),
                                       [&](const StoredObject& object) { return sameNames(object, known); });
    if (!now.ok()) return std::move(now.outcome);
    if (now.value != known) return {ESTALE, "the object has changed"};
    Statement remove = database.value.prepare(
        "DELETE FROM objects WHERE name = ?1 AND component = ?2 AND product = ?3 AND instance = ?4");
    remove.bind(1, known.name);
    remove.bind(2, known.component);
    remove.bind(3, known.product);
    remove.bind(4, known.instance);
    return database.value.finish(remove);
  });
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
