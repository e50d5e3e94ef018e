// Records what the running kernel says about links while they change, for data/.
//
//   recordLinks DIRECTORY
//
// Each scene plays in an empty network namespace and becomes one file; README.md lists them.
#include <poll.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>

#include "linkRecording.h"
#include "linux/linksChannel.h"
#include "linux/netlinkSocket.h"
#include "netns.h"

namespace {

using linktest::Frame;
using platform::Netlink;
using platform::NetlinkSocket;
using support::ip;

/// After so much silence a change has been reported whole.
constexpr int kQuietMilliseconds = 1500;

class RecordingSocket final : public NetlinkSocket {
 public:
  RecordingSocket(std::unique_ptr<NetlinkSocket> inner, char kind, std::vector<Frame>& frames)
      : inner_(std::move(inner)), kind_(kind), frames_(frames) {}

  [[nodiscard]] int fd() const override { return inner_->fd(); }
  int send(std::span<const char> request) override { return inner_->send(request); }
  int receive(std::span<char> buffer, std::size_t* length, std::chrono::milliseconds patience) override {
    const int status = inner_->receive(buffer, length, patience);
    if (status == 0) frames_.push_back({kind_, {buffer.data(), buffer.data() + *length}});
    return status;
  }

 private:
  std::unique_ptr<NetlinkSocket> inner_;
  char kind_;
  std::vector<Frame>& frames_;
};

class RecordingNetlink final : public Netlink {
 public:
  explicit RecordingNetlink(std::vector<Frame>& frames) : frames_(frames) {}
  platform::Answer<std::unique_ptr<NetlinkSocket>> openRequests() override {
    return recording(kernel_->openRequests(), Frame::kDump);
  }
  platform::Answer<std::unique_ptr<NetlinkSocket>> openLinkNotifications() override {
    return recording(kernel_->openLinkNotifications(), Frame::kNotification);
  }

 private:
  platform::Answer<std::unique_ptr<NetlinkSocket>> recording(platform::Answer<std::unique_ptr<NetlinkSocket>> socket,
                                                             char kind) {
    if (socket.ok()) socket.value = std::make_unique<RecordingSocket>(std::move(socket.value), kind, frames_);
    return socket;
  }

  std::unique_ptr<Netlink> kernel_ = platform::makeKernelNetlink();
  std::vector<Frame>& frames_;
};

void untilQuiet(platform::Channel& channel) {
  std::vector<char> buffer(1 << 16);
  pollfd one{channel.fd(), POLLIN, 0};
  while (::poll(&one, 1, kQuietMilliseconds) > 0) {
    std::size_t length = 0;
    (void)channel.read(buffer.data(), buffer.size(), &length);
  }
}

/// What is set up before the recording begins, and the changes that are recorded.
struct Scene {
  std::vector<std::string> before;
  std::vector<std::string> changes;  ///< commands for ip, or "carrier 0" and "carrier 1" for the tap
};

std::vector<std::string> bridgeOfThree() {
  std::vector<std::string> commands{"link add br0 type bridge", "link set br0 up"};
  for (const std::string n : {"0", "1", "2"}) {
    for (const std::string command : {"link add nic# type veth peer name peer#", "link set nic# master br0",
                                      "link set nic# up", "link set peer# up"}) {
      commands.push_back(std::regex_replace(command, std::regex("#"), n));
    }
  }
  return commands;
}

std::map<std::string, Scene> scenes() {
  const std::vector<std::string> pair{"link add nic0 type veth peer name peer0", "link set peer0 up"};
  std::map<std::string, Scene> all;
  all["set-up"] = {pair, {"link set nic0 up"}};
  all["three-uplinks"] = {bridgeOfThree(),
                          {"link set peer0 down", "link set peer1 down", "link set peer2 down", "link set peer0 up",
                           "link set peer1 up", "link set peer2 up"}};
  all["bridge-port"] = {{"link add br0 type bridge", "link set br0 up", pair[0], pair[1], "link set nic0 up"},
                        {"link set nic0 master br0", "link set nic0 nomaster"}};
  all["rename"] = {bridgeOfThree(),
                   {"link set nic1 down", "link set nic1 name uplink1", "link set uplink1 up", "link set peer1 down"}};
  all["vanish"] = {bridgeOfThree(), {"link del nic1"}};
  all["tap"] = {{"link add br0 type bridge", "link set br0 up"},
                {"link set tap0 master br0", "link set tap0 up", "carrier 0", "carrier 1"}};
  return all;
}

void play(const std::string& file, const Scene& scene) {
  const support::NetNamespace ns;
  if (!ns.refusal().empty()) throw std::runtime_error(ns.refusal());
  const support::Tap tap("tap0");
  std::vector<Frame> frames;
  for (const std::string& command : scene.before) ip(command);
  auto channel = platform::LinksChannel::open(std::make_shared<RecordingNetlink>(frames), {});
  if (!channel.ok()) throw std::runtime_error("no channel");
  untilQuiet(*channel.value);
  for (const std::string& command : scene.changes) {
    if (command.starts_with("carrier ")) {
      tap.setCarrier(command.ends_with('1'));
    } else {
      ip(command);
    }
    untilQuiet(*channel.value);
  }
  linktest::writeRecording(file, frames);
  std::printf("%s: %zu datagrams\n", file.c_str(), frames.size());
}

}  // namespace

int main(int count, char** words) {
  if (count != 2) {
    std::fputs("usage: recordLinks DIRECTORY\n", stderr);
    return 2;
  }
  try {
    for (const auto& [name, scene] : scenes()) play(std::string(words[1]) + "/" + name + ".bin", scene);
  } catch (const std::exception& trouble) {
    std::fprintf(stderr, "recordLinks: %s\n", trouble.what());
    return 1;
  }
  return 0;
}
