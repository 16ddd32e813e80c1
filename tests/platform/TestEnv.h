// A scratch directory and environment changes that a test undoes when it ends.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "TestUtil.h"

namespace tqtest {

class TestEnv {
 public:
  TestEnv() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "tqplatformXXXXXX").string();
    EXPECT_NE(mkdtemp(tmpl.data()), nullptr);
    dir_ = tmpl;
  }
  ~TestEnv() {
    restore();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  TestEnv(const TestEnv&) = delete;
  const std::filesystem::path& dir() const { return dir_; }

  // Sets (or with null, removes) a variable until restore() or the end.
  void set(const char* name, const char* value) {
    const char* old = getenv(name);
    saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  // Newest first, so a variable set twice gets its first old value back.
  void restore() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it)
      it->second ? setenv(it->first.c_str(), it->second->c_str(), 1) : unsetenv(it->first.c_str());
    saved_.clear();
  }

 private:
  std::filesystem::path dir_;
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

}  // namespace tqtest
