#include "platform/audit.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/complaints.h"
#include "host/files.h"
#include "host/host.h"
#include "host/paths.h"
#include "platform/clock.h"

namespace {

/// Longest entry of the user database that is looked at.
constexpr std::size_t kUserEntryBytes = std::size_t{64} * 1024;

std::string processUser() {
  const uid_t uid = ::geteuid();
  std::vector<char> buffer(kUserEntryBytes);
  passwd entry{};
  passwd* found = nullptr;
  const int status = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
  return status == 0 && found != nullptr ? found->pw_name : std::to_string(uid);
}

int append(const char* record, const char* user, const char* text, bool flag) {
  if (platform::Keeper* const keeper = platform::currentHost().keeper(); keeper != nullptr) {
    keeper->keepAudit(record, user != nullptr ? user : "");
    return 0;
  }
  using Json = nlohmann::ordered_json;
  const auto now = std::chrono::floor<std::chrono::microseconds>(systemClock().wall());
  const Json line{{"time_us", now.time_since_epoch().count()},
                  {"record", record},
                  {"user", user != nullptr ? std::string(user) : processUser()},
                  {"text", text != nullptr ? text : ""},
                  {"flag", flag}};
  const std::string path = platform::stateDirectory() + "/audit.jsonl";
  const int status = platform::appendLine(path, line.dump(-1, ' ', false, Json::error_handler_t::replace));
  if (status != 0) platform::logSparsely(path, "cannot write " + path + ": " + platform::errnoText(status));
  return status;
}

}  // namespace

int KrvAudit_Log(const char* record, const char* user, const char* text, bool flag) {
  if (record == nullptr) return EINVAL;
  // Exceptions do not leave a C-style interface.
  try {
    return append(record, user, text, flag);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  } catch (const std::exception&) {
    return EIO;
  }
}
