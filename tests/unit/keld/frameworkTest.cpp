#include "keldFramework.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "correlatorHarness.h"

namespace {

class DispatchTest : public testing::Test {
 protected:
  DispatchTest() {
    table.emplace("kel.t.known", [this](const Kel*) { calls.emplace_back("known"); });
    table.emplace("kel.t.throws", [](const Kel*) { throw std::runtime_error("dropped"); });
  }
  void dispatch(const std::string& id, const keld::Handler& otherwise) {
    keld::dispatchObservation(otherwise, table, support::observation(id).get());
  }

  support::RecordingLog log;
  keld::HandlerTable table;
  std::vector<std::string> calls;
  keld::Handler fallback = [this](const Kel*) { calls.emplace_back("default"); };
};

TEST_F(DispatchTest, aKnownIdentifierIsLoggedOnceAndGoesToItsHandler) {
  dispatch("kel.t.known", fallback);
  EXPECT_EQ(calls, std::vector<std::string>{"known"});
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].ends_with("1767225600000000us: [kel.t.known] kel.t.known\n")) << lines[0];
}

TEST_F(DispatchTest, anUnknownOneGoesToTheDefaultHandlerUnlogged) {
  dispatch("kel.t.unknown", fallback);
  EXPECT_EQ(calls, std::vector<std::string>{"default"});
  EXPECT_TRUE(log.take().empty());
}

TEST_F(DispatchTest, anUnknownIdentifierStaysUnknown) {
  dispatch("kel.t.unknown", fallback);
  dispatch("kel.t.unknown", fallback);
  EXPECT_EQ(calls, (std::vector<std::string>{"default", "default"}));
  EXPECT_EQ(table.size(), 2U);
}

TEST_F(DispatchTest, anExceptionOutOfAHandlerIsDroppedAndTheNextIsHandled) {
  dispatch("kel.t.throws", fallback);
  dispatch("kel.t.known", fallback);
  EXPECT_EQ(calls, std::vector<std::string>{"known"});
  dispatch("kel.t.unknown", [](const Kel*) { throw std::runtime_error("dropped, too"); });
}

TEST_F(DispatchTest, anObservationWithoutIdentifierGoesToTheDefaultHandler) {
  dispatch("", fallback);
  EXPECT_EQ(calls, std::vector<std::string>{"default"});
}

TEST_F(DispatchTest, defaultHandlersAreSilentOrReporting) {
  dispatch("kel.t.unknown", keld::ignoreObservation);
  EXPECT_TRUE(log.take().empty());
  dispatch("kel.t.unknown", keld::reportUnknownObservation);
  EXPECT_EQ(log.take(), std::vector<std::string>{"No correlator for kel.t.unknown \n"});
  dispatch("", keld::reportUnknownObservation);
  EXPECT_EQ(log.take(), std::vector<std::string>{"FAIL: Received NULL kelID\n"});
}

}  // namespace
