// SPDX-License-Identifier: Apache-2.0

// A directory that lives as long as the test.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace skorra {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "skorra-XXXXXX").string();
    path_ = mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
  }
  ~TempDir() {
    if (!path_.empty()) {
      std::error_code ignored;
      std::filesystem::remove_all(path_, ignored);
    }
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The path of `name` in the directory.
  std::string operator/(const std::string& name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace skorra
