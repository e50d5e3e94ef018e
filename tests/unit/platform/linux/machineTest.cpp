// The machine that runs the tests, asked and acted upon without harm: facts against what the C library
// says, a harmless process as a virtual machine, and a file system on a loop device.
#include <fcntl.h>
#include <linux/loop.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "host/uniqueFd.h"
#include "hostTree.h"
#include "linux/childProcess.h"
#include "linux/linuxHost.h"
#include "linux/storage.h"

namespace linktest {
namespace {

using platform::Host;
using platform::LinuxRoots;
using platform::UniqueFd;

class MachineTest : public HostTree {
 protected:
  const std::unique_ptr<Host> host_ = platform::makeLinuxHost();
};

/// A shell under another name that waits for its input to end, as it does with this object.
class Sleeper {
 public:
  /// `name` and `words` as a shell takes them.
  explicit Sleeper(const std::string& name, const std::string& words = "") {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    const UniqueFd input(ends[0]);
    held_.reset(ends[1]);
    const std::string command = "exec -a " + name + " sh -c 'read x; :' " + words;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(input.get(), STDIN_FILENO);
      ::execl("/bin/bash", "bash", "-c", command.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;
  ~Sleeper() {
    held_.reset();
    (void)wait();
  }

  [[nodiscard]] pid_t pid() const { return pid_; }
  /// The signal that ended it.
  int wait() {
    int status = 0;
    if (pid_ > 0) ::waitpid(pid_, &status, 0);
    pid_ = 0;
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }

 private:
  UniqueFd held_;
  pid_t pid_ = 0;
};

TEST_F(MachineTest, CountsItsProcessors) {
  const auto counts = host_->cpuCounts();
  if (counts.outcome.status == ENOTSUP) GTEST_SKIP() << counts.outcome.text;
  ASSERT_TRUE(counts.ok()) << counts.outcome.text;
  const long configured = ::sysconf(_SC_NPROCESSORS_ONLN);
  EXPECT_GE(counts.value.pcpus, configured);
  EXPECT_LE(counts.value.pcpus, ::sysconf(_SC_NPROCESSORS_CONF));
  EXPECT_GE(counts.value.pcpus, counts.value.cores);
  EXPECT_GE(counts.value.cores, 1U);
}

TEST_F(MachineTest, NamesItsVendorOrSaysThatItCannot) {
  const auto vendor = host_->cpuVendor();
  EXPECT_EQ(vendor.ok(), !vendor.value.empty());
  if (!vendor.ok()) {
    EXPECT_THAT(vendor.outcome.text, testing::StartsWith("not available: "));
  }
}

TEST_F(MachineTest, ShowsEveryPathWithItsDevice) {
  const auto paths = host_->storagePaths();
  if (!paths.ok()) GTEST_SKIP() << paths.outcome.text;
  for (const auto& [path, device] : paths.value) {
    EXPECT_EQ(host_->deviceOfPath(path).value, device);
    const auto facts = host_->storageDevice(device);
    ASSERT_TRUE(facts.ok()) << device;
    EXPECT_GE(facts.value.redundancyState, 1);
    EXPECT_LE(facts.value.redundancyState, 3);
  }
  EXPECT_TRUE(host_->openVolumes().ok());
}

TEST_F(MachineTest, TellsTheStatusOfItsFirstPage) {
  if (::access("/proc/kpageflags", R_OK) != 0) GTEST_SKIP() << "/proc/kpageflags cannot be read here";
  EXPECT_TRUE(host_->pageStatus(0).ok());
  EXPECT_EQ(host_->pageStatus(~std::uint64_t{0}).outcome.status, ENXIO);
}

TEST_F(MachineTest, ListsAVirtualMachineAndKillsIt) {
  if (::access("/bin/bash", X_OK) != 0) GTEST_SKIP() << "no bash to start a process under another name";
  Sleeper vm("qemu-system-x86_64", "-name guest=keld-test,,vm,debug-threads=on");
  ASSERT_GT(vm.pid(), 0);
  ASSERT_TRUE(soon([&] { return host_->vmByWorldId(vm.pid()).ok(); })) << "the second exec is not done";
  EXPECT_EQ(host_->vmName(vm.pid()).value, "keld-test,vm");
  EXPECT_EQ(host_->vmNameOfGroup(vm.pid()).value, "keld-test,vm");
  const auto all = host_->vms();
  EXPECT_TRUE(std::any_of(all.value.begin(), all.value.end(), [&](const auto& one) {
    return one.worldId == vm.pid() && one.groupId == vm.pid() && one.name == "keld-test,vm";
  }));
  const std::string number = std::to_string(vm.pid());
  EXPECT_EQ(host_->plan(platform::VmKill{vm.pid()}).value, "send SIGKILL to process " + number + ", VM keld-test,vm");
  EXPECT_TRUE(host_->vmKill(vm.pid()).ok());
  EXPECT_EQ(vm.wait(), SIGKILL);
  EXPECT_THAT(audit(),
              testing::ElementsAre(AuditRecord{"vm.kill", "process " + number + ", VM keld-test,vm, is killed"}));
}

TEST_F(MachineTest, KillsNoOtherProcess) {
  if (::access("/bin/bash", X_OK) != 0) GTEST_SKIP() << "no bash to start a process under another name";
  Sleeper other("harmless");
  ASSERT_GT(other.pid(), 0);
  const std::string commandLine = "/proc/" + std::to_string(other.pid()) + "/cmdline";
  const auto isHarmless = [&] {
    std::string program;
    std::ifstream file(commandLine);
    return std::getline(file, program, '\0') && program == "harmless";
  };
  ASSERT_TRUE(soon(isHarmless)) << "the second exec is not done";
  EXPECT_EQ(host_->vmKill(other.pid()).status, ESRCH);
  EXPECT_EQ(host_->vmKill(::getpid()).status, ESRCH);
  EXPECT_TRUE(isHarmless());
  EXPECT_THAT(audit(), testing::IsEmpty());
}

/// An ext4 file system with a label in an image, on a loop device, mounted in a mount namespace of this
/// process; what could not be had is in `missing`.
class MountedImage {
 public:
  MountedImage(const std::string& image, const std::string& point) : point_(point) { missing_ = setUp(image); }
  MountedImage(const MountedImage&) = delete;
  MountedImage& operator=(const MountedImage&) = delete;
  ~MountedImage() {
    if (mounted_) ::umount2(point_.c_str(), MNT_DETACH);
  }

  [[nodiscard]] const std::string& missing() const { return missing_; }
  [[nodiscard]] const std::string& device() const { return device_; }

 private:
  std::string setUp(const std::string& image) {
    if (::unshare(CLONE_NEWNS) != 0) return "only root can mount";
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "the mounts cannot be made private";
    const UniqueFd file(::open(image.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    constexpr off_t kImageBytes = 4 << 20;
    if (!file || ::ftruncate(file.get(), kImageBytes) != 0) return "no image file";
    const auto made =
        platform::runProgram("/sbin/mkfs.ext4", {"-q", "-F", "-L", "keld test", image}, std::chrono::seconds(30));
    if (!made.ok()) return "no file system can be made: " + made.text;
    const UniqueFd control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    const int number = control ? ::ioctl(control.get(), LOOP_CTL_GET_FREE) : -1;
    if (number < 0) return "no loop devices here";
    device_ = "loop" + std::to_string(number);
    loop_.reset(::open(("/dev/" + device_).c_str(), O_RDWR | O_CLOEXEC));
    // The kernel frees the device with its last user, whatever ends this process.
    loop_config config{};
    config.fd = static_cast<std::uint32_t>(file.get());
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (!loop_ || ::ioctl(loop_.get(), LOOP_CONFIGURE, &config) != 0) return "the loop device cannot be used";
    std::filesystem::create_directories(point_);
    mounted_ = ::mount(("/dev/" + device_).c_str(), point_.c_str(), "ext4", 0, nullptr) == 0;
    return mounted_ ? "" : "the image cannot be mounted: " + std::string(std::strerror(errno));
  }

  std::string point_;
  std::string missing_;
  std::string device_;
  UniqueFd loop_;
  bool mounted_ = false;
};

TEST_F(MachineTest, NamesTheDatastoreOfAFileOnALabelledFileSystem) {
  const MountedImage image(path("image"), path("mounted here"));
  if (!image.missing().empty()) GTEST_SKIP() << image.missing();
  // The label's link as udev would make it, in a directory of the test's own: no udev need run here.
  link("dev/disk/by-label/keld\\x20test", "dev/" + image.device());
  LinuxRoots roots;
  roots.dev = path("dev");
  // This process' mounts alone: those of process 1 are outside its namespace.
  roots.proc = path("proc");
  std::filesystem::create_directories(roots.proc);
  std::filesystem::create_directory_symlink("/proc/self", path("proc/self"));
  const platform::Storage storage(roots);
  EXPECT_EQ(storage.datastorePath(path("mounted here/vm/sys.swp")).value, "keld test: vm/sys.swp");
  EXPECT_EQ(platform::Volumes(roots).volumeOn(image.device()).value, "keld test");
  roots.dev = path("nothing");
  roots.run = path("nothing");
  EXPECT_EQ(platform::Volumes(roots).volumeOn(image.device()).value, path("mounted here"));
  EXPECT_EQ(storage.device(image.device()).outcome.status, ENOENT) << "a loop device is no hardware";
}

}  // namespace
}  // namespace linktest
