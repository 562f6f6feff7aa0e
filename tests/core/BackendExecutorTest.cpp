// BackendExecutor and its WeightedTransactionQueue: ordering, back-pressure and the weight it
// keeps, shutdowns and flushes that must neither hang nor lose accepted work, the records, and
// the queue's statistics (driven directly, with the test thread as the worker).
#include "CoreTestSupport.h"
#include "core/execution/BackendExecutor.h"
#include "core/execution/CurrentReplay.h"
#include "core/execution/WeightedTransactionQueue.h"

#include <foundation/log/LogCapture.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace storage::overlayprovider {
namespace {

using boost::property_tree::ptree;
using coretest::Background;
using coretest::returnsInTime;
using foundation::log::LogCapture;
using foundation::log::notice;
using namespace std::chrono_literals;

// A task that holds the worker until released, so a test can queue behind it.
struct Stall {
  std::promise<void> started, release;
  std::shared_future<void> released = release.get_future().share();
  std::function<void()> task() {
    return [this] {
      started.set_value();
      released.wait();
    };
  }
  void unblock() {
    if (released.wait_for(0s) != std::future_status::ready) release.set_value();
  }
};

struct BackendExecutorTest : ::testing::Test {
  std::atomic<int> activity{0};
  std::shared_ptr<IExecutor> executor =
      std::make_shared<BackendExecutor>([this] { ++activity; }, 10.0);
  Stall stall;
  std::mutex orderMutex;
  std::vector<int> order;
  std::vector<std::uint64_t> serials;  // what each recording task saw as its queued change

  std::function<void()> record(int id) {
    return [this, id] {
      std::lock_guard lock(orderMutex);
      order.push_back(id);
      serials.push_back(CurrentReplay::serial());
    };
  }
  std::vector<int> ran() {
    std::lock_guard lock(orderMutex);
    return order;
  }
  // The stalled task is taken, so its weight is given back; then 6 + 6 waits: 12 > 10.
  void stallWorkerWithBacklogAboveBound() {
    executor->execute(stall.task(), FILE_WRITE, 6.0);
    stall.started.get_future().wait();
    executor->execute(record(1), FILE_WRITE, 6.0);
    executor->execute(record(2), FILE_WRITE, 6.0);  // 6 <= 10 before adding: accepted
  }
  void TearDown() override {
    stall.unblock();
    if (!executor->isStopped()) {
      returnsInTime([this] { executor->shutdown(false); }, "shutdown(false)");
    }
    returnsInTime([this] { executor->join(); }, "join");
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
  // One worker runs the queue in its order, and each task sees its own place in it.
  for (std::size_t i = 1; i < serials.size(); ++i) ASSERT_GT(serials[i], serials[i - 1]) << i;
  EXPECT_GT(serials.front(), 0u);
  EXPECT_EQ(CurrentReplay::serial(), 0u) << "the submitting thread replays nothing";
}

TEST_F(BackendExecutorTest, ActivityCallbackOnlyWhenIdle) {
  // Whether this first submission finds the worker idle races with the worker's start (the
  // worker counts as busy while it waits for work), so only "at most once" is certain.
  executor->execute(stall.task(), FILE_CREATION, 1.0);
  const int first = activity;  // called, if at all, on this thread before execute returned
  EXPECT_LE(first, 1);
  stall.started.get_future().wait();
  executor->execute([] {}, FILE_CLOSE, 1.0);  // worker busy: no new activity
  EXPECT_EQ(activity, first);
}

// With an absorption window an idle worker leaves a change queued long enough for a later one
// to make it moot, and a flush does not wait the window out.
TEST(BackendExecutorWindow, HoldsChangesForAbsorptionButNotAFlush) {
  BackendExecutor executor([] {}, 0.0, 1, true, std::chrono::minutes(10));
  std::atomic<int> ran{0};
  const auto change = [&](ChangeAction action, const std::u16string& path) {
    ReplayChange what(FILE_CREATION, action,
                      foundation::storage::provider::StorageIRI(u"overlay", path));
    return ReplayTask{what, [&](const ReplayChange&) { ++ran; }, [] {}, 1.0};
  };
  executor.submit(change(ChangeAction::CreateFile, u"/a"));
  std::this_thread::sleep_for(100ms);  // long enough for an idle worker to take it
  executor.submit(change(ChangeAction::RemoveFile, u"/a"));  // both cost the store nothing
  executor.submit(change(ChangeAction::CreateFile, u"/b"));
  returnsInTime([&] { executor.waitForPendingToFinish(); }, "a flush within the window");
  EXPECT_EQ(ran, 1);
  executor.shutdown(false);
  executor.join();
}

// Over a stalled worker, a backlog above the bound, a flush and possibly a submitter held back
// by the bound, the executor ends one way or another. Nothing hangs: the flush returns once
// the tasks queued before it ran (or were discarded), the held-back submitter is released and
// its task run (draining) or refused with a record (cancelling), and after the end a flush
// returns at once and a task is refused with the same record.
enum class End { ReleaseWorker, DrainingShutdown, CancellingShutdown };
struct EndCase {
  const char* name;
  End end;
  bool heldBackSubmitter;
  std::vector<int> ran;
  std::size_t refused;
};
void PrintTo(const EndCase& c, std::ostream* out) { *out << c.name; }

struct BackendExecutorEndTest : BackendExecutorTest, ::testing::WithParamInterface<EndCase> {};

TEST_P(BackendExecutorEndTest, NeitherHangsNorLosesAcceptedWork) {
  const EndCase& c = GetParam();
  stallWorkerWithBacklogAboveBound();
  std::optional<Background> third;
  std::promise<void> thirdCalling;
  if (c.heldBackSubmitter) {
    third.emplace([&] {
      thirdCalling.set_value();
      executor->execute(record(3), FILE_REMOVAL, 6.0);
    });
    thirdCalling.get_future().wait();
  }
  std::vector<int> ranWhenFlushed;
  Background flush([&] {
    executor->waitForPendingToFinish();
    ranWhenFlushed = ran();
  });
  std::this_thread::sleep_for(200ms);  // both into their waits
  EXPECT_FALSE(flush.returned()) << "returned before the tasks queued ahead of it ran";
  if (third) {
    EXPECT_FALSE(third->returned()) << "12 > 10 must hold the third submitter back";
  }
  LogCapture capture;
  if (c.end == End::CancellingShutdown) {
    // Returns without waiting for the running task, and releases the flush.
    returnsInTime([this] { executor->shutdown(true); }, "shutdown(true)");
    flush.finish("flush during a cancelling shutdown");
    stall.unblock();
  } else {
    std::optional<Background> shutdown;
    if (c.end == End::DrainingShutdown) shutdown.emplace([this] { executor->shutdown(false); });
    stall.unblock();
    flush.finish("flush");
    EXPECT_THAT(ranWhenFlushed, ::testing::IsSupersetOf({1, 2}));
  }
  if (third) third->finish("held-back execute");
  returnsInTime([this] { executor->shutdown(false); }, "shutdown");
  returnsInTime([this] { executor->join(); }, "join");
  returnsInTime([this] { executor->waitForPendingToFinish(); }, "flush after shutdown");
  const int activityBefore = activity;
  executor->execute(record(4), FILE_COPY, 1.0);  // refused, and no activity
  EXPECT_EQ(activity, activityBefore);
  EXPECT_EQ(order, c.ran);
  EXPECT_EQ(
      capture.count("Attempted to execute task when no longer accepting.", foundation::log::error),
      c.refused + 1);
  EXPECT_EQ(capture.count("ObservableTransactionType: FILE_REMOVAL", foundation::log::debug),
            c.refused);
  EXPECT_EQ(capture.count("ObservableTransactionType: FILE_COPY", foundation::log::debug), 1u);
  EXPECT_EQ(capture.count("Cancelling outstanding", foundation::log::debug),
            c.end == End::CancellingShutdown ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BackendExecutorEndTest,
    ::testing::Values(
        EndCase{"WorkerReleased", End::ReleaseWorker, false, {1, 2}, 0},
        EndCase{"DrainRunsBacklogAndHeldBackTask", End::DrainingShutdown, true, {1, 2, 3}, 0},
        EndCase{"CancelAboveBoundDiscardsBacklog", End::CancellingShutdown, false, {}, 0},
        EndCase{"CancelRefusesHeldBackTask", End::CancellingShutdown, true, {}, 1}),
    ::testing::PrintToStringParamName());

TEST(BackendExecutorDeathTest, DestroyingWithoutJoinTerminates) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH({ std::make_shared<BackendExecutor>([] {}, 0.0).reset(); }, "");
}

// The queue gives back exactly the weight a push added, however the bound changed meanwhile
// and whether the entry is taken or discarded; a submitter held back meanwhile gets in. The
// test thread is the worker.
enum class Leave { Take, Discard };
struct WeightCase {
  const char* name;
  double boundAtPush;
  double boundWhenLeaving;
  double boundAfter;
  Leave leave;
};
void PrintTo(const WeightCase& c, std::ostream* out) { *out << c.name; }

struct QueueWeightTest : ::testing::TestWithParam<WeightCase> {};

// The test thread plays the worker: an entry taken counts as running until finished.
void takeAndFinish(WeightedTransactionQueue& queue) {
  const auto entry = queue.take();
  ASSERT_TRUE(entry.has_value());
  queue.finished(*entry);
}

TEST_P(QueueWeightTest, GivesBackWhatPushAdded) {
  const WeightCase& c = GetParam();
  WeightedTransactionQueue queue(c.boundAtPush);
  const auto entry = [](double weight) {
    return QueuedTransaction([] {}, false, weight, FILE_WRITE);
  };
  queue.push(entry(6.0));
  Background second([&] { queue.push(entry(1.0)); });  // held back while 6 > a bound of 1
  queue.setMaxWeight(c.boundWhenLeaving);
  if (c.leave == Leave::Take) {
    takeAndFinish(queue);
  } else {
    queue.discardAll();
  }
  second.finish("push held back before the first entry left");
  queue.setMaxWeight(c.boundAfter);
  takeAndFinish(queue);
  EXPECT_EQ(coretest::parseJson(queue.captureMetrics()).get<double>("overlay.queueStats.weight"),
            0.0);
  returnsInTime([&] { queue.push(entry(1.0)); }, "push into an empty queue");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, QueueWeightTest,
    ::testing::Values(WeightCase{"BoundDroppedThenRaised", 1.0, 0.0, 5.0, Leave::Take},
                      WeightCase{"BoundSetAfterUnboundedPush", 0.0, 1.0, 1.0, Leave::Take},
                      WeightCase{"DiscardedUnderBound", 1.0, 1.0, 1.0, Leave::Discard}),
    ::testing::PrintToStringParamName());

// Every kind of transaction, in the order the statistics list them.
const char* const kKindWords =
    "openReadOnly openReadWrite createFile write close removeFile moveFile copyFile createFolder "
    "createFolderRecursive removeFolder removeFolderRecursive moveFolder setLastModified "
    "setWritable wakeupFlush externalEvent ";

ptree parse(const std::string& json) { return coretest::parseJson(json).get_child("overlay"); }

std::int64_t counter(const ptree& stats, const std::string& which, const std::string& word) {
  return stats.get<std::int64_t>("queueStats.transaction." + which + "." + word);
}

QueuedTransaction task(ObservableTransactionType type, double weight) {
  return QueuedTransaction([] {}, false, weight, type);
}

// Statistics are read from the environment at construction; keep tests independent of it.
struct QueueMetricsTest : ::testing::Test {
  void SetUp() override { unsetenv("QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE"); }
  void TearDown() override { unsetenv("QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE"); }
};

TEST_F(QueueMetricsTest, FreshSnapshotListsEveryKindAtZeroInOrder) {
  WeightedTransactionQueue queue(10.0);
  const ptree stats = parse(queue.captureMetrics());
  EXPECT_EQ(stats.get<unsigned>("queueStats.size"), 0u);
  EXPECT_EQ(stats.get<double>("queueStats.weight"), 0.0);
  // No entry was taken yet: 0/0, written the way the stream writes NaN ("nan" or "-nan").
  EXPECT_TRUE(std::isnan(std::stod(stats.get<std::string>("queueStats.avQTime_ms"))));
  EXPECT_EQ(stats.get<std::int64_t>("queueStats.maxQTime_ms"), 0);
  for (const std::string which : {"now", "totalOverTime"}) {
    std::string words;
    for (const auto& [word, value] : stats.get_child("queueStats.transaction." + which)) {
      words += word + " ";
      EXPECT_EQ(value.get_value<std::int64_t>(), 0) << which << "." << word;
    }
    EXPECT_EQ(words, kKindWords);
  }
}

TEST_F(QueueMetricsTest, TakenWriteReportsQueueTimeAndTimeToEmpty) {
  WeightedTransactionQueue queue(10.0);
  queue.push(task(FILE_WRITE, 2.0));
  ptree stats = parse(queue.captureMetrics());
  EXPECT_EQ(stats.get<unsigned>("queueStats.size"), 1u);
  EXPECT_EQ(stats.get<double>("queueStats.weight"), 2.0);
  EXPECT_EQ(counter(stats, "now", "write"), 1);

  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  LogCapture capture;
  takeAndFinish(queue);
  const auto drained = capture.matching("timeToEmpty", notice);
  ASSERT_EQ(drained.size(), 1u);
  EXPECT_GE(parse(drained[0].message).get<std::int64_t>("queueStats.timeToEmpty"), 20);

  stats = parse(queue.captureMetrics());
  EXPECT_EQ(counter(stats, "now", "write"), 0);
  EXPECT_EQ(counter(stats, "totalOverTime", "write"), 1);
  EXPECT_EQ(stats.get<double>("queueStats.weight"), 0.0);
  EXPECT_GE(stats.get<std::int64_t>("queueStats.maxQTime_ms"), 20);
  EXPECT_GE(stats.get<double>("queueStats.avQTime_ms"), 20.0);
}

TEST_F(QueueMetricsTest, MarkersStayCountedAndRecordNothing) {
  WeightedTransactionQueue queue(10.0);
  LogCapture capture;
  for (int i = 0; i < 2; ++i) {
    queue.push(QueuedTransaction::marker());
    takeAndFinish(queue);
  }
  EXPECT_EQ(capture.count("timeToEmpty"), 0u);
  const ptree stats = parse(queue.captureMetrics());
  EXPECT_EQ(counter(stats, "now", "wakeupFlush"), 2);
  EXPECT_EQ(counter(stats, "totalOverTime", "wakeupFlush"), 2);
}

TEST_F(QueueMetricsTest, OnlyExactlyTrueDisablesCapture) {
  setenv("QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE", "True", 1);
  EXPECT_TRUE(WeightedTransactionQueue(0.0).capturesMetrics());
  setenv("QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE", "1", 1);
  EXPECT_TRUE(WeightedTransactionQueue(0.0).capturesMetrics());
  setenv("QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE", "true", 1);
  WeightedTransactionQueue queue(0.0);
  EXPECT_FALSE(queue.capturesMetrics());
  queue.push(task(FILE_CLOSE, 1.0));
  const ptree stats = parse(queue.captureMetrics());  // still written when capture is off
  EXPECT_EQ(stats.get<unsigned>("queueStats.size"), 1u);
  EXPECT_EQ(counter(stats, "totalOverTime", "close"), 0);
}

TEST_F(QueueMetricsTest, ExecutorLogsItsBoundAndASnapshotOnRequest) {
  LogCapture capture;
  auto executor = std::make_shared<BackendExecutor>([] {}, 10.0);
  executor->setMaxQueueWeight(2.5);
  EXPECT_EQ(capture.count("BackendExecutor initialized with a max queue weight of 10", notice), 1u);
  EXPECT_EQ(capture.count("Updating BackendExecutor max queue weight to 2.5", notice), 1u);
  executor->execute([] {}, FILE_COPY, 1.0);
  executor->waitForPendingToFinish();
  capture.clear();
  executor->captureQueueMetrics();
  const auto snapshots = capture.matching("queueStats", notice);
  ASSERT_EQ(snapshots.size(), 1u);
  const ptree stats = parse(snapshots[0].message);
  EXPECT_EQ(counter(stats, "totalOverTime", "copyFile"), 1);
  EXPECT_EQ(counter(stats, "now", "wakeupFlush"), 1);
  executor->shutdown(false);
  executor->join();
}

}  // namespace
}  // namespace storage::overlayprovider
