// Contexts of a run directory of their own, and clients that send what no library of ours would.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "host/platformLog.h"
#include "host/uniqueFd.h"
#include "kel/counters.h"
#include "modelHost.h"
#include "platform/kellib.h"
#include "records.h"

struct CloseContext {
  void operator()(KelLib_Handle context) const { EXPECT_EQ(KelLib_Close(context), 0); }
};
using Context = std::unique_ptr<KelLib_Context, CloseContext>;

/// What one KelLib_ReadFromFd gave.
struct ReadResult {
  int status = -1;
  records::Bytes bytes;
};

/// A connected socket of a client.
class Client {
 public:
  /// Connects; fails the test where that does not work.
  Client(int type, const std::string& path);

  [[nodiscard]] int fd() const { return fd_.get(); }
  /// Sends one message without waiting, perhaps with descriptors; fails the test where it does not go.
  void send(const records::Bytes& message, const std::vector<int>& passed = {}) const;
  /// Sends from a child process of another user. False, and the test is skipped, without root.
  [[nodiscard]] bool sendAsForeigner(const std::vector<records::Bytes>& messages) const;
  void close() { fd_.reset(); }

 private:
  platform::UniqueFd fd_;
};

class ContextTest : public ::testing::Test {
 protected:
  static Context openAsync(std::uint32_t number = 0);
  static Context openUser();
  static int fdOf(const Context& context);
  static ReadResult read(int fd, std::size_t capacity = 131072);
  static ReadResult read(const Context& context, std::size_t capacity = 131072) {
    return read(fdOf(context), capacity);
  }
  /// The poll events of a descriptor now.
  static int pollOf(int fd);
  /// Accepts the client that waits.
  static int accept(const Context& user);

  [[nodiscard]] std::string socketPath(const std::string& name) const {
    return host_.runDirectory() + "/kel/" + name + ".sock";
  }
  [[nodiscard]] Client injector(const std::string& name = "async-00") const;
  [[nodiscard]] Client service() const;

  support::ModelHost host_;
  std::vector<std::string> logged_;
  platform::ScopedPlatformLog log_{[this](const std::string& line) { logged_.push_back(line); }};
};

/// Permission bits of a file.
unsigned modeOf(const std::string& path);
