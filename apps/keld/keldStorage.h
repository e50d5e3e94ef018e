// What correlators ask the host about its storage.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace keld {

/// The storage device that a path leads to; nothing where the host names none. From any thread, as
/// all functions here.
std::optional<std::string> deviceOfPath(const std::string& path);

/// How many usable paths a device has: 1 none, 2 one, 3 more, 0 where that is not told. Nothing where
/// the device is not known.
std::optional<std::uint32_t> pathRedundancyState(const std::string& device);

/// The names of the datastores on a device's partitions, in quotes, each once. Nothing where the
/// look-up fails or finds none.
std::optional<std::string> GetAffectedDatastores(const std::string& device);

/// A path of a file system, or nullptr for an empty one, in the form that names its datastore; as it is where none is
/// known.
std::string datastoreForm(const char* path);

}  // namespace keld
