#include "observations.h"

#include <poll.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "kel/record.h"
#include "platform/kel.h"

namespace linktest {

namespace {

std::string wordsOf(const char* record, std::size_t length) {
  auto* const copy = static_cast<char*>(std::malloc(length));
  std::memcpy(copy, record, length);
  Kel* const observation = Kel_MakeKel(copy, length);
  if (observation == nullptr) {
    std::free(copy);
    throw std::runtime_error("malformed record");
  }
  const char* id = nullptr;
  Kel_GetID(observation, &id);
  std::string words = id;
  for (unsigned index = 0;; ++index) {
    const char* text = nullptr;
    std::int64_t number = 0;
    if (Kel_GetStringArg(observation, index, &text) == 0) {
      words += std::string(" ") + (text != nullptr ? text : "(null)");
    } else if (Kel_GetIntArg(observation, index, &number) == 0) {
      words += " " + std::to_string(number);
    } else {
      break;
    }
  }
  Kel_Free(observation);
  return words;
}

bool waitReadable(const platform::Channel& channel, int milliseconds) {
  pollfd one{channel.fd(), POLLIN, 0};
  return ::poll(&one, 1, milliseconds) == 1 && one.revents == POLLIN;
}

void readOnce(platform::Channel& channel, std::size_t capacity, std::vector<std::string>& all) {
  std::vector<char> buffer(capacity);
  std::size_t length = 0;
  if (const int status = channel.read(buffer.data(), capacity, &length); status != 0) {
    throw std::runtime_error("read: " + std::to_string(status));
  }
  if (length != 0 && length >= capacity) throw std::runtime_error("batch not smaller than the capacity");
  buffer.resize(length);
  for (std::string& words : observationsOf(buffer)) all.push_back(std::move(words));
}

}  // namespace

std::vector<std::string> observationsOf(const std::vector<char>& batch) {
  std::vector<std::string> all;
  for (std::size_t at = 0; at < batch.size();) {
    const std::size_t length = platform::loadRecordHeader(batch.data() + at).length;
    if (length > batch.size() - at) throw std::runtime_error("records do not fill the batch");
    all.push_back(wordsOf(batch.data() + at, length));
    at += length;
  }
  return all;
}

std::vector<std::string> readAll(platform::Channel& channel, std::size_t capacity) {
  std::vector<std::string> all;
  while (waitReadable(channel, 0)) readOnce(channel, capacity, all);
  return all;
}

std::vector<std::string> readUntil(platform::Channel& channel, std::size_t count, std::chrono::seconds deadline) {
  std::vector<std::string> all;
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (all.size() < count && std::chrono::steady_clock::now() < end) {
    if (waitReadable(channel, 100)) readOnce(channel, 131072, all);
  }
  return all;
}

bool pollsReadable(const platform::Channel& channel) {
  return waitReadable(channel, 0);
}

}  // namespace linktest
