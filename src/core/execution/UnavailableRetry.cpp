#include "core/execution/UnavailableRetry.h"

#include <algorithm>
#include <thread>

namespace storage::overlayprovider {

namespace {

constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{5000};
// A shut-down is noticed within this while a pause lasts.
constexpr std::chrono::milliseconds kWakeEvery{100};

}  // namespace

UnavailableRetry::UnavailableRetry(std::chrono::milliseconds patience,
                                   std::shared_ptr<const std::atomic<bool>> stopped)
    : patience_(patience), stopped_(std::move(stopped)) {}

bool UnavailableRetry::again(int attempt, Clock::time_point since) const {
  if (!isPatient()) return attempt < kImmediateAttempts;
  if (stopped()) return false;
  const auto doublings = std::min(attempt - 1, 6);
  const auto pause = std::min(kFirstPause * (1 << doublings), kLongestPause);
  const auto until = Clock::now() + pause;
  if (patience_.count() > 0 && until - since > patience_) return false;
  while (Clock::now() < until) {
    if (stopped()) return false;
    std::this_thread::sleep_for(std::min<Clock::duration>(kWakeEvery, until - Clock::now()));
  }
  return !stopped();
}

}  // namespace storage::overlayprovider
