// runWithRetry: which failures are retried, how often, and what the log says.
#include "core/execution/RunWithRetry.h"

#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/Exception.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace storage::overlayprovider {
namespace {

using foundation::log::LogCapture;
using foundation::storage::provider::ErrorCode;
using foundation::storage::provider::Exception;
using foundation::storage::provider::StorageIRI;

std::function<void()> throwing(ErrorCode code, int& calls) {
  return [code, &calls] {
    ++calls;
    throw Exception(code, StorageIRI(u"mem", u"/a.txt"));
  };
}

TEST(RunWithRetryTest, RetriesUnavailableThreeTimesInAll) {
  LogCapture capture;
  int calls = 0;
  runWithRetry(throwing(ErrorCode::Unavailable, calls), "createFile");
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(capture.count("Exception caught: ", foundation::log::exception), 3u);
  EXPECT_EQ(capture.count("Unavailable", foundation::log::debug), 3u);
  EXPECT_EQ(capture.count("", foundation::log::error), 0u);
}

TEST(RunWithRetryTest, GivesUpAtOnceOnOtherCodes) {
  LogCapture capture;
  int calls = 0;
  runWithRetry(throwing(ErrorCode::NotFound, calls), "removeFile");
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(capture.count("Exception caught: ", foundation::log::exception), 1u);
}

TEST(RunWithRetryTest, StopsRetryingOnceTheBodySucceeds) {
  int calls = 0;
  runWithRetry(
      [&] {
        if (++calls == 1) throw Exception(ErrorCode::Unavailable, StorageIRI(u"mem", u"/"));
      },
      "write");
  EXPECT_EQ(calls, 2);
}

TEST(RunWithRetryTest, RetriesUnexpectedExceptionsCountingFromZero) {
  LogCapture capture;
  int calls = 0;
  runWithRetry(
      [&] {
        ++calls;
        throw std::logic_error("broken");
      },
      "moveFile");
  EXPECT_EQ(calls, 3);
  const auto errors = capture.matching("Unexpected exception in", foundation::log::error);
  ASSERT_EQ(errors.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(errors[i].message,
              "Unexpected exception in moveFile (attempt " + std::to_string(i) + ")");
  }
  EXPECT_EQ(capture.count("broken", foundation::log::exception), 3u);
}

TEST(RunWithRetryTest, EmptyBodyIsAnUnexpectedFailureNotAThrow) {
  LogCapture capture;
  EXPECT_NO_THROW(runWithRetry({}, "close"));
  EXPECT_EQ(capture.count("Unexpected exception in close", foundation::log::error), 3u);
}

}  // namespace
}  // namespace storage::overlayprovider
