// Storage paths that go and come back, or will not come to rest.
#include "story.h"

namespace e2e {
namespace {

using support::s;

const std::string kThread = "scsiCorrelator";
const std::string kLost = "orn.problem.storage.connectivity.lost";
const std::string kDegraded = "orn.problem.storage.redundancy.degraded";
const std::string kRestored = "orn.clear.storage.connectivity.restored";
const std::string kRedundant = "orn.clear.storage.redundancy.restored";
const std::string kChanges = "orn.problem.storage.connectivity.pathstatechanges";
const std::string kPathResets = "orn.problem.storage.connectivity.pathpor";
const std::string kDeviceResets = "orn.problem.storage.connectivity.devicepor";
const std::string kMarker = "orn.problem.scsi.apd.event.descriptor.alloc.failed";

/// Two paths to one device with two partitions of one datastore, a path to one without datastores.
std::string host(int redundancyState) {
  return R"({"storage": {"paths": {"path-a": "naa.600", "path-b": "naa.600", "path-c": "naa.bare"}, "devices": {)"
         R"("naa.600": {"redundancyState": )" +
         std::to_string(redundancyState) +
         R"(, "disk": true, "partitions": [{"number": 1, "volume": "datastore1"}, {"number": 2, "volume": "datastore1"}]},)"
         R"("naa.bare": {"redundancyState": )" +
         std::to_string(redundancyState) + R"(, "disk": true}}}})";
}

/// What a storage story says: path states and resets, by their last words.
class StorageWords {
 protected:
  static std::string pathState(const std::string& state) { return "kel.scsi.scsipath.pathstate." + state; }
  static std::string changesText(const std::string& path, const std::string& device, const std::string& datastores) {
    return "Frequent path state changes are occurring for path " + path +
           ". This may indicate a storage problem. Affected device: " + device +
           ". Affected datastores: " + datastores + ".";
  }
  static std::string pathResetsText(const std::string& path, const std::string& device, const std::string& datastores) {
    return "Frequent PowerOn Reset Unit Attentions are occurring on path " + path +
           ". This may indicate a storage problem. Affected device: " + device +
           ". Affected datastores: " + datastores + ".";
  }
  static std::string deviceResetsText(const std::string& device, const std::string& datastores) {
    return "Frequent PowerOn Reset Unit Attentions are occurring on device " + device +
           ". This may indicate a storage problem. Affected datastores: " + datastores + ".";
  }
};

class Storage : public Story, protected StorageWords {
 protected:
  void change(const std::string& path, const std::string& to, const std::string& from) {
    observe(pathState(to), {s(path), s(from)});
  }
  /// State changes that are no news by themselves.
  void changes(const std::string& path, int count) {
    for (int n = 0; n < count; ++n) change(path, "off", "dead");
  }
  void resets(const std::string& name, int count) {
    for (int n = 0; n < count; ++n) observe("kel.scsi.scsipath.por", {s(name)});
  }
  /// Begins, and has the first change and the first reset behind it: their check of the minute before
  /// wipes out their own counts.
  void beginCounting(const std::string& model) {
    begin(model);
    changes("first", 1);
    resets("first", 1);
  }
  /// Returns once the correlator has done with all before.
  void mark() {
    observe("kel.scsi.apd.event.descriptor.alloc.failed");
    nextEvent(kMarker);
  }
};

class StorageTime : public ShiftedStory, protected StorageWords {
 protected:
  void changes(const std::string& path, int count) {
    for (int n = 0; n < count; ++n) observe(pathState("off"), {s(path), s("dead")});
  }
  void resets(const std::string& name, int count) {
    for (int n = 0; n < count; ++n) observe("kel.scsi.scsipath.por", {s(name)});
  }
  /// As above.
  void beginCountingAtZero(const std::string& model) {
    beginAtZero(model);
    changes("first", 1);
    resets("first", 1);
  }
  /// Lets the correlator finish and then moves the clock.
  void passTo(int seconds) {
    observe("kel.scsi.apd.event.descriptor.alloc.failed");
    nextEvent(kMarker);
    setTime(seconds);
  }
};

TEST_F(Storage, ADeviceThatLosesItsPathsOneByOneAndGetsThemBackIsToldOfFourTimes) {
  begin(host(3));
  change("path-a", "dead", "on");
  expectEvent(
      kThread, kDegraded,
      R"(Path redundancy to storage device naa.600 degraded. Path path-a is down. Affected datastores: "datastore1".)");
  workspace().setModel(host(1));
  change("path-b", "off", "standby");
  expectEvent(
      kThread, kLost,
      R"(Lost connectivity to storage device naa.600. Path path-b is down. Affected datastores: "datastore1".)");
  workspace().setModel(host(2));
  change("path-b", "standby", "off");
  expectEvent(
      kThread, kRestored,
      R"(Connectivity to storage device naa.600 (Datastores: "datastore1") restored. Path path-b is active again.)");
  workspace().setModel(host(3));
  change("path-b", "on", "standby");  // it was usable already
  change("path-a", "on", "dead");
  expectEvent(
      kThread, kRedundant,
      R"(Path redundancy to storage device naa.600 (Datastores: "datastore1") restored. Path path-a is active again.)");
  change("path-a", "on", "dead");
  change("path-b", "on", "off");
  mark();
  end();
}

TEST_F(Storage, ADeviceWithoutDatastoresHasUnknownOnes) {
  begin(host(1));
  change("path-c", "dead", "standby");
  expectEvent(kThread, kLost,
              "Lost connectivity to storage device naa.bare. Path path-c is down. Affected datastores: Unknown.");
  workspace().setModel(host(2));
  change("path-c", "on", "dead");
  expectEvent(kThread, kRestored,
              "Connectivity to storage device naa.bare (Datastores: Unknown) restored. Path path-c is active again.");
  end();
}

TEST_F(Storage, ALossThatWasNotReportedIsNotRestoredAndOneThatWasIsForgottenWithTheFirstReturn) {
  begin(host(0));
  change("path-a", "dead", "on");
  mark();
  workspace().setModel(host(2));
  change("path-a", "on", "dead");
  change("path-b", "dead", "on");
  nextEvent("orn.problem.storage.redundancy.lost");
  workspace().setModel(host(1));
  change("path-b", "on", "dead");  // still nothing usable: no event, but the report is done with
  mark();
  workspace().setModel(host(2));
  change("path-b", "on", "dead");
  mark();
  end();
}

TEST_F(Storage, ALossAtAnUnheardOfRedundancyIsNotReportedButRestored) {
  begin(host(4));
  change("path-a", "dead", "on");
  mark();
  workspace().setModel(host(2));
  change("path-a", "on", "dead");
  expectEvent(
      kThread, kRestored,
      R"(Connectivity to storage device naa.600 (Datastores: "datastore1") restored. Path path-a is active again.)");
  end();
}

TEST_F(Storage, AnUnheardOfRedundancyOfADeviceWhosePathComesBackIsFatal) {
  begin(host(7));
  change("path-a", "dead", "on");
  change("path-a", "on", "dead");
  expectNotReached("apps/keld/keldScsiCorrelator", 1050);
}

TEST_F(Storage, TheFirstObservationOfAllIsNotCounted) {
  begin(host(2));
  changes("path-a", 10);
  resets("path-a", 10);
  mark();
  changes("path-a", 1);
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "\"datastore1\""));
  resets("path-a", 1);
  expectEvent(kThread, kPathResets, pathResetsText("path-a", "naa.600", "\"datastore1\""));
  end();
}

TEST_F(Storage, TheTenthStateChangeOfAPathIsReportedAndNoFurtherOne) {
  beginCounting(host(2));
  changes("path-a", 9);
  changes("path-b", 9);
  mark();
  changes("path-a", 1);
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "\"datastore1\""));
  changes("path-a", 90);
  change("path-b", "on", "standby");
  expectEvent(kThread, kChanges, changesText("path-b", "naa.600", "\"datastore1\""));
  end();
}

TEST_F(Storage, EveryPathObservationCountsAndTheReportOfALossComesAfterTheCount) {
  beginCounting(host(2));
  for (const char* state : {"on", "standby", "off"}) {
    change("path-a", state, "x");
    change("path-a", state, "y");
    change("path-a", state, "z");
  }
  change("path-a", "dead", "on");
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "\"datastore1\""));
  expectEvent(
      kThread, "orn.problem.storage.redundancy.lost",
      R"(Lost path redundancy to storage device naa.600. Path path-a is down. Affected datastores: "datastore1".)");
  end();
}

TEST_F(Storage, FrequentChangesAreReportedWithUnknownDatastoresWhereTheDeviceHasNoRedundancyState) {
  beginCounting(host(0));
  changes("path-a", 10);
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "Unknown"));
  changes("path-of-no-device", 10);
  mark();
  end();
}

TEST_F(Storage, APathThatIsRemovedAndAddedAgainIsCountedFromZero) {
  beginCounting(host(2));
  changes("path-a", 9);
  observe("kel.scsi.scsipath.remove", {s("path-a")});
  observe("kel.scsi.scsipath.add", {s("path-a")});
  changes("path-a", 9);
  mark();
  changes("path-a", 1);
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "\"datastore1\""));

  // The addition of a path that is known counts.
  changes("path-c", 9);
  mark();
  observe("kel.scsi.scsipath.add", {s("path-c")});
  expectEvent(kThread, kChanges, changesText("path-c", "naa.bare", "Unknown"));
  end();
}

TEST_F(Storage, TheTenthPowerOnResetIsReportedForAPathOrForADevice) {
  beginCounting(host(2));
  resets("path-a", 9);
  resets("naa.600", 9);
  changes("path-a", 9);  // counted apart
  mark();
  resets("path-a", 1);
  expectEvent(kThread, kPathResets, pathResetsText("path-a", "naa.600", "\"datastore1\""));
  resets("naa.600", 1);
  expectEvent(kThread, kDeviceResets, deviceResetsText("naa.600", "\"datastore1\""));
  resets("path-a", 50);
  resets("naa.600", 50);
  resets("naa.nowhere", 10);
  mark();
  workspace().setModel(host(0));
  resets("path-c", 10);
  expectEvent(kThread, kPathResets, pathResetsText("path-c", "naa.bare", "Unknown"));
  resets("naa.bare", 10);
  expectEvent(kThread, kDeviceResets, deviceResetsText("naa.bare", "Unknown"));
  end();
}

TEST_F(StorageTime, ChangesThatPauseForMoreThanAMinuteAreCountedAfreshUnlessTheNextIsTheTenth) {
  beginCountingAtZero(host(2));
  changes("path-a", 8);
  changes("path-b", 9);
  resets("path-a", 8);
  resets("path-b", 9);
  passTo(61);
  changes("path-b", 1);  // its tenth, counted before the minute's check, which leaves it alone
  expectEvent(kThread, kChanges, changesText("path-b", "naa.600", "\"datastore1\""));
  resets("path-b", 1);
  expectEvent(kThread, kPathResets, pathResetsText("path-b", "naa.600", "\"datastore1\""));
  changes("path-a", 9);
  resets("path-a", 9);
  observe("kel.scsi.apd.event.descriptor.alloc.failed");
  nextEvent(kMarker);
  changes("path-a", 1);
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "\"datastore1\""));
  resets("path-a", 1);
  expectEvent(kThread, kPathResets, pathResetsText("path-a", "naa.600", "\"datastore1\""));
  end();
}

TEST_F(StorageTime, ANinthChangeAfterAPauseIsItselfForgotten) {
  beginCountingAtZero(host(2));
  changes("path-a", 8);
  passTo(61);
  changes("path-a", 10);
  passTo(62);
  changes("path-a", 1);
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "\"datastore1\""));
  end();
}

TEST_F(StorageTime, ChangesWithinAMinuteAreCountedTogether) {
  beginCountingAtZero(host(2));
  changes("path-a", 9);
  passTo(60);
  changes("path-b", 1);
  changes("path-a", 1);
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "\"datastore1\""));
  end();
}

TEST_F(StorageTime, AfterTenMinutesAPathIsReportedAgain) {
  beginCountingAtZero(host(2));
  changes("path-a", 10);
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "\"datastore1\""));
  passTo(600);
  changes("path-a", 20);
  passTo(601);
  // The first starts the count anew, but the minute's check at 600 was the last one.
  changes("path-a", 10);
  expectEvent(kThread, kChanges, changesText("path-a", "naa.600", "\"datastore1\""));
  end();
}

}  // namespace
}  // namespace e2e
