// kelctl host: what the platform sees of this host.
#include "commandLine.h"
#include "console.h"
#include "failure.h"
#include "host/describe.h"
#include "hostText.h"

namespace kelctl {

int runHost(const Words& words) {
  bool json = false;
  CommandLine line("host", "Shows what the platform sees of this host, or of the one that KORVEL_HOST names.");
  line.app().add_flag("--json", json, "print one JSON object");
  if (!line.parse(words)) return kDone;
  const Json host = platform::describeHost();
  Output out;
  out.write(json ? host.dump(2, ' ', false, Json::error_handler_t::replace) + "\n" : hostText(host));
  out.flush();
  return kDone;
}

}  // namespace kelctl
