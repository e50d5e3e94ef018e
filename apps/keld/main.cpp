#include "keldAgentStarter.h"
#include "keldLoop.h"

int main(int argc, char** argv) {
  keld::runDaemon(argc, argv, keld::startAgents, false);
}
