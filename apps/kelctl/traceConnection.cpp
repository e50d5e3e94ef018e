#include "traceConnection.h"

#include <fmt/format.h>

#include <cerrno>

#include "failure.h"
#include "host/files.h"
#include "localConnection.h"

namespace kelctl {

std::string tracePath() {
  return runPath("keld-trace.sock");
}

platform::UniqueFd connectToTrace() {
  const std::string path = tracePath();
  platform::UniqueFd fd;
  const int status = connectStream(path, &fd);
  if (status == 0) return fd;
  const char* advice = "";
  if (status == ENOENT || status == ECONNREFUSED) advice = "; is keld running?";
  if (status == EACCES) advice = "; run as root or as keld's user";
  if (status == EAGAIN) advice = "; keld takes no clients, is it stopped?";
  throw Failure(fmt::format("cannot reach keld's trace socket at {}: {}{}", path, platform::errnoText(status), advice));
}

}  // namespace kelctl
