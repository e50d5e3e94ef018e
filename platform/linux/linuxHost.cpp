#include "linux/linuxHost.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/complaints.h"
#include "host/files.h"
#include "host/paths.h"
#include "linux/actionTrail.h"
#include "linux/linkRequests.h"
#include "linux/linkTable.h"
#include "linux/linksChannel.h"
#include "linux/pages.h"
#include "linux/processors.h"
#include "linux/storage.h"
#include "linux/swap.h"
#include "linux/systemUuid.h"
#include "linux/virtualMachines.h"
#include "platform/audit.h"

namespace platform {

namespace {

class LinuxHost final : public Host {
 public:
  LinuxHost(const LinuxRoots& roots, std::shared_ptr<Netlink> netlink);

  [[nodiscard]] std::string describe() const override { return "linux"; }
  [[nodiscard]] bool buildMatches() const override { return true; }
  [[nodiscard]] std::string kernelBuild() const override;
  [[nodiscard]] Answer<std::string> systemUuid() const override { return readSystemUuid(roots_.sys, roots_.etc); }
  Answer<std::unique_ptr<Channel>> openChannel(std::uint32_t number) override;
  [[nodiscard]] Answer<std::optional<std::int64_t>> optionValue(const std::string& name) const override;
  void optionWasSet(const std::string& name, std::int64_t value) override;
  [[nodiscard]] Answer<PortGroupFacts> portGroup(const std::string& name) const override;
  [[nodiscard]] Answer<std::vector<PortGroupFacts>> portGroups() const override;
  [[nodiscard]] Answer<std::string> vmNameOfGroup(std::int64_t groupId) const override { return vmName(groupId); }

  [[nodiscard]] Answer<std::string> deviceOfPath(const std::string& path) const override {
    return storage_.deviceOfPath(path);
  }
  [[nodiscard]] Answer<StorageDevice> storageDevice(const std::string& name) const override {
    return storage_.device(name);
  }
  [[nodiscard]] Answer<std::map<std::string, std::string>> storagePaths() const override { return storage_.paths(); }
  [[nodiscard]] Answer<std::map<std::string, StorageDevice>> storageDevices() const override {
    return storage_.devices();
  }
  [[nodiscard]] Outcome openVolumes() const override { return storage_.openVolumes(); }
  [[nodiscard]] Answer<std::string> volumeOfPartition(const std::string& device, std::uint32_t number) const override {
    return storage_.volumeOfPartition(device, number);
  }
  [[nodiscard]] Answer<std::vector<MountFacts>> mounts() const override { return storage_.mounts(); }
  [[nodiscard]] Answer<std::string> datastorePath(const std::string& path) const override {
    return storage_.datastorePath(path);
  }
  [[nodiscard]] Answer<std::map<std::string, std::string>> datastoreForms() const override {
    return storage_.datastoreForms();
  }

  [[nodiscard]] Answer<VmIdentity> vmByWorldId(std::int64_t worldId) const override { return vms_.ofWorld(worldId); }
  [[nodiscard]] Answer<std::string> vmName(std::int64_t worldId) const override;
  [[nodiscard]] Answer<std::vector<VmIdentity>> vms() const override { return vms_.all(); }

  [[nodiscard]] Answer<CpuCounts> cpuCounts() const override { return processors_.counts(); }
  [[nodiscard]] Answer<std::string> cpuVendor() const override { return processors_.vendor(); }
  [[nodiscard]] Answer<bool> cpuOfflineEnabled() const override { return processors_.offlineEnabled(); }
  [[nodiscard]] Answer<std::uint64_t> pageRetireThreshold() const override { return Pages::retireThreshold(); }
  [[nodiscard]] Answer<std::uint32_t> pageStatus(std::uint64_t page) const override { return pages_.status(page); }

  Outcome nicDown(const std::string& nic) override;
  Outcome cpuOffline(std::int64_t cpu) override { return processors_.offline(cpu); }
  Outcome pageRetire(std::uint64_t page, std::int64_t count, const std::string& mode) override {
    return pages_.retire(page, count, mode);
  }
  Outcome vmKill(std::int64_t worldId) override { return vms_.kill(worldId); }
  Outcome swapReconfigure() override { return swap_.reconfigure(); }
  [[nodiscard]] Answer<std::string> plan(const Action& action) const override;
  [[nodiscard]] Outcome storeTrouble(const std::string& operation) const override;

 private:
  /// The links as they are now, by the configuration as it is now.
  [[nodiscard]] Answer<LinkTable> readLinks() const;
  /// The link of a NIC that may be taken down.
  [[nodiscard]] Answer<std::int32_t> indexOfNic(const std::string& nic) const;

  [[nodiscard]] Answer<std::string> planOf(const NicDown& asked) const;
  [[nodiscard]] Answer<std::string> planOf(const CpuOffline& asked) const { return processors_.planOffline(asked.cpu); }
  [[nodiscard]] Answer<std::string> planOf(const PageRetire& asked) const {
    return pages_.planRetire(asked.page, asked.count);
  }
  [[nodiscard]] Answer<std::string> planOf(const VmKill& asked) const { return vms_.planKill(asked.worldId); }
  [[nodiscard]] Answer<std::string> planOf(const SwapReconfigure&) const { return swap_.planReconfigure(); }

  LinuxRoots roots_;
  std::shared_ptr<Netlink> netlink_;
  Storage storage_;
  Processors processors_;
  Pages pages_;
  VirtualMachines vms_;
  Swap swap_;
};

std::uint64_t kernelPageBytes() {
  const long bytes = ::sysconf(_SC_PAGESIZE);
  return bytes > 0 ? static_cast<std::uint64_t>(bytes) : kPageBytes;
}

/// Processes are those of the kernel that runs, so a recorded tree has none to kill.
std::shared_ptr<ProcessControl> processesOf(const LinuxRoots& roots) {
  return roots.proc == LinuxRoots().proc ? kernelProcesses() : nullptr;
}

LinuxHost::LinuxHost(const LinuxRoots& roots, std::shared_ptr<Netlink> netlink)
    : roots_(roots),
      netlink_(std::move(netlink)),
      storage_(roots),
      processors_(roots),
      pages_(roots, kernelPageBytes()),
      vms_(roots, processesOf(roots)),
      swap_(roots) {}

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

Answer<std::string> LinuxHost::vmName(std::int64_t worldId) const {
  Answer<VmIdentity> vm = vms_.ofWorld(worldId);
  return {std::move(vm.outcome), std::move(vm.value.name)};
}

Answer<std::int32_t> LinuxHost::indexOfNic(const std::string& nic) const {
  const Answer<LinkTable> links = readLinks();
  if (!links.ok()) return {links.outcome, {}};
  const LinkMessage* const link = links.value.find(nic);
  if (link == nullptr) return {{ENODEV, "no network device " + nic}, {}};
  if (const auto why = links.value.whyNoNic(*link)) return {{EINVAL, nic + " is no NIC: " + *why}, {}};
  return {{}, link->index};
}

Outcome LinuxHost::nicDown(const std::string& nic) {
  const Answer<std::int32_t> index = indexOfNic(nic);
  if (!index.ok()) return index.outcome;
  const std::string text = "NIC " + nic + " is taken down because its link is flapping";
  if (Outcome trail = recordAction("nic.down", text); !trail.ok()) return trail;
  const int status = takeLinkDown(*netlink_, index.value);
  if (status != 0) return {status, "NIC " + nic + " cannot be taken down: " + errnoText(status)};
  return {};
}

Answer<std::string> LinuxHost::planOf(const NicDown& asked) const {
  const Answer<std::int32_t> index = indexOfNic(asked.nic);
  if (!index.ok()) return {index.outcome, {}};
  return {{}, "set NIC " + asked.nic + " (link " + std::to_string(index.value) + ") down through rtnetlink"};
}

Answer<std::string> LinuxHost::plan(const Action& action) const {
  return std::visit([&](const auto& asked) { return planOf(asked); }, action);
}

Outcome LinuxHost::storeTrouble(const std::string&) const {
  return {};
}

}  // namespace

std::unique_ptr<Host> makeLinuxHost(const LinuxRoots& roots, std::shared_ptr<Netlink> netlink) {
  return std::make_unique<LinuxHost>(roots, std::move(netlink));
}

}  // namespace platform
