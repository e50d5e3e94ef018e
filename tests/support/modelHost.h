// A modelled host in force for one test, with directories of its own.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/host.h"

namespace support {

/// Makes private run, state and configuration directories, sets the KORVEL_* variables to them, and
/// puts a model host in force whose file the test may rewrite at any time. Undone at the end.
class ModelHost {
 public:
  explicit ModelHost(const std::string& json = "{}");
  ModelHost(const ModelHost&) = delete;
  ModelHost& operator=(const ModelHost&) = delete;
  ~ModelHost();

  /// Replaces the model's file.
  void write(const std::string& json) const;
  /// The actions so far, one JSON line each.
  [[nodiscard]] std::vector<std::string> actions() const;
  [[nodiscard]] const std::string& directory() const { return directory_; }
  [[nodiscard]] std::string runDirectory() const { return directory_ + "/run"; }

 private:
  std::string directory_;
  std::unique_ptr<platform::ScopedHost> host_;
};

}  // namespace support
