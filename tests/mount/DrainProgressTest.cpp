// DrainProgress: the queue statistics read into a sample, and the line made from samples: what
// is left, the rates over the window, and the time left from the slower of changes and bytes.
#include "DrainProgress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace storage::mount {
namespace {

constexpr double kMiB = 1048576.0;

TEST(DrainProgress, LineFromSamples) {
  struct Case {
    std::vector<DrainSample> samples;  // seconds, changes, bytes, store calls
    std::string line;
  };
  const std::vector<Case> cases = {
      {{{0, 1234, 0, 0}}, "1,234 changes (0 B) left, ? changes/s, about ? left"},
      {{{0, 1000, 10 * kMiB, 0}, {10, 500, 5 * kMiB, 300}},
       "500 changes (5.0 MiB) left, 50 changes/s, 512.0 KiB/s, 30 store calls/s, about 10 s left"},
      // Few large changes: the bytes take longer than the count says.
      {{{0, 100, 100 * kMiB, 0}, {10, 50, 90 * kMiB, 100}},
       "50 changes (90.0 MiB) left, 5 changes/s, 1.0 MiB/s, 10 store calls/s, about 1 min 30 s "
       "left"},
      {{{0, 10, 0, 0}, {2, 0, 0, 4}},
       "0 changes (0 B) left, 5 changes/s, 0 B/s, 2 store calls/s, done"},
      {{{0, 10, 0, 0}, {5, 10, 0, 0}},
       "10 changes (0 B) left, 0 changes/s, 0 B/s, 0 store calls/s, about ? left"},
      // Only the last 10 s count: a stall long ago does not slow the estimate.
      {{{0, 1000, 0, 0}, {20, 1000, 0, 0}, {30, 500, 0, 0}},
       "500 changes (0 B) left, 50 changes/s, 0 B/s, 0 store calls/s, about 10 s left"},
      {{{0, 1, 0, 0}, {3600, 1, 0, 0}, {7200, 1, 0, 0}},
       "1 change (0 B) left, 0 changes/s, 0 B/s, 0 store calls/s, about ? left"},
  };
  for (const auto& c : cases) {
    DrainProgress progress(10.0);
    for (const auto& sample : c.samples) progress.add(sample);
    EXPECT_EQ(progress.line(), c.line);
  }
  EXPECT_EQ(duration(2 * 3600 + 3 * 60 + 10), "2 h 03 min");
}

TEST(DrainProgress, SamplesFromQueueStatistics) {
  struct Case {
    std::string json;
    bool sampled;
    std::uint64_t changes;
    double bytes;
  };
  const std::vector<Case> cases = {
      {R"({"overlay":{"queueStats":{"size":"3","waitingWeight":"4.5"}}})", true, 3, 1.5 * kMiB},
      {R"({"overlay":{"queueStats":{"size":"2"}}})", true, 2, 0},
      {R"({"overlay":{"queueStats":{"size":"4","waitingWeight":"1"}}})", true, 4, 0},
      {"{}", false, 0, 0},
      {"not json", false, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    const auto sample = DrainProgress::fromStatistics(c.json, 1.0, 7, 9);
    ASSERT_EQ(sample.has_value(), c.sampled);
    if (!sample) continue;
    EXPECT_EQ(sample->changes, c.changes);
    EXPECT_DOUBLE_EQ(sample->bytes, c.bytes);
    EXPECT_EQ(sample->storeCalls, 9u);
  }
}

}  // namespace
}  // namespace storage::mount
