#include "hostTree.h"

#include <sys/statvfs.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace linktest {

namespace fs = std::filesystem;

bool soon(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

HostTree::HostTree() {
  std::string pattern = (fs::temp_directory_path() / "hostTree-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
  directory_ = pattern;
  ::setenv("KORVEL_CONF_DIR", path("conf").c_str(), 1);
  ::setenv("KORVEL_STATE_DIR", path("state").c_str(), 1);
}

HostTree::~HostTree() {
  ::unsetenv("KORVEL_CONF_DIR");
  ::unsetenv("KORVEL_STATE_DIR");
  fs::remove_all(directory_);
}

void HostTree::write(const std::string& name, const std::string& text) const {
  const fs::path file = path(name);
  fs::create_directories(file.parent_path());
  std::ofstream(file) << text;
}

std::string HostTree::read(const std::string& name) const {
  std::ifstream file(path(name));
  return {std::istreambuf_iterator<char>(file), {}};
}

void HostTree::remove(const std::string& name) const {
  fs::remove_all(path(name));
}

void HostTree::link(const std::string& name, const std::string& target) const {
  const fs::path place = path(name);
  fs::create_directories(place.parent_path());
  fs::create_symlink(fs::path(path(target)).lexically_relative(place.parent_path()), place);
}

std::string HostTree::deviceDirectory(const std::string& block) const {
  return fs::canonical(path("sys/class/block/" + block)).lexically_relative(fs::canonical(directory_)).string();
}

void HostTree::announce(const std::string& block, const std::string& number, const std::string& directory) const {
  write(directory + "/dev", number + "\n");
  fs::create_directories(path(directory + "/holders"));
  fs::create_directories(path(directory + "/slaves"));
  link("sys/class/block/" + block, directory);
  link("sys/dev/block/" + number, directory);
}

void HostTree::disk(const std::string& name, const std::string& number, const std::string& parent) const {
  const std::string hardware = "sys/devices/" + parent;
  announce(name, number, hardware + "/block/" + name);
  link(hardware + "/block/" + name + "/device", hardware);
}

void HostTree::scsiDisk(const std::string& name, const std::string& number, const std::string& address,
                        const std::string& state) const {
  const std::string parent = "pci0000:00/0000:00:05.0/host2/target2:0:0/" + address;
  disk(name, number, parent);
  const std::string hardware = "sys/devices/" + parent;
  write(hardware + "/state", state + "\n");
  write(hardware + "/type", "0\n");
  fs::create_directories(path(hardware + "/scsi_device/" + address));
  link(hardware + "/scsi_device/" + address + "/device", hardware);
  link("sys/class/scsi_device/" + address, hardware + "/scsi_device/" + address);
}

void HostTree::virtualDisk(const std::string& name, const std::string& number) const {
  announce(name, number, "sys/devices/virtual/block/" + name);
}

void HostTree::partition(const std::string& disk, const std::string& name, const std::string& number, int which) const {
  const std::string directory = deviceDirectory(disk) + "/" + name;
  announce(name, number, directory);
  write(directory + "/partition", std::to_string(which) + "\n");
}

void HostTree::deviceMapper(const std::string& name, const std::string& number, const std::string& title,
                            const std::string& uuid, const std::vector<std::string>& slaves) const {
  virtualDisk(name, number);
  const std::string directory = deviceDirectory(name);
  write(directory + "/dm/name", title + "\n");
  write(directory + "/dm/uuid", uuid + "\n");
  for (const std::string& slave : slaves) {
    const std::string lower = deviceDirectory(slave);
    link(std::string(directory).append("/slaves/").append(slave), lower);
    link(std::string(lower).append("/holders/").append(name), directory);
  }
}

void HostTree::mounts(const std::vector<std::string>& lines) const {
  std::string text;
  int id = 20;
  for (const std::string& line : lines) {
    std::istringstream words(line);
    std::string number;
    std::string root;
    std::string point;
    std::string source;
    std::string fileSystem = "ext4";
    words >> number >> root >> point >> source;
    if (std::string last; words >> last) fileSystem = last;
    text.append(std::to_string(++id)).append(" 1 ").append(number).append(" ").append(root).append(" ").append(point);
    text.append(" rw,relatime shared:1 - ").append(fileSystem).append(" ").append(source).append(" rw\n");
  }
  write("proc/self/mountinfo", text);
}

platform::LinuxRoots HostTree::roots() const {
  return {.sys = path("sys"), .proc = path("proc"), .etc = path("etc"), .dev = path("dev"), .run = path("run")};
}

std::vector<HostTree::AuditRecord> HostTree::audit() const {
  std::vector<AuditRecord> records;
  std::ifstream file(path("state/audit.jsonl"));
  for (std::string line; std::getline(file, line);) {
    const auto json = nlohmann::json::parse(line);
    records.push_back({json.at("record"), json.at("text")});
  }
  return records;
}

bool HostTree::runsScripts() const {
  struct statvfs facts {};
  return ::statvfs(directory_.c_str(), &facts) == 0 && (facts.f_flag & ST_NOEXEC) == 0;
}

void HostTree::breakAudit() const {
  remove("state");
  write("state", "a file where the directory should be");
}

}  // namespace linktest
