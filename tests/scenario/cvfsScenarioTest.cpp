#include <gtest/gtest.h>

#include <string>

#include "scenarioTools.h"

namespace {

using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::audit;
using support::clear;
using support::i;
using support::L;
using support::null;
using support::problem;
using support::s;
using support::u;

/// Parts of an observation's arguments, one after the other.
scenario::Arguments join(const std::vector<scenario::Arguments>& parts) {
  scenario::Arguments all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const scenario::Arguments kUuid = {u(1), u(2), u(3), u(4), u(5), u(6), u(7), u(8), u(9)};
constexpr const char* kUuidText = "00000001-00000002-0003-040506070809";

class CvfsScenario : public testing::Test {
 protected:
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kCvfsCorrelator};
};
using CvfsScenarioDeathTest = CvfsScenario;

TEST_F(CvfsScenario, volumeAndLockRowsGiveTheirEvents) {
  scenario::expectRows(
      scenario, driver,
      {{"kel.cvfs.error.volume.is.locked",
        {s("naa.1:1")},
        problem("orn.problem.cvfs.error.volume.is.locked",
                "Volume on device naa.1:1 is locked, possibly because some remote host encountered an error during a "
                "volume operation and could not recover.")},
       {"kel.cvfs.extent.offline",
        {s("naa.1:1"), s("fs")},
        problem("orn.problem.cvfs.extent.offline",
                "An attached device naa.1:1 may be offline. The file system fs is now in a degraded state. While the "
                "datastore is still available, parts of data that reside on the extent that went offline might be "
                "inaccessible.")},
       {"kel.cvfs.extent.online",
        {s("naa.1:1"), s("fs")},
        problem(
            "orn.problem.cvfs.extent.online",
            "Device naa.1:1 backing file system fs came online. This extent was previously offline. All resources on "
            "this device are now available.")},
       {"kel.cvfs.volume.mounted",
        {s("fs"), s("vol"), s("rw")},
        audit("orn.audit.cvfs.volume.mounted",
              "File system fs on volume vol has been mounted in 'rw' mode. The datastore is now accessible on this "
              "host.")},
       {"kel.cvfs.volume.umounted",
        {s("fs"), s("vol")},
        audit("orn.audit.cvfs.volume.umounted",
              "File system fs on volume vol has been safely un-mounted. The datastore is no longer accessible on this "
              "host.")},
       {"kel.cvfs.ats.support.lost",
        {s("vol")},
        problem("orn.problem.cvfs.ats.support.lost",
                "ATS-Only CVFS volume 'vol' will not be mounted. Host does notsupport ATS or ATS intialization has "
                "failed.")},
       {"kel.cvfs.lock.busy.filename",
        {s("f.disk")},
        problem("orn.problem.cvfs.lock.busy.filename", "Lock(s) held on file f.disk by other host(s)")},
       {"kel.cvfs.lock.busy.filedesc",
        {s("fd"), s("vol"), u(2), u(4294967295), s("00:01")},
        problem(
            "orn.problem.cvfs.lock.busy.filedesc",
            "fd Lock(s) held on a file on volume vol. numHolders: 2. gblNumHolders: -1. Locking Host(s) MAC: 00:01.")},
       {"kel.cvfs.thinfmt.bloomfilter.disabled",
        {s("d"), s("why")},
        audit("orn.audit.cvfs.thinfmt.bloomfilter.disabled", "Read IO performance maybe impacted for disk d: why")}});
}

TEST_F(CvfsScenario, rowsOfAVolumeAndItsUuidGiveTheirEvents) {
  const std::string uuid = kUuidText;
  const auto modes = [&](const std::string& what, const std::string& end) {
    return "Inconsistent lockmode change detected for " + what + "CVFS volume 'vol' (" + uuid +
           "): volume was configured for ats lockmode at time of open and now it is configured for scsi lockmode but "
           "this "
           "host is not using both lockmode. " +
           end;
  };
  scenario::expectRows(
      scenario, driver,
      {{"kel.cvfs.spanstate.incompatibility.detected", join({{s("vol")}, kUuid}),
        problem("orn.problem.cvfs.spanstate.incompatibility.detected",
                "Incompatible span change detected for CVFS volume 'vol' (" + uuid +
                    "): volume was not spanned at time of open but now it is, and this host is using ATS-only lockmode "
                    "but the volume is not ATS-only. Volume descriptor refresh operations will fail until this host "
                    "unmounts and remounts the volume.")},
       {"kel.cvfs.lockmode.inconsistency.detected", join({{s("vol")}, kUuid, {s("ats"), s("scsi"), s("both")}}),
        problem("orn.problem.cvfs.lockmode.inconsistency.detected",
                modes("",
                      "Protocol error during ATS transition. Volume descriptor refresh operations will fail until "
                      "this host unmounts and remounts the volume."))},
       {"kel.cvfs.ats.incompatibility.detected", join({{s("vol")}, kUuid}),
        problem("orn.problem.cvfs.ats.incompatibility.detected",
                "Multi-extent ATS-only volume 'vol' (" + uuid +
                    ") is unable to use ATS because HardwareAcceleratedLocking is disabled on this host: potential for "
                    "introducing filesystem corruption. Volume should not be used from other hosts.")},
       {"kel.cvfs.spanned.lockmode.inconsistency.detected", join({{s("vol")}, kUuid, {s("ats"), s("scsi"), s("both")}}),
        problem("orn.problem.cvfs.spanned.lockmode.inconsistency.detected",
                modes("spanned ",
                      "All operations on this volume will fail until this host unmounts and remounts the "
                      "volume."))}});
}

/// The keys that share the heartbeat's handler, in the order of its rows.
constexpr const char* kHeartbeatKeys[] = {"heartbeat.timedout",      "heartbeat.recovered",   "journal.createfailed",
                                          "heartbeat.unrecoverable", "lock.corruptondisk.v2", "resource.corruptondisk",
                                          "heartbeat.corruptondisk"};

TEST_F(CvfsScenario, eachOfTheSevenHeartbeatRowsGivesItsOwnEvent) {
  for (const std::string key : kHeartbeatKeys) {
    driver.observe("kel.cvfs." + key, join({kUuid, {s("text")}}));
    EXPECT_EQ(driver.events(), Events{problem("orn.problem.cvfs." + key, std::string(kUuidText) + " text")}) << key;
  }
}

TEST_F(CvfsScenario, aLostNfsServerIsAProblemAndARestoredOneAClear) {
  const auto arguments = join({{s("one"), s("two")}, kUuid, {s("three")}});
  scenario::expectRows(
      scenario, driver,
      {{"kel.cvfs.nfs.server.disconnect", arguments,
        problem("orn.problem.cvfs.nfs.server.disconnect", "one two 00000001-00000002-0003-040506070809 three")},
       {"kel.cvfs.nfs.server.restored", arguments,
        clear("orn.clear.cvfs.nfs.server.restored", "one two 00000001-00000002-0003-040506070809 three")}});
}

TEST_F(CvfsScenario, nfsLatenciesPassTheirNumbersThrough) {
  scenario::expectRows(scenario, driver,
                       {{"kel.cvfs.nfs.volume.io.latency.high",
                         {s("vol"), L(5), L(18446744073709551615U)},
                         problem("orn.problem.cvfs.nfs.volume.io.latency.high", "vol 5 18446744073709551615")},
                        {"kel.cvfs.nfs.volume.io.latency.improved",
                         {s("vol"), L(5000000000), L(1)},
                         clear("orn.clear.cvfs.nfs.volume.io.latency.improved", "vol 5000000000 1")},
                        {"kel.cvfs.nfs.volume.io.latency.exceed.threshold.period",
                         {s("vol"), L(1), L(2), L(3)},
                         problem("orn.problem.cvfs.nfs.volume.io.latency.exceed.threshold.period", "vol 1 2 3")}});
}

TEST_F(CvfsScenario, aUuidIsPrintedInLowerCaseAtTheWidthOfItsFields) {
  const auto textOf = [this](const scenario::Arguments& uuid) {
    driver.observe("kel.cvfs.heartbeat.timedout", join({uuid, {s("")}}));
    const auto events = driver.events();
    return events.empty() ? std::string("no event") : events[0].text;
  };
  EXPECT_EQ(textOf({u(0), u(0), u(0), u(0), u(0), u(0), u(0), u(0), u(0)}), "00000000-00000000-0000-000000000000 ");
  EXPECT_EQ(textOf({u(0xFFFFFFFF), u(0xDEADBEEF), u(0xABCD), u(0xA), u(0xFF), u(0xBC), u(0xDE), u(0xF0), u(0x12)}),
            "ffffffff-deadbeef-abcd-0affbcdef012 ");
  EXPECT_EQ(textOf({L(0x500000001), i(-1), u(0x1FFFF), u(0x1FF), u(0x100), i(-1), u(7), u(8), u(9)}),
            "00000001-ffffffff-ffff-ff00ff070809 ");
}

TEST_F(CvfsScenario, anOfflineExtentWithoutADeviceNameShowsAnEmptyOne) {
  driver.observe("kel.cvfs.extent.offline", {null(), s("fs")});
  EXPECT_EQ(
      driver.events(),
      Events{problem("orn.problem.cvfs.extent.offline",
                     "An attached device  may be offline. The file system fs is now in a degraded state. While the "
                     "datastore is still available, parts of data that reside on the extent that went offline might "
                     "be inaccessible.")});
}

TEST_F(CvfsScenario, otherNullTextsShowAsNull) {
  driver.observe("kel.cvfs.extent.offline", {s("d"), null()});
  driver.observe("kel.cvfs.heartbeat.timedout", join({kUuid, {null()}}));
  const auto events = driver.events();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_TRUE(events[0].text.starts_with("An attached device d may be offline. The file system (null) is now"));
  EXPECT_EQ(events[1].text, std::string(kUuidText) + " (null)");
}

TEST_F(CvfsScenario, unreadableArgumentsAreDroppedSilently) {
  const scenario::Arguments eightFields(kUuid.begin(), kUuid.end() - 1);
  std::vector<scenario::UnreadableCase> cases = {
      {"kel.cvfs.error.volume.is.locked", {}, {}},
      {"kel.cvfs.extent.offline", {s("d")}, {}},
      {"kel.cvfs.extent.online", {s("d"), i(1)}, {}},
      {"kel.cvfs.volume.mounted", {s("f"), s("v")}, {}},
      {"kel.cvfs.volume.umounted", {s("f")}, {}},
      {"kel.cvfs.ats.support.lost", {i(1)}, {}},
      {"kel.cvfs.spanstate.incompatibility.detected", join({{s("vol")}, eightFields}), {}},
      {"kel.cvfs.lockmode.inconsistency.detected", join({{s("vol")}, kUuid, {s("a"), s("b")}}), {}},
      {"kel.cvfs.ats.incompatibility.detected", kUuid, {}},
      {"kel.cvfs.spanned.lockmode.inconsistency.detected",
       join({{s("vol")}, eightFields, {s("a"), s("b"), s("c")}}),
       {}},
      {"kel.cvfs.nfs.server.disconnect", join({{s("one"), s("two")}, kUuid}), {}},
      {"kel.cvfs.nfs.server.restored", join({{s("one")}, kUuid, {s("three")}}), {}},
      {"kel.cvfs.lock.busy.filename", {}, {}},
      {"kel.cvfs.lock.busy.filedesc", {s("fd"), s("vol"), u(2), u(3)}, {}},
      {"kel.cvfs.thinfmt.bloomfilter.disabled", {s("d")}, {}}};
  scenario::expectUnreadable(scenario, driver, cases);
  for (const std::string key : kHeartbeatKeys) {
    const std::string id = "kel.cvfs." + key;
    scenario::expectUnreadable(scenario, driver,
                               {{id.c_str(), kUuid, {}}, {id.c_str(), join({eightFields, {s("x"), s("text")}}), {}}});
  }
}

TEST_F(CvfsScenario, unreadableLatenciesAreLogged) {
  for (const char* id : {"kel.cvfs.nfs.volume.io.latency.high", "kel.cvfs.nfs.volume.io.latency.improved",
                         "kel.cvfs.nfs.volume.io.latency.exceed.threshold.period"}) {
    const std::string text = std::string("Failed to correlate ") + id;
    scenario::expectUnreadable(
        scenario, driver,
        {{id, {s("vol"), L(1)}, {text + ": 75\n"}}, {id, {s("vol"), L(1), s("2")}, {text + ": 22\n"}}});
  }
  scenario::expectUnreadable(scenario, driver,
                             {{"kel.cvfs.nfs.volume.io.latency.exceed.threshold.period",
                               {s("vol"), L(1), L(2)},
                               {"Failed to correlate kel.cvfs.nfs.volume.io.latency.exceed.threshold.period: 75\n"}}});
}

TEST_F(CvfsScenarioDeathTest, theSharedHandlersStopTheDaemonAtAnIdentifierTheyWereNotWrittenFor) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(scenario::callHandler(scenario, keld::kCvfsCorrelator, "kel.cvfs.heartbeat.timedout",
                                     "kel.cvfs.heartbeat.other", join({kUuid, {s("text")}})),
               "NOT_REACHED apps/keld/keldCvfsCorrelator:151");
  EXPECT_DEATH(scenario::callHandler(scenario, keld::kCvfsCorrelator, "kel.cvfs.nfs.server.disconnect",
                                     "kel.cvfs.nfs.server.other", join({{s("1"), s("2")}, kUuid, {s("3")}})),
               "NOT_REACHED apps/keld/keldCvfsCorrelator:775");
}

TEST_F(CvfsScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.cvfs.unheard.of", {s("x")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

TEST_F(CvfsScenario, latencyHandlersPostForTheirOwnIdentifierOnly) {
  scenario::callHandler(scenario, keld::kCvfsCorrelator, "kel.cvfs.nfs.volume.io.latency.high",
                        "kel.cvfs.nfs.volume.io.latency.other", {s("vol"), L(1), L(2), L(3)});
  EXPECT_EQ(driver.events(), Events{});
}

TEST_F(CvfsScenario, latencyAndThinFormatHandlersMissAnIdentifier) {
  for (const char* id :
       {"kel.cvfs.nfs.volume.io.latency.high", "kel.cvfs.nfs.volume.io.latency.improved",
        "kel.cvfs.nfs.volume.io.latency.exceed.threshold.period", "kel.cvfs.thinfmt.bloomfilter.disabled"}) {
    scenario::callHandler(scenario, keld::kCvfsCorrelator, id, "", {s("a"), L(1), L(2), L(3)});
    EXPECT_EQ(diagnostics(scenario), Lines{"FAIL: Received NULL kelID\n"}) << id;
    EXPECT_EQ(driver.events(), Events{}) << id;
  }
}

}  // namespace
