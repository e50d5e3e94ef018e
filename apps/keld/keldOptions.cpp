#include "keldOptions.h"

#include <getopt.h>

#include <cstdio>

namespace keld {

OptionsResult parseOptions(int argc, char** argv, bool* enableAsync) {
  static constexpr option kOptions[] = {
      {"enablekels", no_argument, nullptr, 'e'},
      {"help", no_argument, nullptr, 'h'},
      {"loglevel", required_argument, nullptr, 'l'},
      {"test", no_argument, nullptr, 't'},
      {nullptr, 0, nullptr, 0},
  };
  while (true) {
    switch (getopt_long(argc, argv, "ehl:t", kOptions, nullptr)) {
      case 'e':
        *enableAsync = true;
        break;
      case -1:
        return OptionsResult::start;
      default:
        // Kept: a log level and the test flag are accepted, and have no effect but this.
        std::printf("Usage: %s [options]\n", argv[0]);
        std::printf("valid options are:\n");
        std::printf("\t--help|-h - display this help\n");
        return OptionsResult::exitWithUsage;
    }
  }
}

}  // namespace keld
