// Helpers shared by the libFuzzer targets of this folder: a reader that decodes operations
// from the fuzzer's bytes, the check that turns a broken property into a crash libFuzzer
// records (with the input that caused it), and a scratch directory removed at exit.
//
// Ownership: plain values over the fuzzer's buffer, which outlives one LLVMFuzzerTestOneInput
// call. Locks and threads: none; libFuzzer calls a target on one thread.
#pragma once

#include <boost/filesystem.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace fuzzsupport {

// A property the code under test broke: says which, then aborts so libFuzzer saves the input.
[[noreturn]] inline void fail(const std::string& what) {
  std::fprintf(stderr, "property broken: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

inline void require(bool holds, const std::string& what) {
  if (!holds) fail(what);
}

// Reads the input front to back; past its end every value is 0 and every string empty, so a
// decoder never has to check lengths.
class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool empty() const { return offset_ >= size_; }
  std::uint8_t byte() { return empty() ? 0 : data_[offset_++]; }
  std::uint16_t u16() {
    const std::uint16_t low = byte();
    return static_cast<std::uint16_t>(low | (byte() << 8));
  }
  // Up to `count` raw bytes.
  std::string_view take(std::size_t count) {
    const std::size_t n = empty() ? 0 : std::min(count, size_ - offset_);
    const std::string_view out(reinterpret_cast<const char*>(data_) + offset_, n);
    offset_ += n;
    return out;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t offset_ = 0;
};

// A fresh directory under the system's temporary one, named after `prefix`, made on first use
// and removed when the process exits; with `asTemporaryDirectory` also the process's TMPDIR, so
// that what the code under test puts in "the temporary directory" stays in it.
inline const boost::filesystem::path& scratch(const char* prefix, bool asTemporaryDirectory) {
  struct Dir {
    Dir(const char* prefix, bool asTemporaryDirectory)
        : path(boost::filesystem::temp_directory_path() /
               boost::filesystem::unique_path(std::string(prefix) + "-%%%%%%%%")) {
      boost::filesystem::create_directories(path);
      if (asTemporaryDirectory) ::setenv("TMPDIR", path.c_str(), 1);
    }
    ~Dir() {
      boost::system::error_code ignored;
      boost::filesystem::remove_all(path, ignored);
    }
    boost::filesystem::path path;
  };
  static const Dir dir(prefix, asTemporaryDirectory);
  return dir.path;
}

}  // namespace fuzzsupport
