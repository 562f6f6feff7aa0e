// WeightedTransactionQueue's statistics, driven directly with the test thread as the worker.
#include "CoreTestSupport.h"
#include "core/execution/BackendExecutor.h"
#include "core/execution/WeightedTransactionQueue.h"

#include <foundation/log/LogCapture.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>

namespace storage::overlayprovider {
namespace {

using boost::property_tree::ptree;
using foundation::log::LogCapture;
using foundation::log::notice;

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
  queue.take();
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
    queue.take();
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
