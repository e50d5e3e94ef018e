#include <csignal>

#include "command.h"

int main(int argc, char** argv) {
  // A closed pipe is seen where it is written to.
  (void)std::signal(SIGPIPE, SIG_IGN);
  return kelctl::runTool(kelctl::Words(argv + (argc > 0 ? 1 : 0), argv + argc));
}
