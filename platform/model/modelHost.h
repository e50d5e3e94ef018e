// The host that a JSON file describes, for trials and tests: it answers from the file, read afresh at
// each query, and writes each action to host-actions.jsonl of the run directory instead of doing it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/host.h"
#include "model/modelFile.h"

namespace platform {

/// Every method may be called from any thread. While the file cannot be read or is no model, every
/// query and action fails with the reason, and the log mentions it once a minute. What the file does
/// not say fails with ENOENT, but for what docs/model-host.md gives a default.
class ModelHost : public Host {
 public:
  /// The host described by `file`; a relative path counts from the directory of this moment.
  explicit ModelHost(std::string file);

  /// The file's text as it is now, where that is a model.
  [[nodiscard]] Answer<std::string> readText() const;

  [[nodiscard]] std::string describe() const override;
  [[nodiscard]] bool buildMatches() const override;
  [[nodiscard]] std::string kernelBuild() const override;
  [[nodiscard]] Answer<std::string> systemUuid() const override;
  /// No context has a channel: observations come by injection alone.
  Answer<std::unique_ptr<Channel>> openChannel(std::uint32_t number) override;
  [[nodiscard]] Answer<std::optional<std::int64_t>> optionValue(const std::string& name) const override;
  [[nodiscard]] std::vector<std::string> optionNames() const override;
  void optionWasSet(const std::string& name, std::int64_t value) override;
  [[nodiscard]] Answer<PortGroupFacts> portGroup(const std::string& name) const override;
  [[nodiscard]] Answer<std::vector<PortGroupFacts>> portGroups() const override;
  [[nodiscard]] Answer<std::string> vmNameOfGroup(std::int64_t groupId) const override;
  Outcome nicDown(const std::string& nic) override;
  [[nodiscard]] Outcome storeTrouble(const std::string& operation) const override;

  /// The whole file as it is now.
  [[nodiscard]] Answer<ModelFile> read() const { return *model(); }

  [[nodiscard]] Answer<std::string> deviceOfPath(const std::string& path) const override;
  [[nodiscard]] Answer<StorageDevice> storageDevice(const std::string& name) const override;
  [[nodiscard]] Answer<std::map<std::string, std::string>> storagePaths() const override;
  [[nodiscard]] Answer<std::map<std::string, StorageDevice>> storageDevices() const override;
  [[nodiscard]] Outcome openVolumes() const override;
  [[nodiscard]] Answer<std::string> volumeOfPartition(const std::string& device, std::uint32_t number) const override;
  [[nodiscard]] Answer<std::string> datastorePath(const std::string& path) const override;
  [[nodiscard]] Answer<std::map<std::string, std::string>> datastoreForms() const override;

  [[nodiscard]] Answer<VmIdentity> vmByWorldId(std::int64_t worldId) const override;
  [[nodiscard]] Answer<std::string> vmName(std::int64_t worldId) const override;
  [[nodiscard]] Answer<std::vector<VmIdentity>> vms() const override;

  [[nodiscard]] Answer<CpuCounts> cpuCounts() const override;
  [[nodiscard]] Answer<std::string> cpuVendor() const override;
  [[nodiscard]] Answer<bool> cpuOfflineEnabled() const override;

  [[nodiscard]] Answer<std::uint64_t> pageRetireThreshold() const override;
  [[nodiscard]] Answer<std::uint32_t> pageStatus(std::uint64_t page) const override;

  Outcome cpuOffline(std::int64_t cpu) override;
  Outcome pageRetire(std::uint64_t page, std::int64_t count, const std::string& mode) override;
  Outcome vmKill(std::int64_t worldId) override;
  Outcome swapReconfigure() override;
  /// The line that the action would append.
  [[nodiscard]] Answer<std::string> plan(const Action& action) const override;

 protected:
  /// What answers a query: the file, read afresh.
  [[nodiscard]] virtual std::shared_ptr<const Answer<ModelFile>> model() const;
  /// Takes the line of an action that is to be done.
  virtual Outcome record(const std::string& line);

 private:
  Outcome act(const Action& action);
  template <typename T, typename Find>
  [[nodiscard]] Answer<T> query(const std::string& operation, const Find& find) const;

  std::string given_;
  std::string file_;
};

}  // namespace platform
