// Shifted time for one program: its clocks and waits run as the test says.
#pragma once

#include <string>

#include "program.h"

namespace e2e {

/// Uses the preload library of the package "faketime". One object serves one program.
class FakeTime {
 public:
  /// Empty, or why this build or machine cannot shift a program's time.
  static std::string missing();

  /// Before start(): the clock runs `factor` times as fast as the real one.
  static void runFast(Program& program, int factor);
  /// Before start(): the clock stands still at a time such as "2026-01-01 00:00:00".
  FakeTime(const Workspace& workspace, Program& program, const std::string& time);
  /// Takes effect at the program's next look at the clock; a wait in progress does not notice.
  void set(const std::string& time) const;

 private:
  std::string file_;
};

}  // namespace e2e
