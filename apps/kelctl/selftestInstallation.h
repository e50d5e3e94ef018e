// Whether the daemon that is installed on this host can be reached from here.
#pragma once

#include <string>

namespace kelctl {

struct Installation {
  bool whole = false;  ///< all of it is reachable
  std::string line;    ///< "installation: ...", one line without a line feed
};

/// Looks at the run directory in force and at the system log. Nobody who is looked at takes harm or
/// notice: the daemon gets a trace client that leaves in order, the owners of other sockets a
/// connection of the wrong type, which the kernel refuses. Waits two seconds at most.
Installation lookAtInstallation();

}  // namespace kelctl
