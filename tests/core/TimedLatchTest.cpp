// TimedLatch: countdowns and their expiries, close, a failing trigger callback, and a trigger
// racing a running expiry. Timing is only checked from below (an expiry never comes before a
// full period after the last trigger); counts and order carry the rest.
#include "core/execution/TimedLatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace storage::overlayprovider {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Records when each call came and lets the test wait for a given count (at most 10 s, so a
// missing call fails the test instead of hanging it).
class Calls {
 public:
  void add() {
    std::lock_guard lock(mutex_);
    times_.push_back(Clock::now());
    changed_.notify_all();
  }
  bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return times_.size() >= count; });
  }
  std::vector<Clock::time_point> times() {
    std::lock_guard lock(mutex_);
    return times_;
  }
  std::size_t count() { return times().size(); }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Clock::time_point> times_;
};

// A row is a script: trigger, pause, or wait until the latch has expired n times in all.
struct Step {
  enum { Trigger, Pause, AwaitExpiries } what;
  int value = 0;  // ms to pause, or expiries to wait for
};
constexpr Step kTrigger{Step::Trigger};
constexpr Step pause(int ms) { return {Step::Pause, ms}; }
constexpr Step awaitExpiries(int n) { return {Step::AwaitExpiries, n}; }

struct CountdownCase {
  const char* name;
  std::int64_t periodMs;
  std::vector<Step> script;
  std::size_t expiries;  // in all, once everything has settled
};
void PrintTo(const CountdownCase& c, std::ostream* out) { *out << c.name; }

struct TimedLatchCountdownTest : ::testing::TestWithParam<CountdownCase> {};

TEST_P(TimedLatchCountdownTest, ExpiresOnceAFullPeriodAfterTheLastTrigger) {
  const CountdownCase& c = GetParam();
  Calls triggers, expiries;
  TimedLatch latch([&] { triggers.add(); }, [&] { expiries.add(); }, c.periodMs);
  std::size_t triggered = 0;
  for (const Step& step : c.script) {
    if (step.what == Step::Trigger) {
      latch.trigger();
      ++triggered;
    } else if (step.what == Step::Pause) {
      std::this_thread::sleep_for(std::chrono::milliseconds(step.value));
    } else {
      ASSERT_TRUE(expiries.waitFor(step.value)) << "expiry " << step.value << " never came";
    }
  }
  // Long enough for any countdown still pending to have run out.
  std::this_thread::sleep_for(std::chrono::milliseconds(std::max<std::int64_t>(c.periodMs, 0)) +
                              300ms);
  latch.close();
  EXPECT_EQ(triggers.count(), triggered);
  const auto expired = expiries.times();
  EXPECT_EQ(expired.size(), c.expiries);
  // The trigger callback runs before the countdown restarts, so its time bounds it.
  const auto triggered_at = triggers.times();
  for (const auto expiry : expired) {
    std::optional<Clock::time_point> last;
    for (const auto at : triggered_at) {
      if (at <= expiry) last = at;
    }
    ASSERT_TRUE(last.has_value()) << "an expiry without a trigger";
    EXPECT_GE(expiry - *last, std::chrono::milliseconds(c.periodMs))
        << "expired before a full period had passed";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TimedLatchCountdownTest,
    ::testing::Values(
        CountdownCase{"RetriggerRestartsTheCountdown", 200, {kTrigger, pause(100), kTrigger}, 1},
        CountdownCase{"RetriggerAfterExpiryExpiresAgain",
                      50,
                      {kTrigger, awaitExpiries(1), kTrigger, awaitExpiries(2)},
                      2},
        CountdownCase{"ZeroPeriodExpiresAfterEachTrigger",
                      0,
                      {kTrigger, awaitExpiries(1), kTrigger, awaitExpiries(2)},
                      2},
        CountdownCase{"NegativePeriodRunsOutAtOnce", -5, {kTrigger, awaitExpiries(1)}, 1}),
    ::testing::PrintToStringParamName());

// However the latch is closed, a pending countdown never expires and later triggers call
// nothing; closing again is harmless.
enum class CloseBy { Close, AnotherThread, Destructor };
void PrintTo(CloseBy by, std::ostream* out) {
  *out << (by == CloseBy::Close           ? "Close"
           : by == CloseBy::AnotherThread ? "AnotherThread"
                                          : "Destructor");
}

struct TimedLatchCloseTest : ::testing::TestWithParam<CloseBy> {};

TEST_P(TimedLatchCloseTest, CancelsTheCountdownAndRefusesLaterTriggers) {
  Calls triggers, expiries;
  std::optional<TimedLatch> latch(
      std::in_place, [&] { triggers.add(); }, [&] { expiries.add(); }, 200);
  latch->trigger();
  switch (GetParam()) {
    case CloseBy::Close:
      latch->close();
      break;
    case CloseBy::AnotherThread:
      std::thread([&] { latch->close(); }).join();
      break;
    case CloseBy::Destructor:
      latch.reset();
      break;
  }
  if (latch) {
    latch->trigger();
    latch->close();
  }
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(triggers.count(), 1u);
  EXPECT_EQ(expiries.count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Cases, TimedLatchCloseTest,
                         ::testing::Values(CloseBy::Close, CloseBy::AnotherThread,
                                           CloseBy::Destructor),
                         ::testing::PrintToStringParamName());

TEST(TimedLatchTest, FailingTriggerCallbackReachesCallerAndStartsNoCountdown) {
  Calls expiries;
  TimedLatch latch([] { throw std::runtime_error("listener gone"); }, [&] { expiries.add(); }, 0);
  EXPECT_THROW(latch.trigger(), std::runtime_error);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(expiries.count(), 0u);
  TimedLatch empty(
      {}, [] {}, 0);
  EXPECT_THROW(empty.trigger(), std::bad_function_call);
}

// The listener may be paused by a trigger and resumed by an expiry that was already running:
// the trigger calls its callback at once but returns only once that expiry has returned, and
// the countdown it starts expires once more.
TEST(TimedLatchTest, TriggerDuringExpiryWaitsForItToReturn) {
  Calls triggers, expiries;
  std::promise<void> expiryEntered, releaseExpiry;
  std::shared_future<void> released = releaseExpiry.get_future().share();
  TimedLatch latch([&] { triggers.add(); },
                   [&] {
                     if (expiries.count() == 0) {
                       expiryEntered.set_value();
                       released.wait();
                     }
                     expiries.add();
                   },
                   50);
  std::future<std::size_t> second;
  // Whatever fails below, the blocked expiry is let go before `second` and the latch wait.
  struct Release {
    std::promise<void>& promise;
    bool done = false;
    void operator()() {
      if (!done) promise.set_value();
      done = true;
    }
    ~Release() { (*this)(); }
  } release{releaseExpiry};

  latch.trigger();
  ASSERT_EQ(expiryEntered.get_future().wait_for(10s), std::future_status::ready);
  second = std::async(std::launch::async, [&] {
    latch.trigger();
    return expiries.count();
  });
  EXPECT_TRUE(triggers.waitFor(2));  // its callback runs at once, while the expiry is blocked
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(second.wait_for(0s), std::future_status::timeout)
      << "the trigger returned while the expiry was still running";
  EXPECT_EQ(expiries.count(), 0u);
  release();
  if (second.wait_for(10s) != std::future_status::ready) {
    ADD_FAILURE() << "the trigger did not return within 10 s of the expiry";
    std::fflush(stdout);
    std::_Exit(1);  // a hung latch cannot be cleaned up; CTest runs each test on its own
  }
  EXPECT_GE(second.get(), 1u) << "the trigger returned before the running expiry did";
  EXPECT_TRUE(expiries.waitFor(2)) << "the restarted countdown never expired";
  latch.close();
  EXPECT_EQ(expiries.count(), 2u);
}

}  // namespace
}  // namespace storage::overlayprovider
