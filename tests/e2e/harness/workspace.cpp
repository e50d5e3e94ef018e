#include "workspace.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "deadline.h"

namespace e2e {

std::string fileContent(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  if (file) content << file.rdbuf();
  return content.str();
}

void replaceFile(const std::string& path, const std::string& content) {
  const std::string fresh = path + ".new";
  std::ofstream file(fresh, std::ios::binary);
  file << content;
  file.close();
  if (!file) throw HarnessError("cannot write " + fresh);
  std::filesystem::rename(fresh, path);
}

Workspace::Workspace() : root_("/tmp/keld-e2e.XXXXXX") {
  if (::mkdtemp(root_.data()) == nullptr) throwErrno("mkdtemp " + root_);
  for (const std::string& directory : {runDirectory(), confDirectory()}) {
    if (::mkdir(directory.c_str(), 0700) != 0) throwErrno("mkdir " + directory);
  }
  setModel("{}");
}

Workspace::~Workspace() {
  std::error_code ignored;  // a directory left behind is no reason to end the test program
  std::filesystem::remove_all(root_, ignored);
}

std::string Workspace::contextSocket(unsigned number) const {
  return runDirectory() + "/kel/async-" + (number < 10 ? "0" : "") + std::to_string(number) + ".sock";
}

void Workspace::setModel(const std::string& json) const {
  replaceFile(modelFile(), json);
}

void Workspace::setPlatformConf(const std::string& text) const {
  replaceFile(confDirectory() + "/platform.conf", text);
}

std::vector<std::string> Workspace::hostActions() const {
  std::istringstream content(fileContent(runDirectory() + "/host-actions.jsonl"));
  std::vector<std::string> lines;
  for (std::string line; std::getline(content, line);) lines.push_back(line);
  return lines;
}

}  // namespace e2e
