#include <gtest/gtest.h>

#include <string>

#include "modelHost.h"
#include "scenarioTools.h"

namespace {

using scenario::diagnostics;
using scenario::Events;
using scenario::Lines;
using support::clear;
using support::i;
using support::L;
using support::l;
using support::null;
using support::problem;
using support::s;
using support::u;

class ScsiEvents : public testing::Test {
 protected:
  void device(const std::string& facts, const std::string& failures = "{}") const {
    host.write(R"({"storage":{"devices":{"naa.1":)" + facts + R"(}},"failures":)" + failures + "}");
  }

  support::ModelHost host;
  support::Scenario scenario;
  support::Driver driver{scenario, keld::kScsiCorrelator};
};

TEST_F(ScsiEvents, oneToOneRowsGiveTheirEvents) {
  scenario::expectRows(
      scenario, driver,
      {{"kel.scsi.device.too.many.io.error",
        {s("naa.1"), u(75)},
        problem("orn.problem.scsi.device.too.many.io.error",
                "Too many errors observed for device naa.1 errPercentage 75")},
       {"kel.scsi.device.too.many.io.error",
        {s("naa.1"), u(65537)},  // sixteen bits are read
        problem("orn.problem.scsi.device.too.many.io.error",
                "Too many errors observed for device naa.1 errPercentage 1")},
       {"kel.scsi.device.invalid.xcopy.request",
        {s("naa.1"), i(0), i(2), i(-1), s("Valid"), i(5), i(0x24), i(0x1f), s("why")},
        problem("orn.problem.scsi.device.invalid.xcopy.request",
                "Invalid XCOPY request for device naa.1. Host 0, Device 0x2, Plugin 0xffffffff, Valid sense, sense.key "
                "= 0x5, sense.asc = 0x24, sense.ascq = 0x1f: why")},
       {"kel.scsi.device.io.latency.improved",
        {s("naa.1"), L(5000000000), L(100)},
        clear("orn.clear.scsi.device.io.latency.improved",
              "Device naa.1 performance has improved. I/O latency reduced from 5000000000 microseconds to 100 "
              "microseconds.")},
       {"kel.scsi.device.io.latency.high",
        {s("naa.1"), L(100), L(5000000000)},
        problem("orn.problem.scsi.device.io.latency.high",
                "Device naa.1 performance has deteriorated. I/O latency increased from average value of 100 "
                "microseconds to 5000000000 microseconds.")},
       {"kel.scsi.apd.event.descriptor.alloc.failed",
        {},
        problem("orn.problem.scsi.apd.event.descriptor.alloc.failed",
                "No memory to allocate APD (All Paths Down) event subsystem")},
       {"kel.scsi.device.io.qerr.change.config",
        {i(0x2a), s("naa.1"), i(1)},
        problem(
            "orn.problem.scsi.device.io.qerr.change.config",
            "QErr set to 0x2a for device naa.1. This may cause unexpected behavior. The system is not configured to "
            "change the Qerr setting of device. The Qerr value supported by system is 0x1. Please check the SCSI "
            "ChangeQErrSetting configuration value for ORN.")},
       {"kel.scsi.device.io.qerr.changed",
        {i(-1), s("naa.1"), i(0)},
        problem(
            "orn.problem.scsi.device.io.qerr.changed",
            "QErr set to 0xffffffff for device naa.1. This may cause unexpected behavior. The device was originally "
            "configured to the supported QErr setting of 0x0, but this has been changed and could not be reset.")},
       {"kel.scsi.device.nmp.satp.option.failed",
        {s("opt=1"), s("p1")},
        problem("orn.problem.scsi.device.nmp.satp.option.failed",
                "Invalid config parameter: \"opt=1\" provided in the nmp satp claimrule, this setting was not applied "
                "while claiming the path p1")},
       {"kel.scsi.device.filter.attach.failed",
        {s("naa.1")},
        problem(
            "orn.problem.scsi.device.filter.attach.failed",
            "Failed to attach filters to device 'naa.1' during registration. Plugin load failed or the filter rules "
            "are incorrect.")},
       {"kel.scsi.device.detach.failed",
        {s("naa.1")},
        problem("orn.problem.scsi.device.detach.failed",
                "Detach failed for device :naa.1. Exceeded the number of devices that can be detached, please cleanup "
                "stale detach entries.")},
       {"kel.scsi.device.state.on",
        {s("naa.1")},
        clear("orn.clear.scsi.device.state.on", "Device: naa.1  has been turned on administratively")},
       {"kel.scsi.device.state.off",
        {s("naa.1")},
        problem("orn.problem.scsi.device.state.off", "Device: naa.1  has been turned off administratively")},
       {"kel.scsi.device.state.permanentloss.deviceonline",
        {s("naa.1")},
        clear("orn.clear.scsi.device.state.permanentloss.deviceonline",
              "Device: naa.1, that was permanently inaccessible, is now online. No data consistency guarantees.")},
       {"kel.scsi.device.state.permanentloss.pluggedback",
        {s("naa.1")},
        problem(
            "orn.problem.scsi.device.state.permanentloss.pluggedback",
            "Device: naa.1 has been plugged back in after being marked permanently inaccessible. No data consistency "
            "guarantees.")},
       {"kel.scsi.scsipath.badpath.unsafepe",
        {s("p1")},
        problem("orn.problem.scsi.scsipath.badpath.unsafepe",
                "Sanity check failed for path p1. Could not safely determine if the path is to a Dyndisk PE. Path "
                "dropped.")},
       {"kel.scsi.scsipath.badpath.unreachpe",
        {s("p1"), s("hba0")},
        problem(
            "orn.problem.scsi.scsipath.badpath.unreachpe",
            "Sanity check failed for path p1. The path is to a Dyndisk PE, but it goes out of adapter hba0 which is "
            "not PE capable. Path dropped.")},
       {"kel.scsi.unsupported.plugin.type",
        {i(0x1f)},
        problem("orn.problem.scsi.unsupported.plugin.type", "Scsi Device Allocation not supported for plugin type 1f")},
       {"kel.scsi.unsupported.plugin.type",
        {i(-2)},
        problem("orn.problem.scsi.unsupported.plugin.type",
                "Scsi Device Allocation not supported for plugin type fffffffe")},
       {"kel.scsi.scsipath.limitreached",
        {i(4096), s("p1")},
        problem("orn.problem.scsi.scsipath.limitreached",
                "The maximum number of supported paths of 4096 has been reached. Path p1 could not be added.")},
       {"kel.scsi.device.limitreached",
        {i(1024), s("plugin")},
        problem(
            "orn.problem.scsi.device.limitreached",
            "The maximum number of supported devices of 1024 has been reached. A device from plugin plugin could not "
            "be created.")}});
}

TEST_F(ScsiEvents, pluginFailuresGiveTheirEvents) {
  const auto row = [](const std::string& key, const std::string& text) {
    return problem("orn.problem.scsi.device." + key, text);
  };
  scenario::expectRows(
      scenario, driver,
      {{"kel.scsi.device.io.bad.plugin.type",
        {s("naa.1"), s("NMP")},
        row("io.bad.plugin.type", "Bad Plugin type for device naa.1, plugin NMP")},
       {"kel.scsi.device.io.inquiry.failed",
        {s("naa.1"), s("NMP")},
        row("io.inquiry.failed", "Failed to get standard inquiry for device naa.1 from Plugin NMP.")},
       {"kel.scsi.device.is.pseudo.failed",
        {s("naa.1"), s("NMP")},
        row("is.pseudo.failed", "Failed to verify if the device naa.1 from plugin NMP is a pseudo device")},
       {"kel.scsi.device.is.ssd.failed",
        {s("naa.1"), s("NMP")},
        row("is.ssd.failed", "Failed to verify if the device naa.1 from plugin NMP is a Solid State Disk device")},
       {"kel.scsi.device.is.local.failed",
        {s("naa.1"), s("NMP")},
        row("is.local.failed",
            "Failed to verify if the device naa.1 from plugin NMP is a local - not shared - device")},
       {"kel.scsi.device.close.failed",
        {s("naa.1"), s("NMP")},
        row("close.failed", "Failed to close the device naa.1 properly, plugin NMP")}});
}

TEST_F(ScsiEvents, latencyPrintsItsUnsignedNumbersAsSigned) {
  driver.observe("kel.scsi.device.io.latency.high", {s("naa.1"), L(0xffffffffffffffff), L(0x8000000000000000)});
  EXPECT_EQ(driver.events(), Events{problem("orn.problem.scsi.device.io.latency.high",
                                            "Device naa.1 performance has deteriorated. I/O latency increased from "
                                            "average value of -1 microseconds to -9223372036854775808 microseconds.")});
}

TEST_F(ScsiEvents, aPluginTypeIsCutTo32Bits) {
  driver.observe("kel.scsi.unsupported.plugin.type", {l(0x10000000f)});
  EXPECT_EQ(driver.events(), Events{problem("orn.problem.scsi.unsupported.plugin.type",
                                            "Scsi Device Allocation not supported for plugin type f")});
}

/// The rows that name the device's datastores, with `datastores` for each.
std::vector<scenario::RowCase> datastoreRows(const std::string& datastores) {
  return {
      {"kel.scsi.device.state.permanentloss",
       {s("naa.1")},
       problem("orn.problem.scsi.device.state.permanentloss",
               "Device: naa.1 has been removed or is permanently inaccessible. Affected datastores (if any): " +
                   datastores + ".")},
      {"kel.scsi.device.state.permanentloss.withreservationheld",
       {s("naa.1")},
       problem("orn.problem.scsi.device.state.permanentloss.withreservationheld",
               "Device: naa.1 has been removed or is permanently inaccessible while holding a reservation. Affected "
               "datastores (if any): " +
                   datastores + ".")},
      {"kel.scsi.device.state.permanentloss.noopens",
       {s("naa.1")},
       problem("orn.problem.scsi.device.state.permanentloss.noopens",
               "Permanently inaccessible device: naa.1 has no more opens. It is now safe to unmount datastores (if "
               "any): " +
                   datastores + " and delete the device")},
      {"kel.scsi.device.thinprov.atquota",
       {s("naa.1")},
       problem("orn.problem.scsi.device.thinprov.atquota",
               "Space utilization on thin-provisioned device naa.1 exceeded configured threshold. Affected "
               "datastores (if any): " +
                   datastores + ".")}};
}

TEST_F(ScsiEvents, permanentLossAndQuotaNameTheDatastores) {
  device(
      R"({"disk":true,"partitions":[{"number":1,"volume":"a"},{"number":5,"volume":"b"},{"number":6,"volume":"a"}]})");
  scenario::expectRows(scenario, driver, datastoreRows(R"("a", "b")"));
}

TEST_F(ScsiEvents, aDeviceWithoutAVolumeShowsUnknownDatastores) {
  device(R"({"disk":true,"partitions":[{"number":1,"error":2}]})");
  scenario::expectRows(scenario, driver, datastoreRows("Unknown"));
  device(R"({"disk":true})");
  scenario::expectRows(scenario, driver, datastoreRows("Unknown"));
}

TEST_F(ScsiEvents, anyFailureOfTheLookUpShowsUnknownDatastores) {
  const std::string partitions = R"({"disk":true,"partitions":[{"number":1,"volume":"a"}]})";
  for (const char* failures : {R"({"volumes.open":5})", R"({"device.lookup":5})"}) {
    device(partitions, failures);
    scenario::expectRows(scenario, driver, datastoreRows("Unknown"));
  }
  device(R"({"disk":false,"partitions":[{"number":1,"volume":"a"}]})");
  scenario::expectRows(scenario, driver, datastoreRows("Unknown"));
  host.write("{}");
  scenario::expectRows(scenario, driver, datastoreRows("Unknown"));
}

TEST_F(ScsiEvents, unreadableArgumentsAreLoggedInTheRowsOwnWords) {
  const auto params = [](const std::string& id, int status) {
    return Lines{"Failed to get params for correlation " + id + ": " + std::to_string(status) + "\n"};
  };
  const auto correlate = [](const std::string& id, int status) {
    return Lines{"Failed to correlate " + id + ": " + std::to_string(status) + "\n"};
  };
  std::vector<scenario::UnreadableCase> cases;
  const scenario::Arguments xcopy = {s("naa.1"), i(0), i(2), i(0), s("Valid"), i(5), i(1), i(2)};
  cases.push_back({"kel.scsi.device.too.many.io.error", {s("naa.1")}, params("kel.scsi.device.too.many.io.error", 75)});
  cases.push_back({"kel.scsi.device.too.many.io.error", {i(1), u(1)}, params("kel.scsi.device.too.many.io.error", 22)});
  cases.push_back(
      {"kel.scsi.device.invalid.xcopy.request", xcopy, params("kel.scsi.device.invalid.xcopy.request", 75)});
  cases.push_back({"kel.scsi.device.invalid.xcopy.request",
                   {s("naa.1"), s("0")},
                   params("kel.scsi.device.invalid.xcopy.request", 22)});
  for (const char* id : {"kel.scsi.device.filter.attach.failed", "kel.scsi.device.detach.failed"}) {
    cases.push_back({id, {}, params(id, 75)});
    cases.push_back({id, {i(1)}, params(id, 22)});
  }
  for (const char* id : {"kel.scsi.device.io.latency.improved", "kel.scsi.device.io.latency.high"}) {
    cases.push_back({id, {s("naa.1"), L(1)}, correlate(id, 75)});
    cases.push_back({id, {s("naa.1"), L(1), s("2")}, correlate(id, 22)});
  }
  for (const char* id :
       {"kel.scsi.device.io.bad.plugin.type", "kel.scsi.device.io.inquiry.failed", "kel.scsi.device.is.pseudo.failed",
        "kel.scsi.device.is.ssd.failed", "kel.scsi.device.is.local.failed", "kel.scsi.device.close.failed"}) {
    cases.push_back({id, {s("naa.1")}, correlate(id, 75)});
    cases.push_back({id, {s("naa.1"), i(1)}, correlate(id, 22)});
  }
  for (const char* id : {"kel.scsi.device.io.qerr.change.config", "kel.scsi.device.io.qerr.changed"}) {
    cases.push_back({id, {i(1), s("naa.1")}, correlate(id, 75)});
    cases.push_back({id, {s("naa.1"), s("naa.1"), i(1)}, correlate(id, 22)});
  }
  cases.push_back({"kel.scsi.unsupported.plugin.type", {}, correlate("kel.scsi.unsupported.plugin.type", 75)});
  cases.push_back({"kel.scsi.unsupported.plugin.type", {s("1")}, correlate("kel.scsi.unsupported.plugin.type", 22)});
  for (const char* id :
       {"kel.scsi.device.state.on", "kel.scsi.device.state.off", "kel.scsi.device.state.permanentloss.deviceonline",
        "kel.scsi.device.state.permanentloss.pluggedback", "kel.scsi.device.state.permanentloss",
        "kel.scsi.device.state.permanentloss.withreservationheld", "kel.scsi.device.state.permanentloss.noopens"}) {
    cases.push_back({id, {}, {"Failed to get device name: 75\n"}});
    cases.push_back({id, {i(1)}, {"Failed to get device name: 22\n"}});
  }
  cases.push_back({"kel.scsi.device.thinprov.atquota", {}, {"Failed to get thin provisioned device name: 75\n"}});
  cases.push_back({"kel.scsi.device.thinprov.atquota", {i(1)}, {"Failed to get thin provisioned device name: 22\n"}});
  scenario::expectUnreadable(scenario, driver, cases);
}

TEST_F(ScsiEvents, rowsOfSeveralArgumentsLogWhichOfThemCannotBeRead) {
  scenario::expectUnreadable(
      scenario, driver,
      {{"kel.scsi.device.nmp.satp.option.failed", {}, {"Failed to get NMP SATP options: 75\n"}},
       {"kel.scsi.device.nmp.satp.option.failed", {i(1), s("p1")}, {"Failed to get NMP SATP options: 22\n"}},
       {"kel.scsi.device.nmp.satp.option.failed", {s("o")}, {"Failed to get path name: 75\n"}},
       {"kel.scsi.device.nmp.satp.option.failed", {s("o"), i(1)}, {"Failed to get path name: 22\n"}},
       {"kel.scsi.scsipath.badpath.unsafepe", {}, {"Failed to get path name: 75\n"}},
       {"kel.scsi.scsipath.badpath.unreachpe", {i(1), s("hba0")}, {"Failed to get path name: 22\n"}},
       {"kel.scsi.scsipath.badpath.unreachpe",
        {s("p1")},
        {"Failed to get PE-incapable adapter name for path p1 : 75\n"}},
       {"kel.scsi.scsipath.badpath.unreachpe",
        {s("p1"), i(1)},
        {"Failed to get PE-incapable adapter name for path p1 : 22\n"}},
       {"kel.scsi.scsipath.limitreached", {}, {"Failed to get path limit reached path count: 75\n"}},
       {"kel.scsi.scsipath.limitreached", {s("1"), s("p1")}, {"Failed to get path limit reached path count: 22\n"}},
       {"kel.scsi.scsipath.limitreached", {i(1)}, {"Failed to get path limit reached path name: 75\n"}},
       {"kel.scsi.device.limitreached", {}, {"Failed to get device limit reached device count: 75\n"}},
       {"kel.scsi.device.limitreached", {i(1)}, {"Failed to get device limit reached plugin name: 75\n"}},
       {"kel.scsi.device.limitreached", {i(1), i(1)}, {"Failed to get device limit reached plugin name: 22\n"}}});
}

TEST_F(ScsiEvents, theBadPathOfAnUnsafeProtocolEndpointHasNoAdapterToRead) {
  driver.observe("kel.scsi.scsipath.badpath.unsafepe", {s("p1"), i(1)});
  EXPECT_EQ(driver.events().size(), 1U);
  EXPECT_EQ(diagnostics(scenario), Lines{});
}

TEST_F(ScsiEvents, theBadPathHandlerKnowsItsTwoObservations) {
  for (const char* registered : {"kel.scsi.scsipath.badpath.unsafepe", "kel.scsi.scsipath.badpath.unreachpe"}) {
    scenario::callHandler(scenario, keld::kScsiCorrelator, registered, "kel.scsi.scsipath.other", {s("p1")});
    EXPECT_EQ(diagnostics(scenario), Lines{"Unknown KEL ID: kel.scsi.scsipath.other\n"}) << registered;
    EXPECT_EQ(driver.events(), Events{});
  }
}

TEST_F(ScsiEvents, anObservationWithoutAnIdentifierIsIgnoredSilently) {
  driver.observe("", {s("naa.1"), s("NMP")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

TEST_F(ScsiEvents, aNullDeviceHasNoDatastoresAndHarmsNothing) {
  device(R"({"disk":true,"partitions":[{"number":1,"volume":"a"}]})");
  for (const auto& row : datastoreRows("")) driver.observe(row.id, {null()});
  driver.observe("kel.scsi.scsipath.badpath.unreachpe", {null(), i(1)});
  driver.observe("kel.scsi.scsipath.por", {null()});
  driver.observe("kel.scsi.scsipath.add", {null()});
  driver.observe("kel.scsi.scsipath.remove", {null()});
  driver.events();
  diagnostics(scenario);
  scenario::expectRows(scenario, driver, datastoreRows(R"("a")"));
}

TEST_F(ScsiEvents, aNullTextShowsAsNull) {
  driver.observe("kel.scsi.device.state.off", {null()});
  EXPECT_EQ(driver.events(), Events{problem("orn.problem.scsi.device.state.off",
                                            "Device: (null)  has been turned off administratively")});
}

TEST_F(ScsiEvents, aSharedHandlerWithoutAnIdentifierSaysSo) {
  for (const char* registered :
       {"kel.scsi.device.io.bad.plugin.type", "kel.scsi.device.close.failed", "kel.scsi.device.io.qerr.change.config",
        "kel.scsi.device.io.qerr.changed", "kel.scsi.device.filter.attach.failed", "kel.scsi.device.detach.failed",
        "kel.scsi.scsipath.badpath.unsafepe", "kel.scsi.scsipath.badpath.unreachpe"}) {
    scenario::callHandler(scenario, keld::kScsiCorrelator, registered, "", {s("a"), s("b"), i(1)});
    EXPECT_EQ(diagnostics(scenario), Lines{"FAIL: Received NULL kelID\n"}) << registered;
    EXPECT_EQ(driver.events(), Events{});
  }
}

}  // namespace
