#include "hexdump.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

std::string documentedBytes(const std::string& document) {
  std::ifstream file(KELD_FORMATS_DIRECTORY "/" + document);
  EXPECT_TRUE(file.is_open()) << document;
  std::string line;
  while (std::getline(file, line) && line != "```hexdump") {
  }
  std::string bytes;
  while (std::getline(file, line) && line != "```") {
    EXPECT_EQ(std::stoul(line.substr(0, line.find(':')), nullptr, 16), bytes.size()) << line;
    const std::size_t colon = line.find(':');
    std::istringstream row(line.substr(colon + 1, line.find('|') - colon - 1));
    for (std::string byte; row >> byte;) bytes.push_back(static_cast<char>(std::stoul(byte, nullptr, 16)));
  }
  EXPECT_FALSE(bytes.empty()) << document;
  return bytes;
}
