// The SynchronousExecutor, what both executors do with a task that fails, and runWithRetry:
// which failures are retried, how often, and what the log says. (The kinds' names are checked
// where the executors log them.)
#include "core/execution/BackendExecutor.h"
#include "core/execution/RunWithRetry.h"
#include "core/execution/SynchronousExecutor.h"

#include <foundation/core/except/IException.h>
#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/Exception.h>
#include <gtest/gtest.h>

#include <boost/exception/info.hpp>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>

namespace storage::overlayprovider {
namespace {

using foundation::log::LogCapture;
using foundation::storage::provider::ErrorCode;
using foundation::storage::provider::Exception;
using foundation::storage::provider::StorageIRI;

struct SynchronousExecutorTest : ::testing::Test {
  int callbacks = 0;
  std::shared_ptr<IExecutor> executor =
      std::make_shared<SynchronousExecutor>([this] { ++callbacks; });
};

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

// The framework's own exceptions are not std::exceptions; their text travels as error info.
struct StoreUnreachable : foundation::core::except::IInternalException {
  const char* what() const noexcept override { return "store unreachable"; }
};
using FailureDetail = boost::error_info<struct FailureDetailTag, std::string>;

struct Failure {
  const char* name;
  std::function<void()> task;
  std::string diagnostic;  // part of the logged diagnostic text
};
void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.name; }

const Failure kFailures[] = {
    {"StdException", [] { throw std::runtime_error("inner store down"); }, "inner store down"},
    {"InternalException", [] { throw StoreUnreachable() << FailureDetail("no route to store"); },
     "no route to store"},
    {"EmptyTask", {}, "bad_function_call"},
};

// Parameters: whether the executor is the synchronous one, and how the task fails.
struct ExecutorFailingTaskTest : ::testing::TestWithParam<std::tuple<bool, Failure>> {
  const bool synchronous = std::get<0>(GetParam());
  int callbacks = 0;
  std::shared_ptr<IExecutor> executor =
      synchronous ? std::shared_ptr<IExecutor>(
                        std::make_shared<SynchronousExecutor>([this] { ++callbacks; }))
                  : std::make_shared<BackendExecutor>([] {}, 0.0);
  void TearDown() override {
    executor->shutdown(false);
    executor->join();
  }
};

// Logged with its kind and the exception's text; not a completion; the executor goes on to
// run the next task. The synchronous executor also hands the exception back and skips its
// activity callback, which it calls after a task that succeeds.
TEST_P(ExecutorFailingTaskTest, IsLoggedWithKindAndTextAndIsNoCompletion) {
  const Failure& failure = std::get<1>(GetParam());
  const auto before = executor->lastCompletionTime();
  {
    LogCapture capture;
    if (synchronous) {
      EXPECT_ANY_THROW(executor->execute(failure.task, FILE_MOVE, 1.0));
      EXPECT_EQ(callbacks, 0);
    } else {
      executor->execute(failure.task, FILE_MOVE, 1.0);
      executor->waitForPendingToFinish();
    }
    EXPECT_EQ(capture.count("Task of kind FILE_MOVE failed", foundation::log::error), 1u);
    const auto details = capture.matching("Exception caught: ", foundation::log::exception);
    ASSERT_EQ(details.size(), 1u);
    EXPECT_NE(details[0].message.find(failure.diagnostic), std::string::npos) << details[0].message;
  }
  EXPECT_EQ(executor->lastCompletionTime(), before);
  int runs = 0;
  executor->execute(
      [&] {
        EXPECT_EQ(callbacks, 0) << "the activity callback ran before the task";
        ++runs;
      },
      FILE_CLOSE, 1.0);
  executor->waitForPendingToFinish();
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(callbacks, synchronous ? 1 : 0);
  const auto completed = executor->lastCompletionTime();
  EXPECT_GT(completed, before);
  executor->waitForPendingToFinish();  // a flush is no completion
  EXPECT_EQ(executor->lastCompletionTime(), completed);
}

INSTANTIATE_TEST_SUITE_P(Cases, ExecutorFailingTaskTest,
                         ::testing::Combine(::testing::Bool(), ::testing::ValuesIn(kFailures)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param) ? "Synchronous" : "Backend") +
                                  std::get<1>(info.param).name;
                         });

// Only an unavailable store and failures foreign to the framework are tried again, three
// attempts in all; each failure's detail is logged, and each foreign one also as an error
// naming the attempt (counted from zero). runWithRetry itself never throws.
TEST(RunWithRetryTest, RetriesUnavailableAndForeignFailuresThreeTimesInAll) {
  struct Case {
    const char* name;
    std::function<void(int call)> failure;  // run by the body's call number `call` (from 1)
    int calls;
    const char* detail;  // in every logged exception detail
    std::size_t details;
    std::size_t unexpected;
  };
  const auto store = [](ErrorCode code, int upTo) {
    return [code, upTo](int call) {
      if (call <= upTo) throw Exception(code, StorageIRI(u"mem", u"/a.txt"));
    };
  };
  const Case cases[] = {
      {"unavailable", store(ErrorCode::Unavailable, 3), 3, "Unavailable", 3, 0},
      {"unavailable once", store(ErrorCode::Unavailable, 1), 2, "Unavailable", 1, 0},
      {"other code", store(ErrorCode::NotFound, 3), 1, "NotFound", 1, 0},
      {"foreign", [](int) { throw std::logic_error("broken"); }, 3, "broken", 3, 3},
      {"empty body", nullptr, 0, "bad_function_call", 3, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture capture;
    int calls = 0;
    std::function<void()> body;
    if (c.failure) body = [&] { c.failure(++calls); };
    EXPECT_NO_THROW(runWithRetry(body, "moveFile"));
    EXPECT_EQ(calls, c.calls);
    EXPECT_EQ(capture.count("Exception caught: ", foundation::log::exception), c.details);
    EXPECT_EQ(capture.count(c.detail, foundation::log::exception), c.details);
    const auto errors = capture.matching("", foundation::log::error);
    ASSERT_EQ(errors.size(), c.unexpected);
    for (std::size_t i = 0; i < errors.size(); ++i) {
      EXPECT_EQ(errors[i].message,
                "Unexpected exception in moveFile (attempt " + std::to_string(i) + ")");
    }
  }
}

// With patience an unavailable store is waited for, with growing pauses, until it answers, the
// patience is spent or the provider stops; other failures are given up as without it.
TEST(RunWithRetryTest, WithPatienceAnUnavailableStoreIsWaitedFor) {
  using std::chrono::milliseconds;
  struct Case {
    const char* name;
    milliseconds patience;
    int unavailableUpTo;  // the calls up to this one answer Unavailable
    ErrorCode code;
    int stopAtCall;  // the provider stops during this call (0: never)
    ReplayOutcome outcome;
    int calls;
  };
  const Case cases[] = {
      {"answers after four refusals", milliseconds(-1), 4, ErrorCode::Unavailable, 0,
       ReplayOutcome::Done, 5},
      {"patience spent", milliseconds(250), 1000, ErrorCode::Unavailable, 0,
       ReplayOutcome::GivenUp, 2},
      {"stopped while away", milliseconds(-1), 1000, ErrorCode::Unavailable, 2,
       ReplayOutcome::Interrupted, 2},
      {"refused for good", milliseconds(-1), 1000, ErrorCode::NotFound, 0,
       ReplayOutcome::GivenUp, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto stopped = std::make_shared<std::atomic<bool>>(false);
    int calls = 0;
    const auto outcome = runWithRetry(
        [&] {
          if (++calls == c.stopAtCall) *stopped = true;
          if (calls <= c.unavailableUpTo) throw Exception(c.code, StorageIRI(u"mem", u"/a"));
        },
        "createFile", UnavailableRetry(c.patience, stopped));
    EXPECT_EQ(outcome, c.outcome);
    EXPECT_EQ(calls, c.calls);
  }
}

}  // namespace
}  // namespace storage::overlayprovider
