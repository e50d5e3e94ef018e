// The daemon's command line.
#pragma once

namespace keld {

enum class OptionsResult { start, exitWithUsage };

/// Parses -e (sets `*enableAsync`), -h, -l LEVEL and -t with their long names. The first option
/// that is not -e ends parsing: the usage has then been printed to standard output, and the
/// process is to exit with 0. Not called without arguments.
OptionsResult parseOptions(int argc, char** argv, bool* enableAsync);

}  // namespace keld
