// Corrected clocks over the time that matters to them.
#include "story.h"

namespace e2e {
namespace {

using support::i;

class ClockHoldOff : public ShiftedStory {
 protected:
  void expectClock(const std::string& key) { nextEvent("orn.problem.clock." + key); }
  void tell(const std::string& key, const Arguments& arguments = {}) { observe("kel.clock." + key, arguments); }
  /// Lets the correlator finish and then moves the clock.
  void passTo(int seconds) {
    const std::string unknown = "kel.clock.unheard" + std::to_string(++unknown_);
    observe(unknown);
    log().waitFor("No system clock correlator for " + unknown);
    setTime(seconds);
  }

 private:
  int unknown_ = 0;
};

TEST_F(ClockHoldOff, AnIdentifierIsReportedAgainAfterAnHourAndNoSooner) {
  beginAtZero();
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  passTo(3599);
  tell("correction.adjtime.sync");
  tell("state.reset");
  expectClock("state.reset");
  passTo(3600);
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  passTo(7198);
  tell("state.reset");
  passTo(7199);
  tell("state.reset");
  expectClock("state.reset");
  end();
}

TEST_F(ClockHoldOff, ALossOfSynchronisationLetsTheNextGainBeToldUnlessItCannotBeRead) {
  beginAtZero();
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  passTo(10);
  tell("correction.step.unsync", {i(5)});
  passTo(20);
  tell("correction.adjtime.sync");
  tell("correction.step.unsync", {i(5), i(6)});
  expectClock("correction.step.unsync");
  passTo(30);
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  end();
}

TEST_F(ClockHoldOff, AClockThatIsSteppedBackKeepsAnIdentifierSilentUntilItsHourHasCome) {
  beginAtZero();
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  passTo(-86400);
  tell("correction.adjtime.sync");
  tell("state.reset");
  expectClock("state.reset");
  passTo(3599);
  tell("correction.adjtime.sync");
  passTo(3600);
  tell("correction.adjtime.sync");
  expectClock("correction.adjtime.sync");
  end();
}

}  // namespace
}  // namespace e2e
