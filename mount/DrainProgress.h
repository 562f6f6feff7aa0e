// DrainProgress: the one line that tells a user how far the overlay's write-behind queue has
// drained: the changes and bytes still to replay, how fast they go, and about how long the
// rest will take. It is fed samples (the overlay's queue statistics, as captureQueueMetrics
// writes them, and the instrumented store's call count) and keeps the last few seconds of
// them for the rates, so a stall or a burst shows within a few seconds.
//
// A plain value: owned by the QueueReporter, used on its thread only; no lock.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace storage::mount {

struct DrainSample {
  double seconds = 0;         // on a steady clock, any origin
  std::uint64_t changes = 0;  // transactions waiting
  double bytes = 0;           // bytes waiting, roughly
  std::uint64_t storeCalls = 0;
};

class DrainProgress {
 public:
  // The rates are read over about this many seconds.
  explicit DrainProgress(double windowSeconds = 10.0) : windowSeconds_(windowSeconds) {}

  // A sample from the queue statistics' JSON; empty when it has no queue size (a pass-through
  // gives "{}"). A queued change weighs `minItemWeight` plus one unit per MiB it carries, so
  // what is left of the waiting weight after that is the bytes, in MiB. Throws nothing.
  static std::optional<DrainSample> fromStatistics(const std::string& json, double minItemWeight,
                                                   double seconds, std::uint64_t storeCalls);

  void add(const DrainSample& sample);
  // "1,234 changes (56.7 MiB) left, 210 changes/s, 3.4 MiB/s, 95 store calls/s, about 6 s
  // left"; before two samples, or while nothing moves, the rate and the time are "?". Empty
  // before any sample.
  std::string line() const;

 private:
  const double windowSeconds_;
  std::deque<DrainSample> samples_;
};

// Helpers of line(), public for their own test.
std::string groupedCount(std::uint64_t value);  // 1234567 -> "1,234,567"
std::string byteAmount(double bytes);           // "512 B", "3.4 KiB", "56.7 MiB", "1.2 GiB"
std::string duration(double seconds);           // "6 s", "4 min 05 s", "2 h 03 min"

}  // namespace storage::mount
