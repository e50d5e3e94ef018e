#include <cstdio>

#include "keldAgentStarter.h"
#include "keldLoop.h"

int main(int argc, char** argv) {
  // What it says is to be read while it runs, and not to die with it.
  static_cast<void>(std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ));
  keld::runDaemon(argc, argv, keld::startAgents, true);
}
