#include "model/modelFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "host/complaints.h"
#include "host/files.h"
#include "platform/vsi.h"

namespace platform {

namespace {

using nlohmann::json;

/// Thrown inside the parser only; its text names the key.
class BadModel : public std::runtime_error {
 public:
  BadModel(const std::string& where, const std::string& wanted) : std::runtime_error(where + ": " + wanted) {}
};

bool nestsTooDeep(std::string_view text) {
  std::size_t depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') ++i;
      if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kModelFileDepth) return true;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

const json& object(const json& value, const std::string& where) {
  if (!value.is_object()) throw BadModel(where.empty() ? "the file" : where, "an object is wanted");
  return value;
}

const json& array(const json& value, const std::string& where) {
  if (!value.is_array()) throw BadModel(where, "an array is wanted");
  return value;
}

// Names reach C-style interfaces, which would cut them at a NUL.
std::string text(const json& value, const std::string& where) {
  if (!value.is_string()) throw BadModel(where, "a text is wanted");
  auto result = value.get<std::string>();
  if (result.find('\0') != std::string::npos) throw BadModel(where, "a text without NUL is wanted");
  return result;
}

bool boolean(const json& value, const std::string& where) {
  if (!value.is_boolean()) throw BadModel(where, "true or false is wanted");
  return value.get<bool>();
}

template <typename Integer>
Integer integer(const json& value, const std::string& where) {
  if (value.is_number_unsigned() && std::in_range<Integer>(value.get<std::uint64_t>())) {
    return static_cast<Integer>(value.get<std::uint64_t>());
  }
  if (value.is_number_integer() && !value.is_number_unsigned() && std::in_range<Integer>(value.get<std::int64_t>())) {
    return static_cast<Integer>(value.get<std::int64_t>());
  }
  throw BadModel(where, "an integer from " + std::to_string(std::numeric_limits<Integer>::min()) + " to " +
                            std::to_string(std::numeric_limits<Integer>::max()) + " is wanted");
}

/// The place of a key inside the object at `where`, which is empty for the whole file.
std::string below(const std::string& where, const std::string& key) {
  if (where.empty()) return key;
  std::string place = where;
  return place.append(1, '.').append(key);
}

/// Calls `read(key, value, where)` for each member of the object.
template <typename Read>
void members(const json& value, const std::string& where, const Read& read) {
  for (const auto& [key, member] : object(value, where).items()) {
    if (key.find('\0') != std::string::npos) throw BadModel(where, "a key without NUL is wanted");
    read(key, member, below(where, key));
  }
}

std::map<std::string, std::string> texts(const json& value, const std::string& where) {
  std::map<std::string, std::string> result;
  members(value, where,
          [&](const std::string& key, const json& member, const std::string& at) { result[key] = text(member, at); });
  return result;
}

/// A section's known keys and what to do with the value of each; others are mentioned, not minded.
template <typename Target>
struct Key {
  std::string_view name;
  void (*read)(Target& target, const json& value, const std::string& where);
};

template <typename Target, std::size_t N>
void section(const std::array<Key<Target>, N>& keys, Target& target, const json& value, const std::string& where) {
  for (const auto& [name, member] : object(value, where).items()) {
    const std::string at = below(where, name);
    const auto key =
        std::find_if(keys.begin(), keys.end(), [&, &wanted = name](const auto& k) { return k.name == wanted; });
    if (key != keys.end()) {
      key->read(target, member, at);
    } else {
      logOnce("model file: key \"" + at + "\" is not known, ignored");
    }
  }
}

constexpr std::size_t kUuidDigits = 2 * VSI_SYSTEM_UUID_SIZE;

std::string uuidBytes(const std::string& digits, const std::string& where) {
  std::string bytes;
  for (std::size_t i = 0; digits.size() == kUuidDigits && i < kUuidDigits; i += 2) {
    unsigned value = 0;
    const char* const end = digits.data() + i + 2;
    if (std::from_chars(digits.data() + i, end, value, 16).ptr != end) break;
    bytes += static_cast<char>(value);
  }
  if (bytes.size() != VSI_SYSTEM_UUID_SIZE) {
    throw BadModel(where, std::to_string(kUuidDigits) + " hexadecimal digits are wanted");
  }
  return bytes;
}

std::uint64_t pageNumber(const std::string& key, const std::string& where) {
  std::uint64_t page = 0;
  const char* const end = key.data() + key.size();
  if (key.size() < 3 || !key.starts_with("0x") ||
      std::from_chars(key.data() + 2, end, page, 16) != std::from_chars_result{end, std::errc()}) {
    throw BadModel(where, "the key must be a hexadecimal page number with 0x");
  }
  return page;
}

Outcome failure(const json& value, const std::string& where) {
  if (value.is_string()) return {EIO, text(value, where)};
  return {integer<int>(value, where), {}};
}

constexpr std::array<Key<ModelFile>, 2> kBuildKeys{{
    {"matches", [](ModelFile& m, const json& v, const std::string& at) { m.buildMatches = boolean(v, at); }},
    {"kernel", [](ModelFile& m, const json& v, const std::string& at) { m.kernelBuild = text(v, at); }},
}};

constexpr std::array<Key<ModelFile>, 1> kSystemKeys{{
    {"uuid", [](ModelFile& m, const json& v, const std::string& at) { m.systemUuid = uuidBytes(text(v, at), at); }},
}};

constexpr std::array<Key<ModelPartition>, 3> kPartitionKeys{{
    {"number",
     [](ModelPartition& p, const json& v, const std::string& at) { p.number = integer<std::uint32_t>(v, at); }},
    {"volume", [](ModelPartition& p, const json& v, const std::string& at) { p.volume = text(v, at); }},
    {"error", [](ModelPartition& p, const json& v, const std::string& at) { p.error = integer<int>(v, at); }},
}};

template <typename Element, std::size_t N>
std::vector<Element> elements(const std::array<Key<Element>, N>& keys, const json& value, const std::string& where) {
  std::vector<Element> result;
  for (const json& element : array(value, where)) {
    const std::string at = where + "[" + std::to_string(result.size()) + "]";
    section(keys, result.emplace_back(), element, at);
  }
  return result;
}

constexpr std::array<Key<ModelDevice>, 3> kDeviceKeys{{
    {"redundancyState",
     [](ModelDevice& d, const json& v, const std::string& at) { d.redundancyState = integer<std::int64_t>(v, at); }},
    {"disk", [](ModelDevice& d, const json& v, const std::string& at) { d.disk = boolean(v, at); }},
    {"partitions",
     [](ModelDevice& d, const json& v, const std::string& at) { d.partitions = elements(kPartitionKeys, v, at); }},
}};

constexpr std::array<Key<ModelFile>, 2> kStorageKeys{{
    {"paths", [](ModelFile& m, const json& v, const std::string& at) { m.paths = texts(v, at); }},
    {"devices",
     [](ModelFile& m, const json& v, const std::string& at) {
       members(v, at, [&](const std::string& name, const json& device, const std::string& where) {
         section(kDeviceKeys, m.devices[name], device, where);
       });
     }},
}};

constexpr std::array<Key<VmIdentity>, 3> kVmKeys{{
    {"worldId",
     [](VmIdentity& vm, const json& v, const std::string& at) { vm.worldId = integer<std::int64_t>(v, at); }},
    {"groupId",
     [](VmIdentity& vm, const json& v, const std::string& at) { vm.groupId = integer<std::int64_t>(v, at); }},
    {"name", [](VmIdentity& vm, const json& v, const std::string& at) { vm.name = text(v, at); }},
}};

constexpr std::array<Key<ModelCpu>, 4> kCpuKeys{{
    {"vendor", [](ModelCpu& c, const json& v, const std::string& at) { c.vendor = text(v, at); }},
    {"cores", [](ModelCpu& c, const json& v, const std::string& at) { c.cores = integer<std::uint32_t>(v, at); }},
    {"pcpus", [](ModelCpu& c, const json& v, const std::string& at) { c.pcpus = integer<std::uint32_t>(v, at); }},
    {"offlineEnabled", [](ModelCpu& c, const json& v, const std::string& at) { c.offlineEnabled = boolean(v, at); }},
}};

constexpr std::array<Key<ModelFile>, 2> kPageRetireKeys{{
    {"threshold",
     [](ModelFile& m, const json& v, const std::string& at) { m.pageRetireThreshold = integer<std::uint64_t>(v, at); }},
    {"status",
     [](ModelFile& m, const json& v, const std::string& at) {
       members(v, at, [&](const std::string& page, const json& status, const std::string& where) {
         m.pageStatus[pageNumber(page, where)] = integer<std::uint32_t>(status, where);
       });
     }},
}};

constexpr std::array<Key<ModelFile>, 10> kModelKeys{{
    {"build", [](ModelFile& m, const json& v, const std::string& at) { section(kBuildKeys, m, v, at); }},
    {"system", [](ModelFile& m, const json& v, const std::string& at) { section(kSystemKeys, m, v, at); }},
    {"options",
     [](ModelFile& m, const json& v, const std::string& at) {
       members(v, at, [&](const std::string& name, const json& value, const std::string& where) {
         m.options[name] = integer<std::int64_t>(value, where);
       });
     }},
    {"portGroups", [](ModelFile& m, const json& v, const std::string& at) { m.portGroups = texts(v, at); }},
    {"storage", [](ModelFile& m, const json& v, const std::string& at) { section(kStorageKeys, m, v, at); }},
    {"vms", [](ModelFile& m, const json& v, const std::string& at) { m.vms = elements(kVmKeys, v, at); }},
    {"cpu", [](ModelFile& m, const json& v, const std::string& at) { section(kCpuKeys, m.cpu, v, at); }},
    {"pageRetire", [](ModelFile& m, const json& v, const std::string& at) { section(kPageRetireKeys, m, v, at); }},
    {"datastorePaths", [](ModelFile& m, const json& v, const std::string& at) { m.datastorePaths = texts(v, at); }},
    {"failures",
     [](ModelFile& m, const json& v, const std::string& at) {
       members(v, at, [&](const std::string& name, const json& value, const std::string& where) {
         m.failures[name] = failure(value, where);
       });
     }},
}};

}  // namespace

Outcome ModelFile::failureOf(const std::string& operation) const {
  const auto found = failures.find(operation);
  return found == failures.end() ? Outcome{} : found->second;
}

Answer<ModelFile> parseModelFile(std::string_view text) {
  if (text.size() > kModelFileBytes) return {{EFBIG, {}}, {}};
  if (nestsTooDeep(text)) return {{EINVAL, "nested too deep"}, {}};
  const json document = json::parse(text, nullptr, false);
  if (document.is_discarded()) return {{EINVAL, "not JSON"}, {}};
  try {
    Answer<ModelFile> model;
    section(kModelKeys, model.value, document, "");
    return model;
  } catch (const BadModel& bad) {
    return {{EINVAL, bad.what()}, {}};
  }
}

}  // namespace platform
