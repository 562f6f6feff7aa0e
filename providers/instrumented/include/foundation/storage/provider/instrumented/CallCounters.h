// CallCounters: how many times each public operation of an InstrumentedProvider (and of
// the streams it opened) was called, keyed by the operation's name ("createFile",
// "listAllRecursive", "streamRead", ...), in total and per calling thread. The per-thread
// counts let a test tell the calls a caller waited for from those a background worker made
// (an overlay's replay, say), which the totals alone cannot.
//
// Ownership: held by Instrumentation, shared by the provider and its streams.
// Locks: one mutex of its own, held only inside each call. Thread safety: any thread; a call
// is counted under the id of the thread that made it.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace foundation::storage::provider::instrumented {

class CallCounters {
 public:
  using Counts = std::map<std::string, std::uint64_t, std::less<>>;

  // Counts one call of `operation` on the calling thread.
  void increment(std::string_view operation);
  // 0 for an operation never called since the last reset.
  std::uint64_t count(std::string_view operation) const;
  std::uint64_t total() const;
  Counts snapshot() const;
  // The calls made on `thread` since the last reset, and those made on every other thread.
  Counts snapshotOn(std::thread::id thread) const;
  Counts snapshotExcept(std::thread::id thread) const;
  void reset();

 private:
  mutable std::mutex mutex_;
  Counts counts_;
  // The C library hands the id of an ended thread to the next one it starts, so in practice
  // this holds about as many threads as ever ran at once, not every one ever started.
  std::map<std::thread::id, Counts> byThread_;
};

}  // namespace foundation::storage::provider::instrumented
