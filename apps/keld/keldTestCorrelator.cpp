// Watches the group "tests". A test tool emits a start marker, 21 observations, some of them with
// malformed templates, corruption markers and an end marker; each arrival is held against the row
// whose turn it is. All lines go to standard output, several of them without a line end.
#include "keldTestCorrelator.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

namespace keld {

namespace {

struct Expected {
  const char* id;
  const char* message;
  int strings;
  int integers;
};

constexpr Expected kExpected[] = {
    {"kel.tests.async.noData", "this is an observation with no data", 0, 0},
    {"kel.tests.async.withPath", "this is an observation with a complicated /a/fake/path${path} path.", 1, 0},
    {"kel.tests.async.withLog", "this is an ob with an associated Log message.", 0, 0},
    {"kel.tests.async.withWarn", "this is an ob with an associated Warn message.", 0, 0},
    {"kel.tests.async.withIntParams",
     "this is an observation with integer parameters. -559038737, deadbeef, -2401053088876216593", 0, 3},
    {"kel.tests.async.withUintParams",
     "this is an observation with unsigned integer parameters. 3735928559, deadbeef, 16045690984833335023", 0, 3},
    {"kel.tests.async.withStringParams", "this is an observation with a string parameter: some string", 1, 0},
    {"kel.tests.async.withLongStringParam",
     "this is an observation with a string parameter: some looong long long long long long string", 1, 0},
    {"kel.tests.async.withLongStringParams",
     "this is an observation with a string parameter: some looong long long long long long string and another: some "
     "string",
     2, 0},
    {"kel.tests.corrupt.format.empty", "", 0, 0},
    {"kel.tests.corrupt.format.doublepercent", "%", 0, 0},
    {"kel.tests.corrupt.format.s.zeros", "", 1, 0},
    {"kel.tests.corrupt.format.s.zero3", "000", 1, 0},
    {"kel.tests.corrupt.format.tag.invalid1", "0${", 0, 1},
    {"kel.tests.corrupt.format.tag.invalid2", "0${asdf", 0, 1},
    {"kel.tests.corrupt.format.tag.nestedInval", "0${a0{df}", 0, 2},
    {"kel.tests.corrupt.format.tag.ugly", "0${009__.asdf}", 0, 1},
    {"kel.tests.corrupt.format.tag.vugly", "0${009__.asdf=bar=baz=foof}", 0, 1},
    {"kel.tests.corrupt.format.tag.assign.inval", "0${=invalid}", 0, 1},
    {"kel.tests.corrupt.format.tag.notreally", "%${ignore}", 0, 0},
    {"kel.tests.corrupt.format.tag.notreally2", "%${=ignore}", 0, 0},
};
constexpr std::size_t kExpectedCount = std::size(kExpected);
static_assert(kExpectedCount == 21);

constexpr std::size_t kHugeBytes = 10485760;

struct Freed {
  void operator()(char* memory) const noexcept { std::free(memory); }
};
using CString = std::unique_ptr<char, Freed>;

/// The letter x as often as fits `kHugeBytes` with its NUL; null when memory is exhausted.
CString hugeString() {
  CString text(static_cast<char*>(std::malloc(kHugeBytes)));
  if (text) {
    std::memset(text.get(), 'x', kHugeBytes - 1);
    text.get()[kHugeBytes - 1] = '\0';
  }
  return text;
}

}  // namespace

void TestCorrelator::say(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  char* text = nullptr;
  const int length = vasprintf(&text, format, args);
  va_end(args);
  if (length < 0) return;
  const CString owned(text);
  outcome_.print(text);
}

void TestCorrelator::testPosting() {
  static constexpr char kNoMemory[] = "FAIL: Unable to allocate %zu bytes for 'hugestr'\n";
  Post& post = services_.post;
  say("INFO: Testing VProb_PostProblem.\n");
  post.VProb_PostProblem("@&!*@*@(orn.problem.keldtestcorrelator.test.0)No args");
  post.VProb_PostProblem("@&!*@*@(orn.problem.keldtestcorrelator.test.1d)%d args", 1);
  post.VProb_PostProblem("@&!*@*@(orn.problem.keldtestcorrelator.test.1s)%s args", "one");
  if (const CString text = hugeString()) {
    post.VProb_PostProblem("@&!*@*@(orn.problem.keldtestcorrelator.test.hugestr)Huge string %s", text.get());
  } else {
    say(kNoMemory, kHugeBytes);
    ++failures_;
  }
  if (const CString id = hugeString()) {
    post.Keld_PostProblem(id.get(), "Huge ID");
  } else {
    say(kNoMemory, kHugeBytes);
    ++failures_;
  }
  say("INFO: Testing VProb_PostAudit.\n");
  post.VProb_PostAudit("@&!*@*@(orn.audit.keldtestcorrelator.test)%s (%d) args", "Two", 2);
  say("INFO: Testing VProb_PostClear.\n");
  post.VProb_PostClear("@&!*@*@(orn.clear.keldtestcorrelator.test)%s (%d) %ss", "Three", 3, "arg");
  say("INFO: Vprob tests completed\n");
}

void TestCorrelator::rearm() {
  services_.timers.set(alarmTimer_, TimerMode::oneShot, kTimeoutSeconds);
}

void TestCorrelator::timeout() {
  say("FAIL: Timeout.  Waited %u seconds, but got no kels.\n", kTimeoutSeconds);
  outcome_.exit(failures_.load() + 1);
}

void TestCorrelator::startMarker(const char* id) {
  if (started_) {
    say("FAILURE: Duplicate test start kels?!");
    ++failures_;
  } else {
    say("INFO: Received 'test start' kel: %s\n", id);
    started_ = true;
    received_ = 0;
  }
  alarmTimer_ = services_.timers.create([this] { timeout(); });
  if (alarmTimer_ == kNoTimer) {
    say("FAIL: Failed to set alarm handler\n");
    outcome_.exit(failures_.load() + 1);
  }
  say("INFO: Alarm handler ready\n");
}

void TestCorrelator::endMarker() {
  if (!started_) say("FAILURE: Received END without matching start!");
  started_ = false;
  if (received_ != kExpectedCount) {
    say("FAIL: No. of tests = %zu, but received only %u kels.\n", kExpectedCount, received_);
    ++failures_;
  }
  say("INFO: Tests completed. Failures = %d\n", failures_.load());
  outcome_.exit(failures_.load());
}

void TestCorrelator::handle(const Kel* observation) {
  if (!postingTested_) {
    testPosting();
    postingTested_ = true;
  }
  const char* id = nullptr;
  Kel_GetID(observation, &id);
  const std::string_view name = id != nullptr ? id : "";
  say("INFO: Got kel: %s\n", id != nullptr ? id : "(null)");
  // Kept: before the first start marker this is timer 0, whoever has made that.
  services_.timers.set(alarmTimer_, TimerMode::oneShot, 0);

  if (name == "kel.tests.marker.start") {
    startMarker(id);
  } else if (name == "kel.tests.marker.end") {
    endMarker();
    return;
  } else if (name == "kel.tests.marker.corruptions.start") {
    say("INFO: Start corrupt KELs window.\n");
    corruptPeriod_ = true;
    return;
  } else if (name == "kel.tests.marker.corruptions.end") {
    say("INFO: End corrupt KELs window.\n");
    corruptPeriod_ = false;
    return;
  } else if (!started_) {
    say("WARNING: received kel %s before test 'START' kel. (Ignoring.)", id != nullptr ? id : "(null)");
    return;
  } else if (received_ >= kExpectedCount) {
    say("FAIL: More KELs receieved than expected! kelId = '%s'.  Did more get added to the testworld?\n",
        id != nullptr ? id : "(null)");
    outcome_.exit(failures_.load() + 1);
  } else if (corruptPeriod_) {
    say("FAIL: Kel %s received, but should get nothing during the corrupt kel window.  Dropping.\n",
        id != nullptr ? id : "(null)");
    ++failures_;
  } else {
    compare(observation, id);
  }
  rearm();
}

void TestCorrelator::compare(const Kel* observation, const char* id) {
  const Expected& expected = kExpected[received_];
  const CString message(id != nullptr ? Kel_GetMsg(observation) : nullptr);
  if (id == nullptr || !message) {
    if (id == nullptr) {
      say("FAIL: Received NULL kelID\n");
    } else {
      say("FAIL: Received NULL kelMsg for kelID = '%s'\n", id);
    }
    ++failures_;
    ++received_;
    return;
  }
  int errors = 0;
  if (std::strcmp(id, expected.id) != 0) {
    say("FAIL: Expected kelId = '%s'; Got '%s'\n", expected.id, id);
    ++errors;
  }
  if (std::strcmp(message.get(), expected.message) != 0) {
    say("FAIL: Expected msg = '%s'; Got '%s'\n", expected.message, message.get());
    ++errors;
  }
  errors += compareArguments(observation, id, expected.strings, expected.integers);
  errors += readArguments(observation, id);
  if (errors == 0) {
    say("PASS: [%u]: %s\n", received_, id);
  } else {
    failures_ += errors;
  }
  ++received_;
}

int TestCorrelator::compareArguments(const Kel* observation, const char* id, int strings, int integers) {
  int errors = 0;
  const char* text = nullptr;
  std::int64_t integer = 0;
  for (int n = 0; n < strings; ++n) {
    if (const int status = Kel_GetStringArg(observation, static_cast<unsigned>(n), &text); status != 0) {
      say("FAIL: Kel_GetStringArg returned %d @ i = %d\n", status, n);
      ++errors;
    }
  }
  if (strings == 0 && Kel_GetStringArg(observation, 0, &text) == 0) {
    say("FAIL: Kel_GetStringArg (%s) failed: %d!\n", id, 0);
    ++errors;
  }
  for (int n = 0; n < integers; ++n) {
    if (const int status = Kel_GetIntArg(observation, static_cast<unsigned>(n), &integer); status != 0) {
      say("FAIL: Kel_GetIntArg returned %d @ i = %d\n", status, n);
      ++errors;
    }
  }
  if (integers == 0 && Kel_GetIntArg(observation, 0, &integer) == 0) {
    say("FAIL: Kel_GetIntArg(%s) failed: %d\n", id, 0);
    ++errors;
  }
  return errors;
}

int TestCorrelator::readArguments(const Kel* observation, const char* id) {
  static constexpr char kPassed[] = "PASS: Kel_GetArgs succeeded for KEL ";
  const std::string_view name = id;
  if (name == "kel.tests.async.withIntParams") {
    return readIntegers(observation, id, "%d %x %ld", kPassed) +
           readIntegers(observation, id, "%10d %10x %10ld",
                        "PASS: Kel_GetArgs (with field width specifiers) succeeded for KEL ");
  }
  if (name == "kel.tests.async.withUintParams") {
    unsigned first = 0;
    unsigned second = 0;
    unsigned long third = 0;
    if (const int status = Kel_GetArgs(observation, 0, "%u %x %lu", &first, &second, &third); status != 0) {
      say("FAIL: Kel_GetArgs failed for KEL %s: %s\n", id, std::strerror(status));
      return 1;
    }
    say("%s%s. Args: %d, %x, %ld\n", kPassed, id, static_cast<int>(first), second, static_cast<long>(third));
    return 0;
  }
  if (name == "kel.tests.async.withStringParams" || name == "kel.tests.async.withLongStringParam") {
    return readStrings(observation, id, 1);
  }
  if (name == "kel.tests.async.withLongStringParams") return readStrings(observation, id, 2);
  return 0;
}

int TestCorrelator::readIntegers(const Kel* observation, const char* id, const char* format, const char* passed) {
  int first = 0;
  unsigned second = 0;
  long third = 0;
  if (const int status = Kel_GetArgs(observation, 0, format, &first, &second, &third); status != 0) {
    say("FAIL: Kel_GetArgs failed for KEL %s: %s\n", id, std::strerror(status));
    return 1;
  }
  say("%s%s. Args: %d, %x, %ld\n", passed, id, first, second, third);
  return 0;
}

int TestCorrelator::readStrings(const Kel* observation, const char* id, unsigned count) {
  const char* texts[2] = {nullptr, nullptr};
  int errors = 0;
  for (unsigned n = 0; n < count; ++n) {
    if (const int status = Kel_GetArgs(observation, n, "%p", &texts[n]); status != 0) {
      say("FAIL: Kel_GetArgs failed for KEL %s: %s\n", id, std::strerror(status));
      ++errors;
    }
  }
  if (errors != 0) return errors;
  if (count == 1) {
    say("PASS: Kel_GetArgs succeeded for KEL %s. Args: %s\n", id, texts[0]);
  } else {
    say("PASS: Kel_GetArgs succeeded for KEL %s. Args: %s, %s\n", id, texts[0], texts[1]);
  }
  return 0;
}

namespace {

constexpr const char* kGroups[] = {"tests"};
constexpr int kLargestStatus = 255;

constexpr Judged kMarkers[] = {{"kel.tests.marker.start", "", {}},
                               {"kel.tests.marker.corruptions.start", "", {}},
                               {"kel.tests.marker.corruptions.end", "", {}},
                               {"kel.tests.marker.end", "", {}}};

/// How many texts and integers an observation of the table has.
constexpr std::string_view readingOf(const Expected& expected) {
  constexpr std::string_view kTexts = "ss";
  constexpr std::string_view kIntegers = "iii";
  return expected.strings != 0 ? kTexts.substr(0, static_cast<std::size_t>(expected.strings))
                               : kIntegers.substr(0, static_cast<std::size_t>(expected.integers));
}

constexpr auto kTestsKnown = [] {
  std::array<Judged, std::size(kMarkers) + kExpectedCount> known{};
  std::copy(std::begin(kMarkers), std::end(kMarkers), known.begin());
  std::transform(std::begin(kExpected), std::end(kExpected), known.begin() + std::size(kMarkers),
                 [](const Expected& expected) {
                   return Judged{expected.id, readingOf(expected), {}};
                 });
  return known;
}();

void runTests(AgentContext& context) {
  // Leaves at once and without destructors, which other threads could still need.
  const SelfTestOutcome outcome{[](const std::string& text) { std::fputs(text.c_str(), stdout); },
                                [](int failures) {
                                  std::fflush(stdout);
                                  // More than a status can say are not none.
                                  _exit(std::min(failures, kLargestStatus));
                                }};
  // Never destroyed: its alarm may still run once this thread has ended.
  static auto& correlator = *new TestCorrelator(context.services, outcome);
  runCorrelator(context, kTestCorrelator.nameWord, kTestCorrelator.groups[0],
                [](const Kel* observation) { correlator.handle(observation); }, {});
}

}  // namespace

constinit const CorrelatorInfo kTestCorrelator = {"KeldTest", kGroups, {}, runTests, {}, kTestsKnown};

}  // namespace keld
