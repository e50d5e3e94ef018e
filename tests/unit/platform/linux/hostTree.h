// A machine's files in a temporary directory, laid out as the kernel lays them out, links included.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "linux/linuxRoots.h"

namespace linktest {

/// Waits until `condition` holds, for a minute at most.
bool soon(const std::function<bool()>& condition);

/// What the tests of the Linux host's facts and actions share: a tree to fill, directories of the
/// instance beside it, and the audit trail.
class HostTree : public testing::Test {
 public:
  HostTree();
  ~HostTree() override;

 protected:
  struct AuditRecord {
    std::string record;
    std::string text;
    bool operator==(const AuditRecord&) const = default;
  };

  void write(const std::string& name, const std::string& text) const;
  [[nodiscard]] std::string read(const std::string& name) const;
  void remove(const std::string& name) const;
  /// A symbolic link to a file of the tree, relative as the kernel's are.
  void link(const std::string& name, const std::string& target) const;

  /// A SCSI disk at an address such as "2:0:0:1".
  void scsiDisk(const std::string& name, const std::string& number, const std::string& address,
                const std::string& state = "running") const;
  /// A disk of another bus, as a child of the hardware at `parent` (under sys/devices).
  void disk(const std::string& name, const std::string& number, const std::string& parent) const;
  /// A device of no hardware: loop, RAM or device-mapper.
  void virtualDisk(const std::string& name, const std::string& number) const;
  void partition(const std::string& disk, const std::string& name, const std::string& number, int which) const;
  void deviceMapper(const std::string& name, const std::string& number, const std::string& title,
                    const std::string& uuid, const std::vector<std::string>& slaves) const;
  /// Lines of mountinfo: "NUMBER ROOT POINT SOURCE [FILESYSTEM]", ext4 where none is named.
  void mounts(const std::vector<std::string>& lines) const;

  [[nodiscard]] platform::LinuxRoots roots() const;
  [[nodiscard]] std::string path(const std::string& name) const { return directory_ + "/" + name; }
  [[nodiscard]] std::vector<AuditRecord> audit() const;
  /// Whether scripts can be run in the tree: not where it is on a file system that is mounted noexec.
  [[nodiscard]] bool runsScripts() const;
  /// From here on no audit record can be written.
  void breakAudit() const;

 private:
  [[nodiscard]] std::string deviceDirectory(const std::string& block) const;
  void announce(const std::string& block, const std::string& number, const std::string& directory) const;

  std::string directory_;
};

}  // namespace linktest
