// The daemon and the tool on this machine itself: what they see of it, and a virtual machine's process
// that is really ended.
#include <signal.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "endToEnd.h"

namespace e2e {
namespace {

using support::i, support::L;

/// A shell under the name of a virtual machine, which stops itself and waits to be ended.
class FakeMachine : public Program {
 public:
  FakeMachine(const Workspace& workspace, const std::string& name)
      : Program(workspace, "/bin/sh", {"-c", "kill -STOP $$", "-name", "guest=" + name + ",debug-threads=on"}) {
    setInvokedAs("/usr/bin/qemu-system-x86_64");
    start();
  }
};

class OnThisMachine : public EndToEnd {
 protected:
  /// Runs kelctl host on this machine.
  Outcome host(const std::vector<std::string>& words) {
    std::vector<std::string> arguments = {"host"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    Program kelctl(workspace(), KELCTL_PROGRAM, arguments);
    kelctl.setEnvironment("KORVEL_HOST", "linux");
    kelctl.start();
    const Ending ending = kelctl.waitForEnd();
    return {ending, kelctl.standardOutput(), kelctl.standardError()};
  }
  nlohmann::json seen() {
    const Outcome outcome = host({"--json"});
    EXPECT_TRUE(outcome.ending.with(0)) << outcome.error;
    return nlohmann::json::parse(outcome.output);
  }
};

TEST_F(OnThisMachine, TheToolShowsItsProcessorsStorageAndVirtualMachines) {
  const FakeMachine machine(workspace(), "web01");
  const std::string number = std::to_string(machine.pid());
  ASSERT_TRUE(eventually([&] { return seen()["vms"].dump().find("\"worldId\":" + number) != std::string::npos; }));
  const nlohmann::json all = seen();
  EXPECT_NE(all["vms"].dump().find("\"name\":\"web01\""), std::string::npos) << all["vms"];
  if (all["cpu"].contains("pcpus")) {
    EXPECT_GE(all["cpu"]["pcpus"].get<long>(), ::sysconf(_SC_NPROCESSORS_ONLN));
  } else {
    EXPECT_NE(all["cpu"].dump().find("not available"), std::string::npos) << all["cpu"];
  }
  EXPECT_TRUE(all.contains("storage")) << all;
  EXPECT_EQ(all["pageRetire"]["threshold"], 100);
}

/// Mount points of file systems on block devices that sysfs shows, as process 1 sees them, or this one
/// where that may not be asked.
std::vector<std::string> blockMounts() {
  std::vector<std::string> points;
  std::string mounts = fileContent("/proc/1/mountinfo");
  if (mounts.empty()) mounts = fileContent("/proc/self/mountinfo");
  std::istringstream lines(mounts);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string id;
    std::string parent;
    std::string number;
    std::string root;
    std::string point;
    words >> id >> parent >> number >> root >> point;
    if (number.starts_with("0:") || point.find('\\') != std::string::npos) continue;
    if (::access(("/sys/dev/block/" + number).c_str(), F_OK) == 0) points.push_back(point);
  }
  return points;
}

TEST_F(OnThisMachine, TheToolShowsTheMountsOfItsBlockDevices) {
  const std::vector<std::string> points = blockMounts();
  if (points.empty()) GTEST_SKIP() << "no block device of this machine is mounted";
  const std::string shown = seen()["mounts"].dump();
  EXPECT_NE(shown.find("\"point\":\"" + points.front() + "\""), std::string::npos) << points.front() << " in " << shown;
}

TEST_F(OnThisMachine, ADryRunSaysWhatWouldBeDoneAndDoesNothing) {
  FakeMachine machine(workspace(), "web01");
  const std::string action = "vm.kill:" + std::to_string(machine.pid());
  ASSERT_TRUE(eventually([&] { return host({"--dry-run", action}).ending.with(0); }));
  EXPECT_NE(host({"--dry-run", action}).output.find("SIGKILL"), std::string::npos);
  EXPECT_FALSE(machine.hasEnded());
  EXPECT_EQ(fileContent(workspace().stateDirectory() + "/audit.jsonl"), "");
  const Outcome ours = host({"--dry-run", "vm.kill:" + std::to_string(::getpid())});
  EXPECT_TRUE(ours.ending.with(1)) << ours.output;
  // Where the kernel offers the file, what would be written to it; else that it does not.
  const Outcome page = host({"--dry-run", "page.retire:0x1234"});
  const bool offered = ::access("/sys/devices/system/memory/soft_offline_page", F_OK) == 0;
  EXPECT_TRUE(page.ending.with(offered ? 0 : 1)) << page.output << page.error;
  EXPECT_NE((page.output + page.error).find(offered ? "0x1234000" : "not available"), std::string::npos)
      << page.output << page.error;
}

TEST_F(OnThisMachine, AVirtualMachineThatKeepsUsingABadPageIsReallyKilled) {
  FakeMachine machine(workspace(), "web01");
  FakeMachine neighbour(workspace(), "web02");
  ASSERT_TRUE(eventually([&] { return seen()["vms"].dump().find("\"web01\"") != std::string::npos; }));
  EventReceiver agent(workspace().eventSocket());
  Daemon daemon(workspace());
  daemon.setEnvironment("KORVEL_HOST", "linux");
  daemon.startAndServe();
  const Emitter emitter = Emitter::toContext(workspace());
  const Arguments injection = {L(0x4c0de), i(static_cast<std::int32_t>(machine.pid()))};
  // The guest's hits go on until two seconds lie between the first and the last.
  std::size_t sent = 0;
  ASSERT_TRUE(eventually([&] {
    emitter.send("kel.pageretire.mce.injected", injection);
    return ++sent > 50 && machine.hasEnded();
  }));
  const EventRecord event = agent.waitFor("orn.problem.pageretire.mce.injected.2");
  const Ending ending = machine.waitForEnd();
  EXPECT_FALSE(ending.exited);
  EXPECT_EQ(ending.status, SIGKILL);
  EXPECT_FALSE(neighbour.hasEnded());
  const LogLine line = log().waitFor("the event", [&](const LogLine& one) {
    return one.text.find("[orn.problem.pageretire.mce.injected.2] Killing web01 because at least ") !=
           std::string::npos;
  });
  EXPECT_NE(line.text.find(" machine check exceptions were injected for guest physical page 0x4c0de but the virtual "
                           "machine's operating system kept using the page."),
            std::string::npos)
      << line.text;
  const std::string audit = fileContent(workspace().stateDirectory() + "/audit.jsonl");
  EXPECT_NE(audit.find("\"record\":\"vm.kill\""), std::string::npos) << audit;
  EXPECT_NE(audit.find("web01"), std::string::npos) << audit;
  EXPECT_EQ(audit.find("web02"), std::string::npos) << audit;
  ASSERT_TRUE(daemon.terminate().with(0));
}

}  // namespace
}  // namespace e2e
