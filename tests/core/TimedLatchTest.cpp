// TimedLatch: restarts, expiry, close, and a trigger racing a running expiry.
#include "core/execution/TimedLatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace storage::overlayprovider {
namespace {

using namespace std::chrono_literals;

// Counts calls and lets the test wait for a given count.
class Counter {
 public:
  void bump() {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  void waitFor(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return count_ >= count; });
  }
  int value() {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

TEST(TimedLatchTest, RetriggerRestartsCountdownSoExpiryRunsOnce) {
  Counter triggers, expiries;
  TimedLatch latch([&] { triggers.bump(); }, [&] { expiries.bump(); }, 1000);
  const auto start = std::chrono::steady_clock::now();
  latch.trigger();
  latch.trigger();
  expiries.waitFor(1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 1000ms);
  latch.close();
  EXPECT_EQ(triggers.value(), 2);
  EXPECT_EQ(expiries.value(), 1);
}

TEST(TimedLatchTest, ZeroPeriodExpiresAfterEveryTrigger) {
  Counter expiries;
  TimedLatch latch([] {}, [&] { expiries.bump(); }, 0);
  latch.trigger();
  expiries.waitFor(1);
  latch.trigger();
  expiries.waitFor(2);
  latch.close();
  EXPECT_EQ(expiries.value(), 2);
}

TEST(TimedLatchTest, CloseCancelsCountdownAndRefusesLaterTriggers) {
  Counter triggers, expiries;
  TimedLatch latch([&] { triggers.bump(); }, [&] { expiries.bump(); }, 60000);
  latch.trigger();
  latch.close();
  latch.trigger();
  latch.close();
  EXPECT_EQ(triggers.value(), 1);
  EXPECT_EQ(expiries.value(), 0);
}

TEST(TimedLatchTest, FailingTriggerCallbackDoesNotStartCountdown) {
  Counter expiries;
  TimedLatch latch([] { throw std::runtime_error("listener gone"); }, [&] { expiries.bump(); }, 0);
  EXPECT_THROW(latch.trigger(), std::runtime_error);
  latch.close();  // would have joined a countdown that had run its expiry
  EXPECT_EQ(expiries.value(), 0);
  TimedLatch empty(
      {}, [] {}, 0);
  EXPECT_THROW(empty.trigger(), std::bad_function_call);
}

TEST(TimedLatchTest, TriggerDuringExpiryWaitsForItToReturn) {
  Counter triggers, expiries;
  std::promise<void> expiryEntered, releaseExpiry;
  std::shared_future<void> released = releaseExpiry.get_future().share();
  TimedLatch latch([&] { triggers.bump(); },
                   [&] {
                     if (expiries.value() == 0) {
                       expiryEntered.set_value();
                       released.wait();
                     }
                     expiries.bump();
                   },
                   0);
  latch.trigger();
  expiryEntered.get_future().wait();

  std::atomic<bool> secondReturned{false};
  std::thread second([&] {
    latch.trigger();
    secondReturned = true;
  });
  triggers.waitFor(2);  // its callback runs at once, while the expiry is still blocked
  EXPECT_FALSE(secondReturned);
  EXPECT_EQ(expiries.value(), 0);
  releaseExpiry.set_value();
  second.join();
  expiries.waitFor(2);  // the restarted countdown expires again
  latch.close();
}

}  // namespace
}  // namespace storage::overlayprovider
