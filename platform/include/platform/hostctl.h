// The host management library: the objects of a host that a correlator looks up by name.
//
// Look-ups are answered afresh each time and may be made from any thread. A failure is thrown as
// HostCtl::Lib::HostCtlException.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace HostCtl::Lib {

/// A failed query or action; `status()` is the platform's errno-style code.
class HostCtlException : public std::runtime_error {
 public:
  explicit HostCtlException(const std::string& text, int status = 5);
  [[nodiscard]] int status() const noexcept { return status_; }
  /// All that is known of the failure, in one line.
  [[nodiscard]] std::string GetDetailedMessage() const { return what(); }

 private:
  int status_;
};

}  // namespace HostCtl::Lib

namespace HostCtl::Network {

/// A named set of ports of one virtual switch.
class PortGroup {
 public:
  PortGroup(std::string name, std::string virtualSwitch);
  [[nodiscard]] const std::string& GetName() const noexcept { return name_; }
  [[nodiscard]] const std::string& GetVirtualSwitchName() const noexcept { return virtualSwitch_; }

 private:
  std::string name_;
  std::string virtualSwitch_;
};

class NetworkFactory {
 public:
  /// The port group of that name. Throws HostCtlException where there is none.
  static PortGroup GetPortGroupByName(const std::string& name);
};

}  // namespace HostCtl::Network

namespace HostCtl::Storage {

/// One way to a storage device.
class Path {
 public:
  explicit Path(std::string deviceName);
  [[nodiscard]] const std::string& GetDeviceName() const noexcept { return deviceName_; }

 private:
  std::string deviceName_;
};

/// A storage device as multipathing sees it.
class Device {
 public:
  explicit Device(std::uint32_t redundancyState);
  /// 0: not told; 1: no usable path is left; 2: one; 3: more.
  [[nodiscard]] std::uint32_t GetPathRedundancyState() const noexcept { return redundancyState_; }

 private:
  std::uint32_t redundancyState_;
};

class DiskLunPartition {
 public:
  explicit DiskLunPartition(std::uint32_t number);
  [[nodiscard]] std::uint32_t GetPartitionNumber() const noexcept { return number_; }

 private:
  std::uint32_t number_;
};

/// A logical unit of any kind.
class Lun {
 public:
  Lun() = default;
  Lun(const Lun&) = delete;
  Lun& operator=(const Lun&) = delete;
  virtual ~Lun() = default;
};

/// A logical unit that is a disk.
class DiskLun : public Lun {
 public:
  explicit DiskLun(std::vector<DiskLunPartition> partitions);
  /// In the order of the disk's table.
  [[nodiscard]] const std::vector<DiskLunPartition>& GetPartitions() const noexcept { return partitions_; }

 private:
  std::vector<DiskLunPartition> partitions_;
};

/// The storage of a host. Every look-up throws HostCtlException where the host cannot answer.
class StorageInfo {
 public:
  /// The path of that name, nullptr where there is none.
  [[nodiscard]] std::unique_ptr<Path> GetPath(const std::string& name) const;
  /// The device of that name, nullptr where there is none or its paths' state is not known. `flags`
  /// is 1: with the paths as they are now.
  [[nodiscard]] std::unique_ptr<Device> GetDevice(const std::string& name, int flags) const;
  /// The logical unit of that device, nullptr where there is none.
  [[nodiscard]] std::unique_ptr<Lun> GetLun(const std::string& deviceName) const;
  /// A path of a file system in the form that names its datastore; as it is where no form is known.
  [[nodiscard]] std::string GetDatastorePath(const std::string& path) const;
};

}  // namespace HostCtl::Storage

namespace HostCtl {

class Host {
 public:
  [[nodiscard]] Storage::StorageInfo GetStorageInfo() const;
};

class HostFactory {
 public:
  /// The host that this process runs on.
  static Host GetHost();
};

}  // namespace HostCtl
