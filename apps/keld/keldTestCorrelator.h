// The self-test correlator: compares what arrives in the group "tests" with a table, says PASS and
// FAIL on standard output, and ends the process with the number of failures.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "keldCorrelator.h"
#include "keldFramework.h"

namespace keld {

extern const CorrelatorInfo kTestCorrelator;

/// How the self-test speaks and ends; `exit` does not return to its caller.
struct SelfTestOutcome {
  std::function<void(const std::string&)> print;
  std::function<void(int)> exit;
};

/// Handlers are called by one thread; timeout() by the timer's.
class TestCorrelator {
 public:
  static constexpr std::uint32_t kTimeoutSeconds = 5;

  TestCorrelator(Services& services, SelfTestOutcome outcome) : services_(services), outcome_(std::move(outcome)) {}

  /// Takes one observation of the group.
  void handle(const Kel* observation);
  /// Ends the process because no observation came in time.
  void timeout();

 private:
  void say(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void testPosting();
  void startMarker(const char* id);
  void endMarker();
  void rearm();
  void compare(const Kel* observation, const char* id);
  int compareArguments(const Kel* observation, const char* id, int strings, int integers);
  int readArguments(const Kel* observation, const char* id);
  int readIntegers(const Kel* observation, const char* id, const char* format, const char* passed);
  int readStrings(const Kel* observation, const char* id, unsigned count);

  Services services_;
  SelfTestOutcome outcome_;
  bool postingTested_ = false;
  bool corruptPeriod_ = false;
  bool started_ = false;
  std::uint32_t received_ = 0;
  int alarmTimer_ = 0;
  std::atomic<int> failures_{0};  // read by the timer's thread, too
};

}  // namespace keld
