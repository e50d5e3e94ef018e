// A directory of one test's own, with everything that its daemons keep and find.
#pragma once

#include <string>
#include <vector>

namespace e2e {

/// Made at construction, removed with all it holds at destruction. The path is short, as local
/// addresses need it.
class Workspace {
 public:
  Workspace();
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;
  ~Workspace();

  [[nodiscard]] const std::string& root() const { return root_; }
  /// The daemon makes these three directories itself where they are missing.
  [[nodiscard]] std::string runDirectory() const { return root_ + "/run"; }
  [[nodiscard]] std::string stateDirectory() const { return root_ + "/state"; }
  [[nodiscard]] std::string confDirectory() const { return root_ + "/conf"; }
  [[nodiscard]] std::string modelFile() const { return root_ + "/host.json"; }

  [[nodiscard]] std::string eventSocket() const { return runDirectory() + "/hagd-vprob.sock"; }
  [[nodiscard]] std::string traceSocket() const { return runDirectory() + "/keld-trace.sock"; }
  [[nodiscard]] std::string userSocket() const { return runDirectory() + "/kel/user.sock"; }
  [[nodiscard]] std::string contextSocket(unsigned number) const;

  /// Puts another model of the host in force; it is read afresh at each query.
  void setModel(const std::string& json) const;
  void setPlatformConf(const std::string& text) const;
  /// The lines of host-actions.jsonl; none where the file is missing.
  [[nodiscard]] std::vector<std::string> hostActions() const;

 private:
  std::string root_;
};

/// The whole content of a file; empty where it is missing.
std::string fileContent(const std::string& path);
/// Replaces a file in one step.
void replaceFile(const std::string& path, const std::string& content);

}  // namespace e2e
