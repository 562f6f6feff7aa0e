// Latency: the delays an InstrumentedProvider adds to make a fast store behave like a slow
// or remote one: one before every provider call that would cross the network, another before
// every call on a stream it opened. Both can be changed at any time, also while calls are
// running (atomics; a call uses the value it read when it started). Zero (the default) adds
// no delay.
//
// It also counts the delays it actually applied (a call made while the delay is zero is not
// counted), so that a test can tell which calls were delayed without timing them.
//
// Ownership: held by Instrumentation, shared by the provider and its streams.
// Locks: none. Thread safety: any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace foundation::storage::provider::instrumented {

class Latency {
 public:
  void setCallDelay(std::chrono::microseconds delay) { callDelay_.store(delay.count()); }
  void setStreamDelay(std::chrono::microseconds delay) { streamDelay_.store(delay.count()); }
  std::chrono::microseconds callDelay() const {
    return std::chrono::microseconds(callDelay_.load());
  }
  std::chrono::microseconds streamDelay() const {
    return std::chrono::microseconds(streamDelay_.load());
  }
  // Sleep the calling thread for the current delay.
  void beforeCall() { wait(callDelay(), callDelaysApplied_); }
  void beforeStreamCall() { wait(streamDelay(), streamDelaysApplied_); }

  // How many non-zero delays of each kind were applied since construction.
  std::uint64_t callDelaysApplied() const { return callDelaysApplied_.load(); }
  std::uint64_t streamDelaysApplied() const { return streamDelaysApplied_.load(); }

 private:
  static void wait(std::chrono::microseconds delay, std::atomic<std::uint64_t>& applied);

  std::atomic<std::chrono::microseconds::rep> callDelay_{0};
  std::atomic<std::chrono::microseconds::rep> streamDelay_{0};
  std::atomic<std::uint64_t> callDelaysApplied_{0};
  std::atomic<std::uint64_t> streamDelaysApplied_{0};
};

}  // namespace foundation::storage::provider::instrumented
