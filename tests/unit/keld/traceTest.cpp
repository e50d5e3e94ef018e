#include "keldTrace.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "keldLog.h"
#include "manualTime.h"
#include "observation.h"
#include "platform/msgfmt.h"
#include "recordingPost.h"
#include "socketReceiver.h"

namespace {

using namespace std::chrono_literals;
using support::d;
using support::i;
using support::l;
using support::null;
using support::rawRecord;
using support::s;
using support::u;

constexpr WallTime kRendered{1'767'225'600'000'000'042ns};

std::string render(const std::vector<char>& record, const char* direction = "IN") {
  Kel_RecordView view;
  EXPECT_TRUE(Kel_ViewRecord(record.data(), record.size(), &view));
  std::string line;
  keld::renderTraceLine(line, kRendered, direction, view.timestamp, view.id, view.arguments, view.argumentCount,
                        view.end);
  return line;
}

TEST(TraceLineTest, withoutArgumentsEndsInAComma) {
  EXPECT_EQ(render(rawRecord("kel.a.b")), "1767225600.000000042,IN,1767225600000000,kel.a.b,\n");
}

TEST(TraceLineTest, integersAreSignedDecimal) {
  EXPECT_EQ(render(rawRecord("kel.a", {i(-1), u(4294967295U), l(-5'000'000'000)})),
            "1767225600.000000042,IN,1767225600000000,kel.a,,-1,-1,-5000000000\n");
}

TEST(TraceLineTest, stringsAreQuotedAndTheirQuotesDoubled) {
  EXPECT_EQ(render(rawRecord("kel.a", {s("say \"x\"")})),
            "1767225600.000000042,IN,1767225600000000,kel.a,,\"say \"\"x\"\"\"\n");
}

TEST(TraceLineTest, aMissingStringIsShownAsNull) {
  EXPECT_EQ(render(rawRecord("kel.a", {null()})), "1767225600.000000042,IN,1767225600000000,kel.a,,\"(null)\"\n");
}

TEST(TraceLineTest, aFloatingPointArgumentIsUnknownAndTheNextStillAppear) {
  EXPECT_EQ(render(rawRecord("kel.a", {d(0.5), i(3)})), "1767225600.000000042,IN,1767225600000000,kel.a,,???,3\n");
}

TEST(TraceLineTest, theDocumentsWorkedExampleIsWhatIsRendered) {
  std::ifstream file(KELD_FORMATS_DIRECTORY "/trace-line.md");
  std::string line;
  while (std::getline(file, line) && line != "```csv") {
  }
  std::string in, out;
  ASSERT_TRUE(std::getline(file, in) && std::getline(file, out));

  constexpr std::uint64_t kStamp = 1'767'225'599'999'999;
  const auto asShown = [](const std::vector<char>& record, const char* direction) {
    Kel_RecordView view;
    EXPECT_TRUE(Kel_ViewRecord(record.data(), record.size(), &view));
    std::string rendered;
    keld::renderTraceLine(rendered, kRendered, direction, kStamp, view.id, view.arguments, view.argumentCount,
                          view.end);
    return rendered;
  };
  EXPECT_EQ(asShown(rawRecord("kel.net.pg.uplink.transition.down", {s("nic0"), s("Production"), i(1), i(2)}), "IN"),
            in + '\n');
  EXPECT_EQ(
      asShown(rawRecord("orn.problem.net.redundancy.lost", {s("switch0"), s("nic0"), s("\"Production\"")}), "OUT"),
      out + '\n');
}

std::string area(std::initializer_list<MsgFmt_Arg> entries) {
  std::string bytes;
  for (const MsgFmt_Arg& entry : entries) bytes.append(reinterpret_cast<const char*>(&entry), sizeof entry);
  return bytes;
}

TEST(TraceLineTest, pointerSizedValuesAreUnsignedDecimal) {
  const std::string bytes = area({{MSGFMT_ARG_PTR32, 0, 0xffffffff, {0, 0}}, {MSGFMT_ARG_PTR64, 0, ~0ULL, {0, 0}}});
  std::string line;
  keld::renderTraceLine(line, kRendered, "OUT", 7, "orn.x", bytes.data(), 2, bytes.data() + bytes.size());
  EXPECT_EQ(line, "1767225600.000000042,OUT,7,orn.x,,4294967295,18446744073709551615\n");
}

TEST(TraceLineTest, aStringThatCannotBeFetchedEndsTheArgumentsWithALogLine) {
  support::RecordingLog log;
  const std::string bytes =
      area({{MSGFMT_ARG_INT32, 0, 1, {0, 0}}, {MSGFMT_ARG_STRING8, 0, 5000, {0, 0}}, {MSGFMT_ARG_INT32, 0, 3, {0, 0}}});
  std::string line;
  keld::renderTraceLine(line, kRendered, "OUT", 7, "orn.x", bytes.data(), 3, bytes.data() + bytes.size());
  EXPECT_EQ(line, "1767225600.000000042,OUT,7,orn.x,,1\n");
  EXPECT_EQ(log.take(), std::vector<std::string>{"Invalid argument in kel with ID orn.x"});
}

std::string historyOf(const keld::TraceHistory& history) {
  std::string text;
  history.copyTo(text);
  return text;
}

TEST(TraceHistoryTest, keepsTheNewestLinesUpToItsLimit) {
  keld::TraceHistory history;
  std::string all;
  for (int n = 0; n < 2048; ++n) {
    std::string line = std::to_string(n) + std::string(100, 'x');
    line.resize(99);
    line += '\n';
    history.append(line);
    all += line;
  }
  EXPECT_EQ(history.bytes(), 131072U / 100 * 100);
  EXPECT_EQ(historyOf(history), all.substr(all.size() - history.bytes()));
}

TEST(TraceHistoryTest, aTotalOfExactlyTheLimitStays) {
  keld::TraceHistory history;
  history.append(std::string(131'000, 'a'));
  history.append(std::string(72, 'b'));
  EXPECT_EQ(history.bytes(), 131'072U);
  history.append("c");
  EXPECT_EQ(historyOf(history), std::string(72, 'b') + "c");
}

TEST(TraceHistoryTest, aLineOverTheLimitEmptiesIt) {
  keld::TraceHistory history;
  history.append("first\n");
  history.append(std::string(131'073, 'x'));
  EXPECT_EQ(historyOf(history), "");
  history.append("next\n");
  EXPECT_EQ(historyOf(history), "next\n");
}

class TraceServerTest : public testing::Test {
 protected:
  void SetUp() override {
    std::signal(SIGPIPE, SIG_IGN);  // as the daemon has it
    listener = keld::TraceServer::Trace_Listen(path.c_str());
    ASSERT_GE(listener, 0);
  }
  void TearDown() override { close(listener); }

  int connectClient() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    server->Trace_Accept(listener);
    return fd;
  }
  /// Exactly `size` bytes from a client's socket, or what came before half a minute was over.
  static std::string receive(int fd, std::size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
      pollfd set{fd, POLLIN, 0};
      char part[4096];
      if (poll(&set, 1, 30'000) != 1) break;
      const ssize_t got = read(fd, part, std::min(sizeof part, size - bytes.size()));
      if (got <= 0) break;
      bytes.append(part, static_cast<std::size_t>(got));
    }
    return bytes;
  }

  support::TemporaryDirectory directory;
  std::string path = directory.path() + "/keld-trace.sock";
  support::ManualClock clock;
  // Never destroyed, as in the daemon: client threads are detached.
  static keld::TraceServer* keptServer(Clock& clock) {
    static auto* const kept = new std::vector<std::unique_ptr<keld::TraceServer>>;
    return kept->emplace_back(std::make_unique<keld::TraceServer>(clock)).get();
  }

  keld::TraceServer* server = keptServer(clock);
  int listener = -1;
};

TEST_F(TraceServerTest, aClientGetsTheHistoryABlankLineAndThenLiveLines) {
  server->Trace_AddLine("one\n");
  server->Trace_AddLine("two\n");
  const int client = connectClient();
  EXPECT_EQ(receive(client, 9), "one\ntwo\n\n");
  server->Trace_AddLine("three\n");
  EXPECT_EQ(receive(client, 6), "three\n");
  close(client);
}

TEST_F(TraceServerTest, everyClientGetsEveryLine) {
  const int first = connectClient();
  const int second = connectClient();
  EXPECT_EQ(receive(first, 1), "\n");
  EXPECT_EQ(receive(second, 1), "\n");
  server->Trace_AddLine("line\n");
  EXPECT_EQ(receive(first, 5), "line\n");
  EXPECT_EQ(receive(second, 5), "line\n");
  close(first);
  close(second);
}

TEST_F(TraceServerTest, whatAClientWritesIsDiscarded) {
  const int client = connectClient();
  EXPECT_EQ(receive(client, 1), "\n");
  ASSERT_EQ(write(client, "hello", 5), 5);
  server->Trace_AddLine("line\n");
  EXPECT_EQ(receive(client, 5), "line\n");
  close(client);
}

TEST_F(TraceServerTest, aClientThatLeavesIsForgottenWithoutALogLine) {
  support::RecordingLog log;
  const int gone = connectClient();
  EXPECT_EQ(receive(gone, 1), "\n");
  close(gone);
  const int stays = connectClient();
  EXPECT_EQ(receive(stays, 1), "\n");
  server->Trace_AddLine("line\n");
  EXPECT_EQ(receive(stays, 5), "line\n");
  close(stays);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(TraceServerTest, aClientThatReadsNoMoreEndsItsWriterWithoutALogLineAndOthersAreServed) {
  support::RecordingLog log;
  const auto waitForWriters = [](int wanted) {
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    int count = -1;
    while (count != wanted && std::chrono::steady_clock::now() < deadline) {
      count = 0;
      for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream file(task.path() / "comm");
        if (std::getline(file, name) && name == "trace-writer") ++count;
      }
    }
    return count == wanted;
  };
  const int stays = connectClient();
  const int leaves = connectClient();
  EXPECT_EQ(receive(stays, 1), "\n");
  EXPECT_EQ(receive(leaves, 1), "\n");
  ASSERT_TRUE(waitForWriters(2));
  ASSERT_EQ(shutdown(leaves, SHUT_RD), 0);
  server->Trace_AddLine("line\n");
  EXPECT_TRUE(waitForWriters(1));
  EXPECT_EQ(receive(stays, 5), "line\n");
  EXPECT_TRUE(log.take().empty());
  close(leaves);
  close(stays);
}

TEST_F(TraceServerTest, aClientIsTurnedAwayWithALogLineWhenDescriptorsHaveRunOut) {
  support::RecordingLog log;
  const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  // The sanitizer needs descriptors of its own for the first call of an object's kind.
  keld::Log("warm\n");
  log.take();
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  // The lowest free number is the next one to be given.
  const int next = dup(client);
  ASSERT_GE(next, 0);
  close(next);
  rlimit none = before;
  none.rlim_cur = static_cast<rlim_t>(next);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  server->Trace_Accept(listener);
  pollfd queue{listener, POLLIN, 0};
  const int waiting = poll(&queue, 1, 0);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(waiting, 0) << "the listener would keep the main loop busy";
  EXPECT_EQ(log.take(), std::vector<std::string>{"Trace accept() failed: Too many open files"});
  EXPECT_EQ(receive(client, 1), "");
  close(client);
  const int another = connectClient();
  EXPECT_EQ(receive(another, 1), "\n");
  close(another);
}

TEST_F(TraceServerTest, theSocketIsTheOwnersOnly) {
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(TraceServerTest, aPathOf108CharactersIsRefusedAnd107Fits) {
  const std::string longest = directory.path() + "/" + std::string(106 - directory.path().size(), 'p');
  ASSERT_EQ(longest.size(), 107U);
  const int fd = keld::TraceServer::Trace_Listen(longest.c_str());
  EXPECT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(keld::TraceServer::Trace_Listen((longest + "p").c_str()), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(TraceServerTest, aRawObservationIsTracedAsIn) {
  server->Trace_Observation(rawRecord("kel.a", {i(1)}).data(), rawRecord("kel.a", {i(1)}).size());
  const int client = connectClient();
  const std::string expected = "1767225600.000000000,IN,1767225600000000,kel.a,,1\n\n";
  EXPECT_EQ(receive(client, expected.size()), expected);
  close(client);
}

}  // namespace
