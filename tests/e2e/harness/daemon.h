// The daemon under test, from its start to its end.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "program.h"
#include "traceClient.h"

namespace e2e {

class Daemon : public Program {
 public:
  explicit Daemon(const Workspace& workspace, std::vector<std::string> arguments = {});
  /// Another program that is a daemon.
  Daemon(const Workspace& workspace, const std::string& program, std::vector<std::string> arguments);

  /// Starts the daemon and returns once its main loop runs: it has answered a trace client.
  void startAndServe();
  /// The trace client that has been connected since the daemon was ready.
  TraceClient& trace();
  /// Sends SIGTERM and waits for the end.
  Ending terminate(Deadline deadline = Deadline{});

 private:
  std::string traceSocket_;
  std::optional<TraceClient> trace_;
};

}  // namespace e2e
