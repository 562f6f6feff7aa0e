// Latency: the delays an InstrumentedProvider adds to make a fast store behave like a slow
// or remote one: one before every provider call, another before every call on a stream it
// opened. Both can be changed at any time, also while calls are running (atomics; a call
// uses the value it read when it started). Zero (the default) adds no delay.
//
// Ownership: held by Instrumentation, shared by the provider and its streams.
// Locks: none. Thread safety: any thread.
#pragma once

#include <atomic>
#include <chrono>

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
  void beforeCall() const { wait(callDelay()); }
  void beforeStreamCall() const { wait(streamDelay()); }

 private:
  static void wait(std::chrono::microseconds delay);

  std::atomic<std::chrono::microseconds::rep> callDelay_{0};
  std::atomic<std::chrono::microseconds::rep> streamDelay_{0};
};

}  // namespace foundation::storage::provider::instrumented
