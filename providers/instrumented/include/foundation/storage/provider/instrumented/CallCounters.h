// CallCounters: how many times each public operation of an InstrumentedProvider (and of
// the streams it opened) was called, keyed by the operation's name ("createFile",
// "listAllRecursive", "streamRead", ...).
//
// Ownership: held by Instrumentation, shared by the provider and its streams.
// Locks: one mutex of its own, held only inside each call. Thread safety: any thread.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace foundation::storage::provider::instrumented {

class CallCounters {
 public:
  void increment(std::string_view operation);
  // 0 for an operation never called since the last reset.
  std::uint64_t count(std::string_view operation) const;
  std::uint64_t total() const;
  std::map<std::string, std::uint64_t, std::less<>> snapshot() const;
  void reset();

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::uint64_t, std::less<>> counts_;
};

}  // namespace foundation::storage::provider::instrumented
