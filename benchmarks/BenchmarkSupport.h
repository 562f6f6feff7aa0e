// Small pieces shared by the benchmark programs: elapsed seconds, printf-style formatting for
// their tables, and a temporary directory removed with its owner. Single-threaded use.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace benchsupport {

inline double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

std::string format(const char* pattern, auto... values) {
  char text[256];
  std::snprintf(text, sizeof text, pattern, values...);
  return text;
}

// A fresh directory "<temp>/<prefix>-XXXXXX", removed when the object goes.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix) {
    std::string pattern = std::filesystem::temp_directory_path() / (prefix + "-XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace benchsupport
