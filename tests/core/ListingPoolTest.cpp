// The listing pool: no more listings at once than its threads, and a caller that waits for a
// listing still queued runs it itself, so listings that wait for each other never hang on a
// full pool.
#include "core/metadata/ListingPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

namespace {

using storage::overlayprovider::ListingPool;
using storage::overlayprovider::ListingTask;

TEST(ListingPool, BoundedAndAWaiterNeverHangsBehindAFullPool) {
  struct Case {
    std::size_t threads;
    int listings;
    bool chained;  // each listing waits for the one submitted after it (a parent for its child)
  };
  for (const auto& c : {Case{2, 8, false}, Case{1, 4, true}, Case{3, 9, true}}) {
    SCOPED_TRACE(std::to_string(c.threads) + (c.chained ? " chained" : " plain"));
    std::atomic<int> running{0}, most{0}, ran{0};
    std::vector<std::shared_ptr<ListingTask>> tasks(c.listings);
    std::promise<void> submitted;
    auto allSubmitted = submitted.get_future().share();
    auto done = std::async(std::launch::async, [&] {
      ListingPool pool(c.threads);
      for (int i = 0; i < c.listings; ++i) {
        tasks[i] = pool.submit([&, i] {
          const int now = ++running;
          most = std::max(most.load(), now);
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
          allSubmitted.wait();
          --running;  // before waiting: a chained waiter runs the next one on this thread
          if (c.chained && i + 1 < c.listings) tasks[i + 1]->runOrWait();
          ++ran;
        });
      }
      submitted.set_value();
      for (auto& task : tasks) task->runOrWait();
    });
    if (done.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
      ADD_FAILURE() << "the listings hang";
      std::_Exit(1);  // the hung threads cannot be joined
    }
    EXPECT_EQ(ran.load(), c.listings);
    EXPECT_LE(most.load(), static_cast<int>(c.threads) + 1);  // + the caller, running one itself
  }
}

TEST(ListingPool, AListingTakenBackBeforeItStartsNeverRuns) {
  std::promise<void> release;
  auto released = release.get_future().share();
  ListingPool pool(1);
  auto blocker = pool.submit([released] { released.wait(); });
  std::atomic<bool> ran{false};
  auto queued = pool.submit([&ran] { ran = true; });
  queued->cancelOrWait();
  EXPECT_TRUE(queued->isDone());
  release.set_value();
  blocker->runOrWait();
  EXPECT_FALSE(ran.load());
}

}  // namespace
