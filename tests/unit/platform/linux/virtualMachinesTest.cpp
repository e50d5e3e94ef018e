#include "linux/virtualMachines.h"

#include <cerrno>
#include <functional>
#include <initializer_list>

#include "hostTree.h"

namespace linktest {
namespace {

using platform::isVirtualMachine;
using platform::ProcessControl;
using platform::UniqueFd;
using platform::virtualMachineName;
using platform::VirtualMachines;
using testing::ElementsAre;
using testing::IsEmpty;

std::string commandLine(std::initializer_list<std::string> words) {
  std::string text;
  for (const std::string& word : words) text += word + '\0';
  return text;
}

/// Remembers what is asked of it instead of doing it.
class Recorder final : public ProcessControl {
 public:
  platform::Answer<UniqueFd> hold(pid_t process) override {
    held.push_back(process);
    if (whenHeld) whenHeld();
    return {{holdStatus, {}}, {}};
  }
  int kill(const UniqueFd&) override {
    ++kills;
    return killStatus;
  }

  std::vector<pid_t> held;
  std::function<void()> whenHeld;
  int kills = 0;
  int holdStatus = 0;
  int killStatus = 0;
};

class VirtualMachinesTest : public HostTree {
 protected:
  void process(int number, const std::string& comm, const std::string& words, int group = 0) const {
    const std::string directory = "proc/" + std::to_string(number);
    write(directory + "/comm", comm + "\n");
    write(directory + "/cmdline", words);
    write(directory + "/status", "Name:\t" + comm + "\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t" +
                                     std::to_string(group == 0 ? number : group) + "\nNgid:\t0\nPid:\t" +
                                     std::to_string(number) + "\n");
  }
  void vm(int number, const std::string& name) const {
    process(number, "qemu-system-x86", commandLine({"/usr/bin/qemu-system-x86_64", "-name", "guest=" + name}));
  }

  std::shared_ptr<Recorder> control_ = std::make_shared<Recorder>();
  VirtualMachines vms_{roots(), control_};
};

TEST(VirtualMachine, IsKnownByItsNameOrItsProgram) {
  for (const char* const program :
       {"qemu-system-x86_64", "/usr/bin/qemu-system-aarch64", "/usr/libexec/qemu-kvm", "kvm", "qemu-kvm", "./kvm"}) {
    EXPECT_TRUE(isVirtualMachine("main", commandLine({program}))) << program;
  }
  for (const char* const comm : {"qemu-system-x86", "qemu-kvm", "kvm"}) {
    EXPECT_TRUE(isVirtualMachine(comm, commandLine({"renamed"}))) << comm;
  }
}

TEST(VirtualMachine, IsNothingElse) {
  for (const char* const program : {"qemu-system-", "qemu-img", "qemu", "kvm-spice", "/qemu-kvm/less", "xkvm", "KVM",
                                    "less qemu-kvm", "qemu-kvm/"}) {
    EXPECT_FALSE(isVirtualMachine("main", commandLine({program, "qemu-kvm"}))) << program;
  }
  EXPECT_FALSE(isVirtualMachine("kvm", "")) << "a thread of the kernel";
  EXPECT_FALSE(isVirtualMachine("qemu-kvm", commandLine({"", "x"})));
}

TEST(VirtualMachine, IsNoScriptOfItsName) {
  for (const char* const interpreter : {"/bin/sh", "bash", "/usr/bin/python3", "/usr/bin/perl"}) {
    EXPECT_FALSE(isVirtualMachine("kvm", commandLine({interpreter, "./kvm"}))) << interpreter;
  }
}

TEST(VirtualMachineName, IsThatOfTheNameOption) {
  const std::pair<const char*, const char*> names[] = {
      {"guest=web01", "web01"},
      {"web01", "web01"},
      {"guest=web01,debug-threads=on", "web01"},
      {"web01,process=x", "web01"},
      {"process=x,guest=web01", "web01"},
      {"guest=a,,b,process=x", "a,b"},
      {"a,,b", "a,b"},
      {"guest=a,,,,b", "a,,b"},
      {"guest=a=b", "a=b"},
      {"guest=old,guest=new", "new"},
      {"guest=web 01", "web 01"},
      {"guest=web01,", "web01"},
      {"guest=a\nb\x1b", "a?b?"},
  };
  for (const auto& [option, name] : names) {
    EXPECT_EQ(virtualMachineName(commandLine({"kvm", "-name", option})), name) << option;
    EXPECT_EQ(virtualMachineName(commandLine({"kvm", "-m", "4G", "--name", option, "-S"})), name) << option;
  }
}

TEST(VirtualMachineName, IsTheUuidWhereThereIsNoName) {
  EXPECT_EQ(virtualMachineName(commandLine({"kvm", "-uuid", "4c4c"})), "4c4c");
  EXPECT_EQ(virtualMachineName(commandLine({"kvm", "-name", "guest=", "-uuid", "4c4c"})), "4c4c");
  EXPECT_EQ(virtualMachineName(commandLine({"kvm", "-name", "process=x", "-uuid", "4c4c"})), "4c4c");
  EXPECT_EQ(virtualMachineName(commandLine({"kvm", "-uuid", "4c4c", "-name", "web01"})), "web01");
}

TEST(VirtualMachineName, IsNothingWhereTheCommandLineHasNeither) {
  for (const std::string& words :
       {std::string(), commandLine({"kvm"}), commandLine({"kvm", "-name"}), commandLine({"-name", "x"}),
        commandLine({"kvm", "-name", ""}), commandLine({"kvm", "-name", ",guest"}),
        commandLine({"kvm", "-name", "on=off"}), commandLine({"kvm", "-names", "x"}), std::string("kvm\0-name", 9),
        std::string(5000, '\0')}) {
    EXPECT_EQ(virtualMachineName(words), std::nullopt);
  }
}

TEST(VirtualMachineName, IsCutBetweenCharacters) {
  const std::string name = std::string(254, 'x') + "\xC3\xA9";
  EXPECT_EQ(virtualMachineName(commandLine({"kvm", "-name", name})), std::string(254, 'x'));
  EXPECT_EQ(virtualMachineName(commandLine({"kvm", "-name", std::string(1'000'000, 'y')}))->size(), 255U);
}

TEST_F(VirtualMachinesTest, AreListedByTheirProcess) {
  vm(4711, "web01");
  vm(812, "db,,01");
  process(900, "bash", commandLine({"bash"}));
  process(901, "kvm", commandLine({"kvm"}));
  process(902, "kvm", "");
  write("proc/cpuinfo", "");
  write("proc/4711x/comm", "kvm\n");
  write("proc/0/comm", "kvm\n");
  write("proc/0/cmdline", commandLine({"kvm"}));
  write("proc/99999999999/cmdline", commandLine({"kvm"}));
  const auto all = vms_.all();
  ASSERT_TRUE(all.ok());
  std::vector<std::string> shown;
  for (const auto& one : all.value) {
    shown.push_back(std::to_string(one.worldId) + " " + std::to_string(one.groupId) + " " + one.name);
  }
  EXPECT_THAT(shown, ElementsAre("812 812 db,01", "901 901 pid 901", "4711 4711 web01"));
}

TEST_F(VirtualMachinesTest, AreFoundByTheirNumber) {
  vm(4711, "web01");
  process(900, "bash", commandLine({"bash", "-name", "guest=web01"}));
  EXPECT_EQ(vms_.ofWorld(4711).value.name, "web01");
  for (const std::int64_t none : {std::int64_t{900}, std::int64_t{901}, std::int64_t{0}, std::int64_t{-4711},
                                  std::int64_t{4711} + (std::int64_t{1} << 32), INT64_MAX, INT64_MIN}) {
    EXPECT_EQ(vms_.ofWorld(none).outcome.status, ESRCH) << none;
  }
}

TEST_F(VirtualMachinesTest, AThreadOfOneIsNone) {
  process(4712, "qemu-system-x86", commandLine({"qemu-system-x86_64", "-name", "web01"}), 4711);
  EXPECT_EQ(vms_.ofWorld(4712).outcome.status, ESRCH);
}

TEST_F(VirtualMachinesTest, AHostileCommandLineIsReadUpToALimit) {
  process(4711, "kvm", commandLine({"kvm", "-name", "web01"}) + std::string(3 << 20, 'x'));
  process(4712, "kvm", commandLine({"kvm"}) + std::string(3 << 20, '\0') + commandLine({"-name", "late"}));
  EXPECT_EQ(vms_.ofWorld(4711).value.name, "web01");
  EXPECT_EQ(vms_.ofWorld(4712).value.name, "pid 4712");
}

TEST_F(VirtualMachinesTest, AreNotAvailableWithoutProcesses) {
  remove("proc");
  EXPECT_EQ(vms_.all().outcome.status, ENOTSUP);
  EXPECT_EQ(vms_.ofWorld(1).outcome.status, ENOTSUP);
}

TEST_F(VirtualMachinesTest, OneIsKilledAfterItsRecord) {
  vm(4711, "web01");
  EXPECT_TRUE(vms_.kill(4711).ok());
  EXPECT_THAT(control_->held, ElementsAre(4711));
  EXPECT_EQ(control_->kills, 1);
  EXPECT_THAT(audit(), ElementsAre(AuditRecord{"vm.kill", "process 4711, VM web01, is killed"}));
}

TEST_F(VirtualMachinesTest, NoOtherProcessIsKilled) {
  process(900, "bash", commandLine({"bash"}));
  for (const std::int64_t none : {900, 901, 0, 1, -1, -4711}) EXPECT_EQ(vms_.kill(none).status, ESRCH) << none;
  EXPECT_THAT(control_->held, IsEmpty());
  EXPECT_EQ(control_->kills, 0);
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(VirtualMachinesTest, ANumberThatPassedToAnotherProcessIsLeftAlone) {
  vm(4711, "web01");
  control_->whenHeld = [&] { process(4711, "bash", commandLine({"bash"})); };
  EXPECT_EQ(vms_.kill(4711).status, ESRCH);
  vm(4711, "web01");
  control_->whenHeld = [&] { vm(4711, "web02"); };
  EXPECT_EQ(vms_.kill(4711).status, ESRCH);
  EXPECT_EQ(control_->kills, 0);
  EXPECT_THAT(audit(), IsEmpty());
}

TEST_F(VirtualMachinesTest, WhatCannotBeRecordedIsNotDone) {
  vm(4711, "web01");
  breakAudit();
  EXPECT_EQ(vms_.kill(4711).status, ENOTDIR);
  EXPECT_EQ(control_->kills, 0);
}

TEST_F(VirtualMachinesTest, RefusalsOfTheKernelAreReturned) {
  vm(4711, "web01");
  control_->killStatus = EPERM;
  EXPECT_EQ(vms_.kill(4711).status, EPERM);
  EXPECT_EQ(vms_.kill(4711).text, "process 4711, VM web01, cannot be killed: Operation not permitted");
  control_->holdStatus = ESRCH;
  EXPECT_EQ(vms_.kill(4711).status, ESRCH);
  control_->holdStatus = EMFILE;
  EXPECT_EQ(vms_.kill(4711).status, EMFILE);
  control_->holdStatus = ENOSYS;
  EXPECT_EQ(vms_.kill(4711).text, "not available: this kernel cannot hold a process: it has no pidfd_open");
}

TEST_F(VirtualMachinesTest, WithoutControlNothingIsKilled) {
  vm(4711, "web01");
  const VirtualMachines recorded(roots(), nullptr);
  EXPECT_EQ(recorded.kill(4711).status, ENOTSUP);
  EXPECT_EQ(recorded.planKill(4711).value, "send SIGKILL to process 4711, VM web01");
  EXPECT_EQ(recorded.planKill(4712).outcome.status, ESRCH);
  EXPECT_THAT(audit(), IsEmpty());
}

}  // namespace
}  // namespace linktest
