// ObservableTransactionType's text and the SynchronousExecutor.
#include "core/execution/ObservableTransactionType.h"
#include "core/execution/SynchronousExecutor.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>

namespace storage::overlayprovider {
namespace {

std::string text(ObservableTransactionType type) {
  std::ostringstream out;
  out << type;
  return out.str();
}

TEST(ObservableTransactionTypeTest, WritesMemberNamesAndNothingOutsideTheSet) {
  EXPECT_EQ(text(FILE_OPEN_READONLY), "FILE_OPEN_READONLY");
  EXPECT_EQ(text(FILE_CREATION), "FILE_CREATION");
  EXPECT_EQ(text(FOLDER_REMOVAL_RECURSIVE), "FOLDER_REMOVAL_RECURSIVE");
  EXPECT_EQ(text(WAKEUP_FLUSH), "WAKEUP_FLUSH");
  EXPECT_EQ(text(EXTERNAL_EVENT), "EXTERNAL_EVENT");
  std::ostringstream out;
  out << "[" << static_cast<ObservableTransactionType>(17) << "]";
  EXPECT_EQ(out.str(), "[]");
  EXPECT_TRUE(out.good());
}

struct SynchronousExecutorTest : ::testing::Test {
  int callbacks = 0;
  std::shared_ptr<IExecutor> executor =
      std::make_shared<SynchronousExecutor>([this] { ++callbacks; });
};

TEST_F(SynchronousExecutorTest, RunsTaskThenCallbackAndRecordsCompletion) {
  const auto before = executor->lastCompletionTime();
  int runs = 0;
  executor->execute(
      [&] {
        EXPECT_EQ(callbacks, 0) << "callback ran before the task";
        ++runs;
      },
      FILE_WRITE, 3.0);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(callbacks, 1);
  EXPECT_GE(executor->lastCompletionTime(), before);
  EXPECT_TRUE(executor->isQueueEmpty());
}

TEST_F(SynchronousExecutorTest, AfterShutdownDropsTaskButStillCallsCallback) {
  executor->shutdown(false);
  EXPECT_TRUE(executor->isStopped());
  const auto before = executor->lastCompletionTime();
  int runs = 0;
  executor->execute([&] { ++runs; }, FILE_WRITE, 1.0);
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(callbacks, 1);
  EXPECT_EQ(executor->lastCompletionTime(), before);
}

TEST_F(SynchronousExecutorTest, ThrowingTaskLeavesTimeAndCallbackUntouched) {
  const auto before = executor->lastCompletionTime();
  EXPECT_THROW(executor->execute([] { throw std::runtime_error("inner"); }, FILE_MOVE, 0.0),
               std::runtime_error);
  EXPECT_EQ(callbacks, 0);
  EXPECT_EQ(executor->lastCompletionTime(), before);
  EXPECT_THROW(executor->execute({}, FILE_MOVE, 0.0), std::bad_function_call);
  EXPECT_EQ(callbacks, 0);
}

}  // namespace
}  // namespace storage::overlayprovider
