#include "daemon.h"

#include <csignal>

namespace e2e {

Daemon::Daemon(const Workspace& workspace, std::vector<std::string> arguments)
    : Daemon(workspace, KELD_PROGRAM, std::move(arguments)) {}

Daemon::Daemon(const Workspace& workspace, const std::string& program, std::vector<std::string> arguments)
    : Program(workspace, program, std::move(arguments)), traceSocket_(workspace.traceSocket()) {}

void Daemon::startAndServe() {
  start();
  Descriptor probe = localSocket(SOCK_STREAM);
  const auto listening = [&] { return hasEnded() || connectLocal(probe, traceSocket_) == 0; };
  if (!eventually(listening)) throw HarnessError("the daemon does not listen for trace clients in time");
  if (hasEnded()) throw HarnessError("the daemon ended: " + waitForEnd().text() + "\n" + standardError());
  trace_.emplace(std::move(probe));
  trace_->history();
}

TraceClient& Daemon::trace() {
  return trace_.value();
}

Ending Daemon::terminate(Deadline deadline) {
  signal(SIGTERM);
  return waitForEnd(deadline);
}

}  // namespace e2e
