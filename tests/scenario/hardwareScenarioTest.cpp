#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "scenarioTools.h"

namespace {

using scenario::Events;
using scenario::Lines;
using support::audit;
using support::i;
using support::l;
using support::problem;
using support::s;
using support::u;

enum class Read { nothing, number, module, moduleAndValue, moduleAndTwoValues };

struct HardwareCase {
  const char* key;
  keld::VProbKind kind;
  Read read;
  const char* text;
};

constexpr auto kProblem = keld::VProbKind::problem;
constexpr auto kAudit = keld::VProbKind::audit;
constexpr auto kClear = keld::VProbKind::clear;

/// Numbers at position 0 of the platform's observations are 7; modules have handle 0x2f and text A1, values
/// are 95 and 90.
const HardwareCase kCases[] = {
    {"tpm2.notis", kProblem, Read::nothing,
     "TPM 2 TIS interface is not active. Please reboot and activate it in the BIOS."},
    {"tpm2.nosha256", kProblem, Read::nothing,
     "TPM 2 SHA-256 PCR bank not found to be active. Please activate it in the BIOS."},
    {"ipmi.bmc.bad", kProblem, Read::nothing,
     "Failed to communicate with the BMC. IPMI functionality will be unavailable on this system."},
    {"ioapic.missing", kProblem, Read::number,
     "IOAPIC Num 7 is missing. Please check BIOS settings to enable this IOAPIC."},
    {"acpi.interrupt.routing.pin.invalid", kProblem, Read::number,
     "Skipping interrupt routing entry with bad device pin: 7. This is a BIOS bug."},
    {"acpi.interrupt.routing.device.invalid", kProblem, Read::number,
     "Skipping interrupt routing entry with bad device number: 7. This is a BIOS bug."},
    {"nvd.health.module.vendor.error", kProblem, Read::module, "Vendor specific error."},
    {"nvd.health.module.uce", kProblem, Read::module, "Count of DRAM uncorrectable ECC errors above threshold."},
    {"nvd.health.module.ops.flush.fail", kProblem, Read::module,
     "The Platform flush failed. The restored data may be inconsistent."},
    {"nvd.health.module.ops.save.fail", kProblem, Read::module, "Previous SAVE operation failed."},
    {"nvd.health.module.ops.restore.fail", kProblem, Read::module, "Last RESTORE operation failed."},
    {"nvd.health.module.ops.erase.fail", kProblem, Read::module, "Previous ERASE operation failed."},
    {"nvd.health.module.ops.arm.fail", kProblem, Read::module, "Previous ARM operation failed."},
    {"nvd.health.module.es.fail", kProblem, Read::module,
     "Energy Source failure detected. Persistency is lost for the device."},
    {"nvd.health.module.es.charging", kProblem, Read::module,
     "Energy Source still charging but does not have sufficient charge to support\ta backup. Persistency is "
     "temporarily lost for the device."},
    {"nvd.health.module.es.charged", kClear, Read::module, "Energy Source is sufficiently charged."},
    {"nvd.health.module.ctlr.fw.error", kProblem, Read::module, "Controller firmware error detected."},
    {"nvd.health.module.ctlr.fail", kProblem, Read::module,
     "Controller failure detected. Access to the device and its capabilities are lost."},
    {"nvd.health.module.config.error", kProblem, Read::module, "Configuration error detected."},
    {"nvd.health.module.ce", kAudit, Read::module, "Count of DRAM correctable ECC errors above threshold."},
    {"nvd.health.alarms.es.temperature.error", kProblem, Read::moduleAndValue,
     "Energy Source Temperature (95 C) Error tripped."},
    {"nvd.health.alarms.es.temperature.warning", kAudit, Read::moduleAndValue,
     "Energy Source Temperature (95 C) Warning tripped."},
    {"nvd.health.alarms.es.lifetime.error", kProblem, Read::moduleAndValue,
     "Energy Source Lifetime (95) Error tripped."},
    {"nvd.health.alarms.es.lifetime.warning", kAudit, Read::moduleAndValue,
     "Energy Source Lifetime (95) Warning tripped."},
    {"nvd.health.alarms.lifetime.error", kProblem, Read::moduleAndValue, "Lifetime (95) Error tripped."},
    {"nvd.health.alarms.lifetime.warning", kAudit, Read::moduleAndValue, "Lifetime (95) Warning tripped."},
    {"nvd.health.alarms.spareblocks", kAudit, Read::moduleAndValue,
     "SpareBlocksPct (95) has reached the pre-programmed threshold limit."},
    {"nvd.health.alarms.temperature", kAudit, Read::moduleAndValue,
     "Temperature (95 C) has reached the pre-programmed threshold limit."},
    {"nvd.health.life.pctused", kAudit, Read::moduleAndTwoValues,
     "Life Percentage Used (95) has reached the threshold limit (90)."},
    {"nvd.health.lastshutdownstatus", kProblem, Read::moduleAndValue,
     "Last Shutdown Status (95) Not a clean Shutdown, there was either a platform or memory device-related failure "
     "while saving data targeted for this memory device."},
    {"nvd.health.krv.statusflags.perfDegraded", kProblem, Read::module, "Performance degraded."},
    {"nvd.health.krv.statusflags.maintNeeded", kAudit, Read::module, "Maintenance needed."},
    {"nvd.health.krv.statusflags.wpLossNow", kProblem, Read::module, "Subsequent writes may not persist."},
    {"nvd.health.krv.statusflags.wpLossInShutdown", kProblem, Read::module,
     "Write persistency loss may happen in event of shutdown."},
    {"nvd.health.krv.statusflags.wpLossInPowerLoss", kProblem, Read::module,
     "Write persistency loss may happen in event of power loss."},
    {"nvd.health.krv.statusflags.allDataLossNow", kProblem, Read::module,
     "Subsequent reads may fail or return invalid data and subsequent writes may not persist."},
    {"nvd.health.krv.statusflags.allDataLossInShutdown", kProblem, Read::module,
     "All data may be lost in the event of shutdown."},
    {"nvd.health.krv.statusflags.allDataLossInPowerLoss", kProblem, Read::module,
     "All data may be lost in the event of power loss."},
    {"nvd.health.krv.alarms.module.temperature.warning", kAudit, Read::module, "Module Temperature Warning tripped."},
    {"nvd.health.krv.alarms.module.temperature.error", kProblem, Read::module, "Module Temperature Error tripped."},
    {"nvd.health.krv.alarms.module.lifetime.warning", kAudit, Read::module, "Module Lifetime Warning tripped."},
    {"nvd.health.krv.alarms.module.lifetime.error", kProblem, Read::module, "Module Lifetime Error tripped."},
    {"nvd.health.krv.alarms.es.temperature.warning", kAudit, Read::module,
     "Energy Source Temperature Warning tripped."},
    {"nvd.health.krv.alarms.es.temperature.error", kProblem, Read::module, "Energy Source Temperature Error tripped."},
    {"nvd.health.krv.alarms.es.lifetime.warning", kAudit, Read::module, "Energy Source Lifetime Warning tripped."},
    {"nvd.health.krv.alarms.es.lifetime.error", kProblem, Read::module, "Energy Source Lifetime Error tripped."},
};

scenario::Arguments argumentsFor(Read read) {
  switch (read) {
    case Read::nothing:
      return {};
    case Read::number:
      return {i(7)};
    case Read::module:
      return {i(0x2f), s("A1")};
    case Read::moduleAndValue:
      return {i(0x2f), s("A1"), i(95)};
    case Read::moduleAndTwoValues:
      return {i(0x2f), s("A1"), i(95), i(90)};
  }
  return {};
}

support::PostedEvent eventOf(const HardwareCase& row) {
  static constexpr const char* kPrefixes[] = {"orn.problem.hardware.", "orn.audit.hardware.", "orn.clear.hardware."};
  const std::string prefix = row.read < Read::module ? "" : "NVDIMM (handle 0x2f, idString A1): ";
  return {row.kind, std::string(kPrefixes[static_cast<int>(row.kind)]) + row.key, prefix + row.text, false};
}

class HardwareScenario : public testing::Test {
 protected:
  void observe(const std::string& key, const scenario::Arguments& arguments) {
    driver.observe("kel.hardware." + key, arguments);
  }

  support::Scenario scenario;
  support::Driver driver{scenario, keld::kHardwareCorrelator};
};

TEST_F(HardwareScenario, each46ObservationsGiveTheirEvent) {
  EXPECT_EQ(std::size(kCases), 46U);
  for (const auto& row : kCases) {
    observe(row.key, argumentsFor(row.read));
    EXPECT_EQ(driver.events(), Events{eventOf(row)}) << row.key;
  }
  EXPECT_EQ(scenario::diagnostics(scenario), Lines{});
}

TEST_F(HardwareScenario, nothingBesideIsRegistered) {
  const std::unique_ptr<keld::Correlator> correlator = keld::kHardwareCorrelator.make(scenario.services);
  EXPECT_EQ(correlator->handlers().size(), 46U);
}

TEST_F(HardwareScenario, aPositionThatIsMissingOrOfAnotherKindPostsAndLogsNothing) {
  for (const auto& row : kCases) {
    const scenario::Arguments complete = argumentsFor(row.read);
    for (std::size_t n = 0; n < complete.size(); ++n) {
      const scenario::Arguments tooFew(complete.begin(), complete.begin() + static_cast<std::ptrdiff_t>(n));
      observe(row.key, tooFew);
      scenario::Arguments ofAnotherKind = complete;
      ofAnotherKind[n] = n == 1 ? i(1) : s("1");
      observe(row.key, ofAnotherKind);
    }
  }
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario::diagnostics(scenario), Lines{});
}

TEST_F(HardwareScenario, aHandleOfZeroPrintsAsZeroAndANegativeOneAsItsBits) {
  const auto vendorError = [](const std::string& handle) {
    return problem("orn.problem.hardware.nvd.health.module.vendor.error",
                   "NVDIMM (handle " + handle + ", idString A1): Vendor specific error.");
  };
  observe("nvd.health.module.vendor.error", {i(0), s("A1")});
  EXPECT_EQ(driver.events(), Events{vendorError("0")});
  observe("nvd.health.module.vendor.error", {i(-1), s("A1")});
  EXPECT_EQ(driver.events(), Events{vendorError("0xffffffff")});
  observe("nvd.health.module.vendor.error", {l(0x1'0000'0010), s("A1")});  // 32 bits are read
  EXPECT_EQ(driver.events(), Events{vendorError("0x10")});
}

TEST_F(HardwareScenario, percentageUsedNamesTheValueAndThenTheLimit) {
  observe("nvd.health.life.pctused", {i(0x10), s("A1"), i(95), i(90)});
  EXPECT_EQ(driver.events(), Events{audit("orn.audit.hardware.nvd.health.life.pctused",
                                          "NVDIMM (handle 0x10, idString A1): Life Percentage Used (95) has reached "
                                          "the threshold limit (90).")});
}

TEST_F(HardwareScenario, temperaturesAreSignedAndLifetimesAreNot) {
  observe("nvd.health.alarms.es.temperature.error", {i(1), s("A1"), i(-40)});
  observe("nvd.health.alarms.temperature", {i(1), s("A1"), i(-40)});
  observe("nvd.health.alarms.lifetime.error", {i(1), s("A1"), i(-1)});
  observe("nvd.health.lastshutdownstatus", {i(1), s("A1"), u(4294967295)});
  const auto events = driver.events();
  ASSERT_EQ(events.size(), 4U);
  EXPECT_EQ(events[0].text, "NVDIMM (handle 0x1, idString A1): Energy Source Temperature (-40 C) Error tripped.");
  EXPECT_EQ(events[1].text,
            "NVDIMM (handle 0x1, idString A1): Temperature (-40 C) has reached the pre-programmed threshold limit.");
  EXPECT_EQ(events[2].text, "NVDIMM (handle 0x1, idString A1): Lifetime (4294967295) Error tripped.");
  EXPECT_TRUE(events[3].text.starts_with("NVDIMM (handle 0x1, idString A1): Last Shutdown Status (4294967295) Not"));
}

TEST_F(HardwareScenario, ioApicNumbersAreSignedAndRoutingEntriesAreNot) {
  observe("ioapic.missing", {i(-1)});
  observe("acpi.interrupt.routing.pin.invalid", {i(-1)});
  observe("acpi.interrupt.routing.device.invalid", {i(-1)});
  const auto events = driver.events();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(events[0].text, "IOAPIC Num -1 is missing. Please check BIOS settings to enable this IOAPIC.");
  EXPECT_EQ(events[1].text, "Skipping interrupt routing entry with bad device pin: 4294967295. This is a BIOS bug.");
  EXPECT_EQ(events[2].text, "Skipping interrupt routing entry with bad device number: 4294967295. This is a BIOS bug.");
}

TEST_F(HardwareScenario, anUnknownObservationIsIgnoredSilently) {
  driver.observe("kel.hardware.unheard.of", {i(1), s("A1")});
  EXPECT_EQ(driver.events(), Events{});
  EXPECT_EQ(scenario.log.take(), Lines{});
}

}  // namespace
