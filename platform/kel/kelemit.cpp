#include "platform/kelemit.h"

#include <sys/socket.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <utility>

#include "host/uniqueFd.h"
#include "kel/batch.h"
#include "kel/contextSocket.h"
#include "kel/localAddress.h"
#include "kel/record.h"
#include "platform/clock.h"
#include "platform/kellib.h"
#include "platform/msgfmt.h"

namespace KelEmit {

namespace {

using platform::RecordHeader;

std::uint64_t nowMicroseconds() {
  const auto now = std::chrono::floor<std::chrono::microseconds>(systemClock().wall());
  return static_cast<std::uint64_t>(now.time_since_epoch().count());
}

bool holdsNul(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

std::size_t textBytes(const Argument& argument) {
  const auto* text = std::get_if<std::string>(&argument);
  return text != nullptr ? text->size() + 1 : 0;
}

/// The entry of an argument whose text, if it has one, is placed at `textOffset` of the area.
struct EntryOf {
  std::uint64_t textOffset;

  static MsgFmt_Arg entry(MsgFmt_ArgType type, std::uint64_t value, std::uint32_t flags = 0) {
    MsgFmt_Arg made;
    made.type = type;
    made.flags = flags;
    made.value = value;
    return made;
  }

  MsgFmt_Arg operator()(const std::string& /*text*/) const { return entry(MSGFMT_ARG_STRING8, textOffset); }
  MsgFmt_Arg operator()(NullText /*none*/) const { return entry(MSGFMT_ARG_STRING8, 0); }
  MsgFmt_Arg operator()(std::int32_t value) const { return entry(MSGFMT_ARG_INT32, static_cast<std::uint32_t>(value)); }
  MsgFmt_Arg operator()(std::uint32_t value) const { return entry(MSGFMT_ARG_INT32, value, MSGFMT_FLAG_UNSIGNED); }
  MsgFmt_Arg operator()(std::int64_t value) const { return entry(MSGFMT_ARG_INT64, static_cast<std::uint64_t>(value)); }
  MsgFmt_Arg operator()(std::uint64_t value) const { return entry(MSGFMT_ARG_INT64, value, MSGFMT_FLAG_UNSIGNED); }
  MsgFmt_Arg operator()(double value) const { return entry(MSGFMT_ARG_FLOAT64, std::bit_cast<std::uint64_t>(value)); }
};

/// What one message may hold is bounded by its sender's buffer alone (unix(7)). Where the host's
/// default is too small for a batch, ask for more; a refusal shows as EMSGSIZE if it matters.
void makeRoomForBatches(int fd) {
  constexpr int kRoomBytes = static_cast<int>(platform::kBatchLimitBytes) + 4096;
  int room = 0;
  socklen_t size = sizeof room;
  if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, &size) == 0 && room >= kRoomBytes) return;
  static_cast<void>(::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kRoomBytes, sizeof kRoomBytes));
}

/// Connects to a context's socket. Returns 0 or an errno value.
int connectTo(const std::string& path, int type, platform::UniqueFd* connected) {
  sockaddr_un address;
  if (const int status = platform::localAddress(path, &address); status != 0) return status;
  platform::UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  if (!fd) return errno;
  while (::connect(fd.get(), platform::socketAddress(address), sizeof address) != 0) {
    if (errno != EINTR) return errno;
  }
  makeRoomForBatches(fd.get());
  *connected = std::move(fd);
  return 0;
}

}  // namespace

int appendRecord(const Observation& observation, std::vector<char>& batch) {
  const std::string& message = observation.message ? *observation.message : observation.id;
  if (holdsNul(observation.id) || holdsNul(message)) return EINVAL;
  std::size_t texts = 0;
  for (const Argument& argument : observation.arguments) {
    const auto* text = std::get_if<std::string>(&argument);
    if (text != nullptr && holdsNul(*text)) return EINVAL;
    texts += textBytes(argument);
  }
  const std::size_t count = observation.arguments.size();
  const std::size_t messageOffset = platform::kRecordHeaderBytes + observation.id.size() + 1;
  const std::size_t argumentOffset = messageOffset + message.size() + 1;
  const std::size_t length = argumentOffset + count * sizeof(MsgFmt_Arg) + texts;
  if (length > std::numeric_limits<std::uint32_t>::max()) return EMSGSIZE;

  const std::size_t start = batch.size();
  batch.resize(start + length);
  char* record = batch.data() + start;
  RecordHeader header;
  header.timestamp = observation.timestamp ? *observation.timestamp : nowMicroseconds();
  header.argumentCount = static_cast<std::uint32_t>(count);
  header.argumentOffset = static_cast<std::uint32_t>(argumentOffset);
  header.length = static_cast<std::uint32_t>(length);
  header.messageOffset = static_cast<std::uint32_t>(messageOffset);
  std::memcpy(record, &header, sizeof header);
  std::memcpy(record + platform::kRecordHeaderBytes, observation.id.c_str(), observation.id.size() + 1);
  std::memcpy(record + messageOffset, message.c_str(), message.size() + 1);

  char* area = record + argumentOffset;
  std::size_t textOffset = count * sizeof(MsgFmt_Arg);
  for (std::size_t index = 0; index < count; ++index) {
    const Argument& argument = observation.arguments[index];
    const MsgFmt_Arg entry = std::visit(EntryOf{textOffset}, argument);
    std::memcpy(area + index * sizeof(MsgFmt_Arg), &entry, sizeof entry);
    if (const auto* text = std::get_if<std::string>(&argument)) {
      std::memcpy(area + textOffset, text->c_str(), text->size() + 1);
      textOffset += text->size() + 1;
    }
  }
  return 0;
}

std::string contextSocketPath(std::uint32_t number) {
  return platform::contextPath(platform::contextName(number));
}

std::string userSocketPath() {
  return contextSocketPath(KELLIB_ASYNC_CONTEXTS);
}

Sender::Sender(Sender&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Sender& Sender::operator=(Sender&& other) noexcept {
  // The descriptor that was this one's closes with `other`.
  std::swap(fd_, other.fd_);
  return *this;
}

Sender::~Sender() {
  if (fd_ >= 0) ::close(fd_);
}

int Sender::openContext(std::uint32_t number) {
  if (number >= KELLIB_ASYNC_CONTEXTS) return EINVAL;
  platform::UniqueFd connected(std::exchange(fd_, -1));
  const int status = connectTo(contextSocketPath(number), SOCK_DGRAM, &connected);
  if (status == 0) fd_ = connected.release();
  return status;
}

int Sender::openUser() {
  platform::UniqueFd connected(std::exchange(fd_, -1));
  const int status = connectTo(userSocketPath(), SOCK_SEQPACKET, &connected);
  if (status == 0) fd_ = connected.release();
  return status;
}

int Sender::send(const std::vector<char>& batch) {
  if (batch.empty()) return EINVAL;
  if (fd_ < 0) return ENOTCONN;
  // One message goes whole or not at all.
  while (::send(fd_, batch.data(), batch.size(), MSG_NOSIGNAL) < 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

}  // namespace KelEmit
