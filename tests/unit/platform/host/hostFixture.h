// What the tests of the platform's host side share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "host/platformLog.h"
#include "modelHost.h"

/// Sets an environment variable, or unsets it, for one scope.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name) {
    if (const char* const before = std::getenv(name)) before_ = before;
    put(value);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;
  ~ScopedVariable() { put(before_ ? before_->c_str() : nullptr); }

 private:
  void put(const char* value) const {
    if (value != nullptr) {
      setenv(name_, value, 1);
    } else {
      unsetenv(name_);
    }
  }

  const char* name_;
  std::optional<std::string> before_;
};

/// A modelled host with directories of its own, and the platform's log lines in a vector.
class HostTest : public ::testing::Test {
 protected:
  [[nodiscard]] std::string statePath(const std::string& name) const { return model_.directory() + "/state/" + name; }

  void writeConf(const std::string& name, const std::string& text) const {
    std::ofstream(model_.directory() + "/conf/" + name) << text;
  }

  static std::string contentOf(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  support::ModelHost model_;
  std::vector<std::string> logged_;
  platform::ScopedPlatformLog log_{[this](const std::string& line) { logged_.push_back(line); }};
};
