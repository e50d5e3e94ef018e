// A program run to its end, or to a deadline, from any thread of a process with many.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "host/host.h"

namespace platform {

/// Most bytes of a program's complaints that are kept.
inline constexpr std::size_t kComplaintBytes = 1024;

/// Runs `program` (a path) with `arguments`, a minimal environment, no input, no descriptors of this
/// process and default signals, and waits. Ok where it exits with status 0. ETIMEDOUT where it had to
/// be killed at the deadline, EIO where it failed; the text holds the first line that it wrote to standard
/// error. Any thread; signals and children of other threads are left alone.
Outcome runProgram(const std::string& program, const std::vector<std::string>& arguments,
                   std::chrono::milliseconds deadline);

}  // namespace platform
