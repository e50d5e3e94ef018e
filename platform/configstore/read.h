// Looking into the configuration store, for the operator's tool and services at boot.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/host.h"

namespace platform {

struct StoredObject {
  std::string name;
  std::string component;
  std::string product;
  std::string instance;
  std::vector<std::pair<std::string, std::string>> values;  ///< in the order in which they were set

  bool operator==(const StoredObject&) const = default;
};

/// Every object of the store, by name, each as one write left it. An absent store is an empty one.
Answer<std::vector<StoredObject>> listStoredObjects();

/// The object of that name; ENOENT where there is none, the first by component, product and instance
/// where there are several.
Answer<StoredObject> readStoredObject(const std::string& name);

/// The object of exactly these names; ENOENT where there is none.
Answer<StoredObject> readStoredObject(const std::string& name, const std::string& component, const std::string& product,
                                      const std::string& instance);

/// Removes every object of that name. ENOENT where there is none.
Outcome deleteStoredObject(const std::string& name);

/// Removes the object that `known` was read from, unless it was stored anew with other values since:
/// ESTALE then, ENOENT where it is gone. What another process stores at the same moment stays.
Outcome deleteUnchangedObject(const StoredObject& known);

}  // namespace platform
