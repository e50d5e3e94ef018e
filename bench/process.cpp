#include "process.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace bench {

namespace {

std::atomic<std::uint64_t> takenLogLines{0};

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

bool accepts(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf(path);
  const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

}  // namespace

std::int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

bool privateSystemLog() {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=755") != 0) return false;
  struct stat device {};
  if (null < 0 || fstat(null, &device) != 0 || mknod("/dev/null", S_IFCHR | 0666, device.st_rdev) != 0) return false;
  const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = addressOf("/dev/log");
  if (bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return false;
  std::thread([log] {
    char line[8192];
    while (recv(log, line, sizeof line, 0) >= 0) takenLogLines.fetch_add(1, std::memory_order_relaxed);
  }).detach();
  return true;
}

std::uint64_t logLines() {
  return takenLogLines.load();
}

EventSocket::EventSocket(const std::string& path, std::function<void(const std::string&)> take)
    : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), take_(std::move(take)) {
  const sockaddr_un address = addressOf(path);
  if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(fd_, 512) != 0) {
    throw std::runtime_error("cannot listen at " + path);
  }
  thread_ = std::thread([this] {
    std::string record;
    char part[32768];
    for (int connection = 0; (connection = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(connection)) {
      record.clear();
      for (ssize_t got = 0; (got = read(connection, part, sizeof part)) > 0;)
        record.append(part, static_cast<std::size_t>(got));
      take_(record);
    }
  });
}

EventSocket::~EventSocket() {
  shutdown(fd_, SHUT_RDWR);
  thread_.join();
  close(fd_);
}

Process::Process() : directory_((std::filesystem::temp_directory_path() / "keld-bench-XXXXXX").string()) {
  if (mkdtemp(directory_.data()) == nullptr) throw std::runtime_error("no temporary directory");
  for (const char* folder : {"/run/kel", "/state", "/conf"}) std::filesystem::create_directories(directory_ + folder);
  std::ofstream(directory_ + "/host.json") << "{}";
}

Process::~Process() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::int64_t Process::start(const std::string& program, const std::vector<std::string>& arguments) {
  std::vector<char*> words{const_cast<char*>(program.c_str())};
  for (const std::string& word : arguments) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  setenv("KORVEL_RUN_DIR", (directory_ + "/run").c_str(), 1);
  setenv("KORVEL_STATE_DIR", (directory_ + "/state").c_str(), 1);
  setenv("KORVEL_CONF_DIR", (directory_ + "/conf").c_str(), 1);
  setenv("KORVEL_HOST", ("model:" + directory_ + "/host.json").c_str(), 1);
  const std::int64_t begun = now();
  pid_ = fork();
  if (pid_ == 0) {
    execv(program.c_str(), words.data());
    std::perror(program.c_str());
    _exit(127);
  }
  while (!accepts(runDirectory() + "/keld-trace.sock")) {
    if (now() - begun > 10'000'000'000LL) throw std::runtime_error(program + " did not get ready");
    const timespec pause{0, 100'000};
    nanosleep(&pause, nullptr);
  }
  return now() - begun;
}

long Process::residentKiB() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

int Process::stop() {
  int status = 0;
  kill(pid_, SIGTERM);
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace bench
