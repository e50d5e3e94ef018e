// The tables of the configuration store, in the instance's database.
#pragma once

namespace platform {

inline constexpr const char* kCreateObjectTables =
    "CREATE TABLE IF NOT EXISTS objects (id INTEGER PRIMARY KEY, name TEXT NOT NULL, component TEXT NOT NULL,"
    " product TEXT NOT NULL, instance TEXT NOT NULL, UNIQUE (name, component, product, instance));"
    "CREATE TABLE IF NOT EXISTS object_values (object INTEGER NOT NULL REFERENCES objects (id) ON DELETE CASCADE,"
    " position INTEGER NOT NULL, key TEXT NOT NULL, value TEXT NOT NULL, PRIMARY KEY (object, position))"
    " WITHOUT ROWID";

}  // namespace platform
