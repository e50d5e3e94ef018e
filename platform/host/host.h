// The host behind the platform's operations: what it answers and what can be done to it.
//
// One of two hosts is in force for a process: the machine itself ("linux"), or one described by a
// file ("model:FILE"), as KORVEL_HOST says. Interface libraries (vsi, hostctl, qkctl, kellib) call
// it; nothing outside platform/ does, but for the operator's tool and tests.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
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

struct PortGroupFacts {
  std::string name;
  std::string virtualSwitch;
  std::vector<std::string> uplinks;  ///< NICs that serve it; empty where the host does not say
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

  /// Takes the NIC administratively down; audited on a real host.
  virtual Outcome nicDown(const std::string& nic) = 0;

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
