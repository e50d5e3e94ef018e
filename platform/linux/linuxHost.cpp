#include "linux/linuxHost.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/complaints.h"
#include "host/files.h"
#include "host/paths.h"
#include "linux/linkRequests.h"
#include "linux/linkTable.h"
#include "linux/linksChannel.h"
#include "linux/systemUuid.h"
#include "platform/audit.h"

namespace platform {

namespace {

/// For what this machine is not asked for yet.
Outcome notAvailable() {
  return {ENOTSUP, "not available on this host"};
}

class LinuxHost final : public Host {
 public:
  LinuxHost(LinuxRoots roots, std::shared_ptr<Netlink> netlink)
      : roots_(std::move(roots)), netlink_(std::move(netlink)) {}

  [[nodiscard]] std::string describe() const override { return "linux"; }
  [[nodiscard]] bool buildMatches() const override { return true; }
  [[nodiscard]] std::string kernelBuild() const override;
  [[nodiscard]] Answer<std::string> systemUuid() const override { return readSystemUuid(roots_.sys, roots_.etc); }
  Answer<std::unique_ptr<Channel>> openChannel(std::uint32_t number) override;
  [[nodiscard]] Answer<std::optional<std::int64_t>> optionValue(const std::string& name) const override;
  void optionWasSet(const std::string& name, std::int64_t value) override;
  [[nodiscard]] Answer<PortGroupFacts> portGroup(const std::string& name) const override;
  [[nodiscard]] Answer<std::vector<PortGroupFacts>> portGroups() const override;
  [[nodiscard]] Answer<std::string> vmNameOfGroup(std::int64_t groupId) const override;
  [[nodiscard]] Answer<std::string> deviceOfPath(const std::string&) const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<StorageDevice> storageDevice(const std::string&) const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<std::map<std::string, std::string>> storagePaths() const override {
    return {notAvailable(), {}};
  }
  [[nodiscard]] Answer<std::map<std::string, StorageDevice>> storageDevices() const override {
    return {notAvailable(), {}};
  }
  [[nodiscard]] Outcome openVolumes() const override { return notAvailable(); }
  [[nodiscard]] Answer<std::string> volumeOfPartition(const std::string&, std::uint32_t) const override {
    return {notAvailable(), {}};
  }
  [[nodiscard]] Answer<std::string> datastorePath(const std::string&) const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<VmIdentity> vmByWorldId(std::int64_t) const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<std::string> vmName(std::int64_t) const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<std::vector<VmIdentity>> vms() const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<CpuCounts> cpuCounts() const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<std::string> cpuVendor() const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<bool> cpuOfflineEnabled() const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<std::uint64_t> pageRetireThreshold() const override { return {notAvailable(), {}}; }
  [[nodiscard]] Answer<std::uint32_t> pageStatus(std::uint64_t) const override { return {notAvailable(), {}}; }
  Outcome nicDown(const std::string& nic) override;
  Outcome cpuOffline(std::int64_t) override { return notAvailable(); }
  Outcome pageRetire(std::uint64_t, std::int64_t, const std::string&) override { return notAvailable(); }
  Outcome vmKill(std::int64_t) override { return notAvailable(); }
  Outcome swapReconfigure() override { return notAvailable(); }
  [[nodiscard]] Outcome storeTrouble(const std::string& operation) const override;

 private:
  /// The links as they are now, by the configuration as it is now.
  [[nodiscard]] Answer<LinkTable> readLinks() const;

  LinuxRoots roots_;
  std::shared_ptr<Netlink> netlink_;
};

std::string LinuxHost::kernelBuild() const {
  utsname facts{};
  if (::uname(&facts) != 0) return "unknown";
  return std::string(facts.sysname) + " " + facts.release + " " + facts.version + " " + facts.machine;
}

Answer<std::unique_ptr<Channel>> LinuxHost::openChannel(std::uint32_t number) {
  if (number != kLinksContext) return {};
  return LinksChannel::open(netlink_, LinkPolicy::of(PlatformConf::load()));
}

Answer<std::optional<std::int64_t>> LinuxHost::optionValue(const std::string&) const {
  return {};
}

void LinuxHost::optionWasSet(const std::string& name, std::int64_t value) {
  const std::string text = name + " = " + std::to_string(value);
  // The value is stored already; a trail that cannot be written says so in the log itself.
  (void)KrvAudit_Log("option.set", nullptr, text.c_str(), true);
}

Answer<LinkTable> LinuxHost::readLinks() const {
  Answer<LinkTable> links{{}, LinkTable(LinkPolicy::of(PlatformConf::load()))};
  auto dump = dumpLinks(*netlink_);
  links.outcome = std::move(dump.outcome);
  (void)links.value.resync(dump.value);  // a first look reports nothing
  return links;
}

Answer<std::vector<PortGroupFacts>> LinuxHost::portGroups() const {
  const Answer<LinkTable> links = readLinks();
  if (!links.ok()) return {links.outcome, {}};
  return {{}, links.value.portGroups()};
}

Answer<PortGroupFacts> LinuxHost::portGroup(const std::string& name) const {
  Answer<std::vector<PortGroupFacts>> all = portGroups();
  if (!all.ok()) return {std::move(all.outcome), {}};
  const auto found =
      std::find_if(all.value.begin(), all.value.end(), [&](const auto& group) { return group.name == name; });
  if (found == all.value.end()) return {{ENOENT, "no port group " + name}, {}};
  return {{}, std::move(*found)};
}

Answer<std::string> LinuxHost::vmNameOfGroup(std::int64_t groupId) const {
  return {{ENOTSUP, "this host does not know the VM of group " + std::to_string(groupId)}, {}};
}

Outcome LinuxHost::nicDown(const std::string& nic) {
  const Answer<LinkTable> links = readLinks();
  if (!links.ok()) return links.outcome;
  const LinkMessage* const link = links.value.find(nic);
  if (link == nullptr) return {ENODEV, "no network device " + nic};
  if (const auto why = links.value.whyNoNic(*link)) return {EINVAL, nic + " is no NIC: " + *why};
  const std::string text = "NIC " + nic + " is taken down because its link is flapping";
  // What leaves no trace is not done.
  if (const int status = KrvAudit_Log("nic.down", nullptr, text.c_str(), true); status != 0) {
    return {status, "the audit trail cannot be written: " + errnoText(status)};
  }
  const int status = takeLinkDown(*netlink_, link->index);
  if (status != 0) return {status, "NIC " + nic + " cannot be taken down: " + errnoText(status)};
  return {};
}

Outcome LinuxHost::storeTrouble(const std::string&) const {
  return {};
}

}  // namespace

std::unique_ptr<Host> makeLinuxHost(LinuxRoots roots, std::shared_ptr<Netlink> netlink) {
  return std::make_unique<LinuxHost>(std::move(roots), std::move(netlink));
}

}  // namespace platform
