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

}  // namespace
}  // namespace storage::overlayprovider
