// The emitting side of the observation library: building raw records and sending batches of them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace KelEmit {

/// A null string as an argument.
struct NullText {};
/// A typed argument of an observation.
using Argument = std::variant<std::string, NullText, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t, double>;

/// One observation to be emitted.
struct Observation {
  std::string id;
  std::optional<std::string> message;  ///< the kernel's template; the identifier where absent
  std::vector<Argument> arguments;
  std::optional<std::uint64_t> timestamp;  ///< microseconds since the epoch; now where absent
};

/// Appends the raw record of `observation` to `batch`; it is as long as its content, not padded.
/// Returns 0, EINVAL where the identifier, template or a string holds a NUL, or EMSGSIZE past 4 GiB.
int appendRecord(const Observation& observation, std::vector<char>& batch);

/// Path of the socket of kernel context `number`, or of the user-level context, under the run
/// directory in force.
std::string contextSocketPath(std::uint32_t number);
std::string userSocketPath();

/// A connection to one context. It belongs to one thread.
class Sender {
 public:
  Sender() = default;
  Sender(Sender&& other) noexcept;
  Sender& operator=(Sender&& other) noexcept;
  ~Sender();

  using Due = std::optional<std::chrono::steady_clock::time_point>;

  /// Connects to the datagram socket of kernel context `number`. Returns 0 or a positive errno.
  int openContext(std::uint32_t number);
  /// Connects to the user-level context. Returns 0 or a positive errno.
  int openUser();
  /// Sends one batch, waiting while the receiver's queue is full, until `due` where there is one.
  /// Returns 0 or a positive errno, EAGAIN where `due` has passed.
  int send(const std::vector<char>& batch, Due due = std::nullopt);

 private:
  int open(const std::string& path, int type);

  int fd_ = -1;
};

}  // namespace KelEmit
