// Helpers shared by the libFuzzer targets of this folder: a reader that decodes operations
// from the fuzzer's bytes, and the check that turns a broken property into a crash libFuzzer
// records (with the input that caused it).
//
// Ownership: plain values over the fuzzer's buffer, which outlives one LLVMFuzzerTestOneInput
// call. Locks and threads: none; libFuzzer calls a target on one thread.
#pragma once

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

}  // namespace fuzzsupport
