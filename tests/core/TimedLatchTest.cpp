// TimedLatch: countdowns and their expiries, close, a failing trigger callback, and a trigger
// racing a running expiry. Timing is only checked from below (an expiry never comes before a
// full period after the last trigger); counts and order carry the rest.
#include "CoreTestSupport.h"
#include "core/execution/TimedLatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace storage::overlayprovider {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Records when each call came. waitFor waits at most 10 s, so that a missing call fails the
// test instead of hanging it.
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

// Two triggers: the second after pauseMs, or (pauseMs < 0) once the first countdown expired.
struct CountdownCase {
  const char* name;
  std::int64_t periodMs;
  int pauseMs;
  std::size_t expiries;
};
void PrintTo(const CountdownCase& c, std::ostream* out) { *out << c.name; }

struct TimedLatchCountdownTest : ::testing::TestWithParam<CountdownCase> {};

TEST_P(TimedLatchCountdownTest, ExpiresOnceAFullPeriodAfterTheLastTrigger) {
  const CountdownCase& c = GetParam();
  Calls triggers, expiries;
  TimedLatch latch([&] { triggers.add(); }, [&] { expiries.add(); }, c.periodMs);
  latch.trigger();
  if (c.pauseMs >= 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(c.pauseMs));
  } else {
    ASSERT_TRUE(expiries.waitFor(1)) << "the first countdown never expired";
  }
  latch.trigger();
  ASSERT_TRUE(expiries.waitFor(c.expiries)) << "the last countdown never expired";
  // Long enough for another expiry, if one were still to come.
  std::this_thread::sleep_for(std::chrono::milliseconds(std::max<std::int64_t>(c.periodMs, 0)) +
                              300ms);
  latch.close();
  EXPECT_EQ(expiries.count(), c.expiries);
  // The trigger callback runs before the countdown restarts, so its time bounds the expiry.
  const auto triggered = triggers.times();
  for (const auto expiry : expiries.times()) {
    const auto after = std::upper_bound(triggered.begin(), triggered.end(), expiry);
    ASSERT_NE(after, triggered.begin()) << "an expiry before any trigger";
    EXPECT_GE(expiry - *std::prev(after), std::chrono::milliseconds(c.periodMs));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TimedLatchCountdownTest,
    ::testing::Values(CountdownCase{"RetriggerRestartsTheCountdown", 200, 100, 1},
                      CountdownCase{"RetriggerAfterExpiryExpiresAgain", 50, -1, 2},
                      CountdownCase{"ZeroPeriodExpiresAfterEachTrigger", 0, -1, 2},
                      CountdownCase{"NegativePeriodRunsOutAtOnce", -5, -1, 2}),
    ::testing::PrintToStringParamName());

// However the latch is closed, a pending countdown never expires and later triggers call
// nothing; closing again is harmless.
struct TimedLatchCloseTest : ::testing::TestWithParam<const char*> {};

TEST_P(TimedLatchCloseTest, CancelsTheCountdownAndRefusesLaterTriggers) {
  const std::string by = GetParam();
  Calls triggers, expiries;
  auto latch = std::make_unique<TimedLatch>([&] { triggers.add(); }, [&] { expiries.add(); }, 200);
  latch->trigger();
  if (by == "Destructor") {
    latch.reset();
  } else if (by == "AnotherThread") {
    std::thread([&] { latch->close(); }).join();
  } else {
    latch->close();
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
                         ::testing::Values("Close", "AnotherThread", "Destructor"),
                         [](const auto& info) { return std::string(info.param); });

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
// the countdown it starts expires once more. (No ASSERT before the release: the blocked
// expiry must always be let go.)
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
  latch.trigger();
  EXPECT_EQ(expiryEntered.get_future().wait_for(10s), std::future_status::ready);
  std::size_t expiriesWhenReturned = 0;
  coretest::Background second([&] {
    latch.trigger();
    expiriesWhenReturned = expiries.count();
  });
  EXPECT_TRUE(triggers.waitFor(2));  // its callback runs at once, while the expiry is blocked
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(second.returned()) << "the trigger returned while the expiry was still running";
  EXPECT_EQ(expiries.count(), 0u);
  releaseExpiry.set_value();
  second.finish("the trigger once the expiry was let go");
  EXPECT_GE(expiriesWhenReturned, 1u) << "the trigger returned before the running expiry did";
  EXPECT_TRUE(expiries.waitFor(2)) << "the restarted countdown never expired";
  latch.close();
  EXPECT_EQ(expiries.count(), 2u);
}

}  // namespace
}  // namespace storage::overlayprovider
