// The configuration store: named objects of text values that survive restarts of the host.
//
// A write is atomic: a kill at any moment leaves the old object or the new one. Objects and handles
// belong to one thread; several may be open at once, in any number of processes. Every function
// returns 0 or a positive errno value, and stores to its out pointer only on success.
#pragma once

namespace ConfigStore {

struct Store;
struct Object;

/// Makes an object in memory, named by itself, its component, its product and an instance (which may
/// be empty). `initial` holds its first values as a JSON object of texts, "{}" for none.
int CreateObject(const char* name, const char* component, const char* product, const char* instance,
                 const char* initial, Object** object);
/// Sets a text value of the object in memory; values keep the order in which they were first set.
int SetValueStr(Object* object, const char* key, const char* value);
/// Releases an object; what was stored stays. nullptr is allowed.
void DestroyConfigStoreObject(Object* object);

/// Opens the host's store, made first where it is missing. `flags` must be 0.
int GetStore(int flags, Store** store);
/// Stores the object under its names, replacing what was there.
int SetCachedData(Store* store, const Object* object);
/// Closes a store; nullptr is allowed.
void DestroyStore(Store* store);

}  // namespace ConfigStore
