// The host behind the platform's operations: what it answers and what can be done to it.
//
// One of two hosts is in force for a process: the machine itself ("linux"), or one described by a
// file ("model:FILE"), as KORVEL_HOST says. Interface libraries (vsi, hostctl, qkctl, kellib) call
// it; nothing outside platform/ does, but for the operator's tool and tests.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace platform {

/// The outcome of a query or action: an errno-style status (0: done) and, where useful, a text.
struct Outcome {
  int status = 0;
  std::string text;
  [[nodiscard]] bool ok() const { return status == 0; }
};

/// A value, or the outcome that says why there is none.
template <typename T>
struct Answer {
  Outcome outcome;
  T value{};
  [[nodiscard]] bool ok() const { return outcome.ok(); }
};

/// A source of observations that feeds one kernel context. Read by one thread.
class Channel {
 public:
  Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  virtual ~Channel() = default;

  /// The descriptor that polls readable while a batch, or something to look at, waits.
  [[nodiscard]] virtual int fd() const = 0;
  /// As KelLib_ReadFromFd.
  virtual int read(void* buffer, std::size_t capacity, std::size_t* length) = 0;
  /// As KelLib_Reset.
  virtual int reset() = 0;
  /// A short name for diagnostics, such as "links".
  [[nodiscard]] virtual const char* name() const = 0;
};

struct VmIdentity {
  std::int64_t worldId = 0;
  std::int64_t groupId = 0;
  std::string name;
};

/// A storage device: the state of its paths (0: not told, 1: none usable, 2: one, 3: more), whether it
/// is a disk, and the numbers of its partitions in their order.
struct StorageDevice {
  std::optional<std::int64_t> redundancyState;
  bool disk = false;
  std::vector<std::uint32_t> partitions;
};

/// A mounted file system of a block device; the label is empty where it has none.
struct MountFacts {
  std::string point;
  std::string fileSystem;  ///< such as "ext4"
  std::string device;      ///< the kernel's name of the block device
  std::string label;
};

/// Counts of processor cores and of logical processors.
struct CpuCounts {
  std::uint32_t cores = 0;
  std::uint32_t pcpus = 0;
};

struct PortGroupFacts {
  std::string name;
  std::string virtualSwitch;
  std::vector<std::string> uplinks;  ///< NICs that serve it; empty where the host does not say
};

// The actions of a host with what they are given, as Host's methods of these names take it.
struct NicDown {
  std::string nic;
};
struct CpuOffline {
  std::int64_t cpu = 0;
};
struct PageRetire {
  std::uint64_t page = 0;
  std::int64_t count = 1;
  std::string mode;
};
struct VmKill {
  std::int64_t worldId = 0;
};
struct SwapReconfigure {};
using Action = std::variant<NicDown, CpuOffline, PageRetire, VmKill, SwapReconfigure>;

/// Takes what would else be kept on this machine's disk.
class Keeper {
 public:
  Keeper() = default;
  Keeper(const Keeper&) = delete;
  Keeper& operator=(const Keeper&) = delete;
  virtual ~Keeper() = default;

  /// A record of the audit trail.
  virtual void keepAudit(const std::string& record, const std::string& user) = 0;
  /// An object of the configuration store, with its values in their order.
  virtual void keepObject(const std::string& name, const std::vector<std::pair<std::string, std::string>>& values) = 0;
};

/// Facts and actions of one host. Every method may be called from any thread.
class Host {
 public:
  Host() = default;
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
  virtual ~Host() = default;

  /// "linux" or "model:FILE".
  [[nodiscard]] virtual std::string describe() const = 0;
  /// False where the platform is to be taken for one of another build.
  [[nodiscard]] virtual bool buildMatches() const = 0;
  [[nodiscard]] virtual std::string kernelBuild() const = 0;
  /// 56 bytes.
  [[nodiscard]] virtual Answer<std::string> systemUuid() const = 0;

  /// The channel that feeds kernel context `number`; nullptr where only injection does. A channel
  /// whose source is missing logs that once and is idle. Fails where the context cannot be opened.
  /// Asked for the user-level context too (KELLIB_ASYNC_CONTEXTS), which no channel feeds.
  virtual Answer<std::unique_ptr<Channel>> openChannel(std::uint32_t number) = 0;

  /// An option's value as the host itself gives it, nothing where it gives none: what lies between
  /// a stored value and options.conf. Fails where reading was made to fail.
  [[nodiscard]] virtual Answer<std::optional<std::int64_t>> optionValue(const std::string& name) const = 0;
  /// The options that the host itself gives a value.
  [[nodiscard]] virtual std::vector<std::string> optionNames() const { return {}; }
  /// Called after a stored value of option GROUP/NAME has changed.
  virtual void optionWasSet(const std::string& name, std::int64_t value) = 0;

  [[nodiscard]] virtual Answer<PortGroupFacts> portGroup(const std::string& name) const = 0;
  [[nodiscard]] virtual Answer<std::vector<PortGroupFacts>> portGroups() const = 0;
  [[nodiscard]] virtual Answer<std::string> vmNameOfGroup(std::int64_t groupId) const = 0;

  /// The device that a storage path leads to. ENOENT where there is no such path.
  [[nodiscard]] virtual Answer<std::string> deviceOfPath(const std::string& path) const = 0;
  [[nodiscard]] virtual Answer<StorageDevice> storageDevice(const std::string& name) const = 0;
  /// Every path and the device it leads to, by path; every device, by name.
  [[nodiscard]] virtual Answer<std::map<std::string, std::string>> storagePaths() const = 0;
  [[nodiscard]] virtual Answer<std::map<std::string, StorageDevice>> storageDevices() const = 0;
  /// Whether volumes can be asked for at all.
  [[nodiscard]] virtual Outcome openVolumes() const = 0;
  /// The volume on a partition. ENOENT where there is none.
  [[nodiscard]] virtual Answer<std::string> volumeOfPartition(const std::string& device,
                                                              std::uint32_t number) const = 0;
  /// The mounted file systems of block devices; none where the host has no mounts of its own.
  [[nodiscard]] virtual Answer<std::vector<MountFacts>> mounts() const { return {}; }
  /// A path of a file system in the form that names its datastore. ENOENT where no form is known.
  [[nodiscard]] virtual Answer<std::string> datastorePath(const std::string& path) const = 0;
  /// Every form that datastorePath() gives, as `datastorePaths` of docs/model-host.md has them.
  [[nodiscard]] virtual Answer<std::map<std::string, std::string>> datastoreForms() const = 0;

  [[nodiscard]] virtual Answer<VmIdentity> vmByWorldId(std::int64_t worldId) const = 0;
  [[nodiscard]] virtual Answer<std::string> vmName(std::int64_t worldId) const = 0;
  [[nodiscard]] virtual Answer<std::vector<VmIdentity>> vms() const = 0;

  [[nodiscard]] virtual Answer<CpuCounts> cpuCounts() const = 0;
  /// The processors' vendor, such as "GenuineIntel".
  [[nodiscard]] virtual Answer<std::string> cpuVendor() const = 0;
  /// Whether processors may be taken offline.
  [[nodiscard]] virtual Answer<bool> cpuOfflineEnabled() const = 0;

  /// How many pages may be selected for retirement before that is worth a report.
  [[nodiscard]] virtual Answer<std::uint64_t> pageRetireThreshold() const = 0;
  /// The low 16 bits are not 0 where the page (a page number) is retired or about to be.
  [[nodiscard]] virtual Answer<std::uint32_t> pageStatus(std::uint64_t page) const = 0;

  // Actions; on a real host each is written to the audit trail before it is done.

  /// Takes the NIC administratively down.
  virtual Outcome nicDown(const std::string& nic) = 0;
  /// Takes a logical processor offline.
  virtual Outcome cpuOffline(std::int64_t cpu) = 0;
  /// Asks for the retirement of `count` pages from page number `page` on; `mode` is "NiceRetire".
  virtual Outcome pageRetire(std::uint64_t page, std::int64_t count, const std::string& mode) = 0;
  /// Ends a virtual machine. ESRCH where none has that world id.
  virtual Outcome vmKill(std::int64_t worldId) = 0;
  /// Places system swap anew.
  virtual Outcome swapReconfigure() = 0;

  /// What an action would do at this moment, in one line, or why it would fail. Nothing is done and
  /// nothing recorded.
  [[nodiscard]] virtual Answer<std::string> plan(const Action& action) const = 0;

  /// Where there is one, nothing of this machine's state and configuration directories is read or written.
  [[nodiscard]] virtual Keeper* keeper() { return nullptr; }

  /// Provoked or real trouble of what is kept: "store.create" and "store.write" of the configuration
  /// store, "option.set" of an option.
  [[nodiscard]] virtual Outcome storeTrouble(const std::string& operation) const = 0;
};

/// The host in force: made from KORVEL_HOST at the first call, unless one was put in force.
Host& currentHost();

/// Puts another host in force while it lives; for tests and tools. Not to be nested across threads.
class ScopedHost {
 public:
  explicit ScopedHost(std::unique_ptr<Host> host);
  ScopedHost(const ScopedHost&) = delete;
  ScopedHost& operator=(const ScopedHost&) = delete;
  ~ScopedHost();

 private:
  std::unique_ptr<Host> mine_;
  Host* previous_;
};

/// A host by its KORVEL_HOST text. Throws std::invalid_argument with a one-line reason.
std::unique_ptr<Host> makeHost(const std::string& description);

}  // namespace platform
