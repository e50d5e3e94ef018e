#include "modelHost.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace support {

ModelHost::ModelHost(const std::string& json) {
  std::string pattern = (std::filesystem::temp_directory_path() / "keld-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
  directory_ = pattern;
  for (const auto& [variable, folder] : {std::pair{"KORVEL_RUN_DIR", "/run"}, std::pair{"KORVEL_STATE_DIR", "/state"},
                                         std::pair{"KORVEL_CONF_DIR", "/conf"}}) {
    std::filesystem::create_directories(directory_ + folder);
    setenv(variable, (directory_ + folder).c_str(), 1);
  }
  write(json);
  host_ = std::make_unique<platform::ScopedHost>(platform::makeHost("model:" + directory_ + "/host.json"));
}

ModelHost::~ModelHost() {
  host_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void ModelHost::write(const std::string& json) const {
  std::ofstream out(directory_ + "/host.json.new");
  out << json;
  out.close();
  std::filesystem::rename(directory_ + "/host.json.new", directory_ + "/host.json");
}

std::vector<std::string> ModelHost::actions() const {
  std::ifstream in(runDirectory() + "/host-actions.jsonl");
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace support
