// BackendExecutor: ordering, back-pressure, shutdown and its records.
#include "core/execution/BackendExecutor.h"

#include <foundation/log/LogCapture.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace storage::overlayprovider {
namespace {

using foundation::log::LogCapture;
using namespace std::chrono_literals;

// A task that holds the worker until released, so a test can queue behind it.
struct Stall {
  std::promise<void> started;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  bool isReleased = false;

  std::function<void()> task() {
    return [this] {
      started.set_value();
      released.wait();
    };
  }
  void unblock() {
    if (!isReleased) {
      isReleased = true;
      release.set_value();
    }
  }
};

struct BackendExecutorTest : ::testing::Test {
  std::atomic<int> activity{0};
  std::shared_ptr<IExecutor> executor =
      std::make_shared<BackendExecutor>([this] { ++activity; }, 10.0);
  Stall stall;
  std::mutex orderMutex;
  std::vector<int> order;

  std::function<void()> record(int id) {
    return [this, id] {
      std::lock_guard lock(orderMutex);
      order.push_back(id);
    };
  }
  void stallWorker() {
    executor->execute(stall.task(), FILE_WRITE, 6.0);
    stall.started.get_future().wait();
  }
  void TearDown() override {
    stall.unblock();
    if (!executor->isStopped()) {
      executor->shutdown(false);
    }
    executor->join();
  }
};

TEST_F(BackendExecutorTest, KeepsEachSubmittersOrder) {
  constexpr int kSubmitters = 4;
  constexpr int kTasks = 200;
  std::vector<std::thread> submitters;
  for (int s = 0; s < kSubmitters; ++s) {
    submitters.emplace_back([this, s] {
      for (int i = 0; i < kTasks; ++i) {
        executor->execute(record(s * kTasks + i), FILE_WRITE, 0.5);
      }
    });
  }
  for (auto& t : submitters) t.join();
  executor->waitForPendingToFinish();
  ASSERT_EQ(order.size(), std::size_t{kSubmitters * kTasks});
  std::vector<int> last(kSubmitters, -1);
  for (int id : order) {
    EXPECT_GT(id % kTasks, last[id / kTasks]) << "submitter " << id / kTasks << " reordered";
    last[id / kTasks] = id % kTasks;
  }
}

TEST_F(BackendExecutorTest, HoldsBackSubmitterOverWeightUntilNextTake) {
  stallWorker();  // taken, so its weight is given back
  executor->execute(record(1), FILE_WRITE, 6.0);
  executor->execute(record(2), FILE_WRITE, 6.0);  // 6 <= 10 before adding: accepted, now 12
  std::atomic<bool> thirdReturned{false};
  std::thread third([&] {
    executor->execute(record(3), FILE_WRITE, 6.0);
    thirdReturned = true;
  });
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(thirdReturned) << "12 > 10 must hold the third submitter back";
  executor->setMaxQueueWeight(100.0);
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(thirdReturned) << "a new bound is only seen at the next take";
  stall.unblock();
  third.join();
  executor->waitForPendingToFinish();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(BackendExecutorTest, ActivityCallbackOnlyWhenIdle) {
  const auto caller = std::this_thread::get_id();
  std::thread::id callbackThread;
  auto observed = std::make_shared<BackendExecutor>(
      [&] {
        callbackThread = std::this_thread::get_id();
        ++activity;
      },
      0.0);
  Stall local;
  // Whether this first submission finds the worker idle races with the worker's start (the
  // worker counts as busy while it waits for work), so only "at most once" is certain.
  observed->execute(local.task(), FILE_CREATION, 1.0);
  const int first = activity;
  EXPECT_LE(first, 1);
  if (first == 1) {
    EXPECT_EQ(callbackThread, caller);
  }
  local.started.get_future().wait();
  observed->execute([] {}, FILE_CLOSE, 1.0);  // worker busy: no new activity
  EXPECT_EQ(activity, first);
  local.unblock();
  observed->shutdown(false);
  observed->join();
}

TEST_F(BackendExecutorTest, FailingTasksNeitherStopWorkerNorCountAsCompleted) {
  executor->waitForPendingToFinish();
  const auto start = executor->lastCompletionTime();
  executor->execute([] { throw std::runtime_error("inner store down"); }, FILE_MOVE, 1.0);
  executor->execute({}, FILE_MOVE, 1.0);
  executor->waitForPendingToFinish();
  EXPECT_EQ(executor->lastCompletionTime(), start);
  executor->execute(record(7), FILE_MOVE, 1.0);
  executor->waitForPendingToFinish();
  EXPECT_EQ(order, std::vector<int>{7});
  const auto completed = executor->lastCompletionTime();
  EXPECT_GT(completed, start);
  executor->waitForPendingToFinish();  // markers are not completions
  EXPECT_EQ(executor->lastCompletionTime(), completed);
}

TEST_F(BackendExecutorTest, ShutdownDrainsQueuedTasks) {
  stallWorker();
  for (int i = 1; i <= 3; ++i) executor->execute(record(i), FILE_WRITE, 1.0);
  auto shutdown = std::async(std::launch::async, [this] { executor->shutdown(false); });
  stall.unblock();
  shutdown.get();
  executor->join();
  EXPECT_TRUE(executor->isStopped());
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(BackendExecutorTest, ShutdownWithCancelDiscardsQueuedTasks) {
  stallWorker();
  executor->execute(record(1), FILE_WRITE, 1.0);
  executor->execute(record(2), FILE_WRITE, 1.0);
  LogCapture capture;
  executor->shutdown(true);
  stall.unblock();
  executor->join();
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(capture.count("Cancelling outstanding", foundation::log::debug), 1u);
}

TEST_F(BackendExecutorTest, ExecuteAfterShutdownIsLoggedAndDropped) {
  executor->shutdown(false);
  executor->join();
  LogCapture capture;
  executor->execute(record(1), FILE_COPY, 1.0);
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].severity, foundation::log::error);
  EXPECT_EQ(records[0].message, "Attempted to execute task when no longer accepting.");
  EXPECT_EQ(records[0].channel, "storage::overlayprovider");
  EXPECT_EQ(records[1].severity, foundation::log::debug);
  EXPECT_EQ(records[1].message, "ObservableTransactionType: FILE_COPY");
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(activity, 0);
}

TEST(BackendExecutorLogTest, ReportsMaxWeightAtStartAndOnUpdate) {
  LogCapture capture;
  auto executor = std::make_shared<BackendExecutor>([] {}, 10.0);
  executor->setMaxQueueWeight(2.5);
  executor->shutdown(false);
  executor->join();
  EXPECT_EQ(capture.count("BackendExecutor initialized with a max queue weight of 10",
                          foundation::log::notice),
            1u);
  EXPECT_EQ(
      capture.count("Updating BackendExecutor max queue weight to 2.5", foundation::log::notice),
      1u);
}

TEST(BackendExecutorDeathTest, DestroyingWithoutJoinTerminates) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH({ std::make_shared<BackendExecutor>([] {}, 0.0).reset(); }, "");
}

}  // namespace
}  // namespace storage::overlayprovider
