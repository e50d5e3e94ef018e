// The CPU correlator on a modelled host whose parts the test sets one by one.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "modelHost.h"
#include "scenarioTools.h"

namespace scenario {

using Actions = std::vector<std::string>;

inline std::string retire(std::uint64_t page) {
  return R"({"action":"page.retire","page":)" + std::to_string(page) + R"(,"count":1,"mode":"NiceRetire"})";
}
inline std::string offline(std::uint64_t cpu) {
  return R"({"action":"cpu.offline","cpu":)" + std::to_string(cpu) + "}";
}

class CpuScene {
 public:
  static constexpr std::uint64_t kAddressValid = std::uint64_t{1} << 58;
  static constexpr std::uint64_t kOverflow = std::uint64_t{1} << 62;

  /// Puts the parts below in force as the host's model.
  void write() const {
    std::string values;
    for (const auto& [name, value] : options)
      values += (values.empty() ? "\"" : ",\"") + name + "\":" + std::to_string(value);
    host.write("{\"options\":{" + values + "},\"cpu\":{" + cpu + "},\"pageRetire\":{\"status\":{" + pageStatus +
               "}},\"failures\":{" + failures + "}}");
  }
  /// Makes the correlator on a host that leaves room for `freeTimers`.
  void start(int freeTimers = static_cast<int>(keld::kMaxTimers)) {
    write();
    support::Scenario& given = scenario;
    useUpTimers(given, freeTimers);
    driver = std::make_unique<support::Driver>(given, keld::kCpuCorrelator);
  }

  /// One record of the machine-check log.
  void log4(std::uint64_t status, std::uint64_t processor, std::uint64_t address, std::uint64_t errors) {
    using support::L;
    // What is not used must not matter.
    driver->observe("kel.cpu.mce.log4",
                    {L(~0ULL), L(status), L(~0ULL), L(~0ULL), L(processor), L(address), L(~0ULL), L(errors)});
  }
  void pageError(std::uint64_t page, std::uint64_t errors = 1) { log4(kAddressValid, 0, page << 12, errors); }
  /// An error without an address.
  void coreError(std::uint64_t processor, std::uint64_t code = 0x0101) { log4(code, processor, 0, 1); }

  /// The actions since the last call.
  Actions newActions() {
    Actions all = host.actions();
    Actions fresh(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return fresh;
  }

  std::map<std::string, std::int64_t> options;
  std::string cpu = R"("vendor":"GenuineIntel","cores":4,"pcpus":8,"offlineEnabled":true)";
  std::string pageStatus = R"("0x1":0,"0x2":0,"0x3":0,"0x4":0,"0x1234":0,"0x1235":0)";
  std::string failures;
  support::ModelHost host;
  support::Scenario scenario;
  std::unique_ptr<support::Driver> driver;

 private:
  std::size_t seen_ = 0;
};

class CpuScenario : public testing::Test, protected CpuScene {};

}  // namespace scenario
