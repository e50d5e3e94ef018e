// The configuration store: named objects of text values that survive restarts of the host.
//
// A write is atomic: a kill at any moment leaves the old object or the new one. A store handle
// belongs to one thread; several may be open at once.
#pragma once

#include <string>

namespace ConfigStore {

struct Store;
struct Object;

/// Opens the host's store, nullptr where it cannot be opened (the reason is logged).
Store* GetStore();
/// Closes a store; nullptr is allowed. Objects of it must be released before.
void DestroyStore(Store* store);

/// A new, empty object of that name, not yet stored. nullptr where it cannot be made.
Object* CreateObject(Store* store, const char* name);
/// Sets a text value of the object in memory. Returns 0 or a positive errno value.
int SetValueStr(Object* object, const char* key, const char* value);
/// Stores the object under its name, replacing what was there. Returns 0 or a positive errno value.
int SetCachedData(Store* store, Object* object);
/// Releases an object; what was stored stays. nullptr is allowed.
void DestroyConfigStoreObject(Object* object);

}  // namespace ConfigStore
