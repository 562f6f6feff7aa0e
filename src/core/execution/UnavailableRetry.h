// UnavailableRetry: how long the background replay keeps trying a store call that the store
// answers with Unavailable (it is away: a lost connection, a server restarting).
//
// By default three attempts at once and then the change is given up, as the replay always
// did. With patience ("overlay.retryUnavailableMs"; the mount sets no limit) the call is tried
// again after growing pauses (0.1 s doubling up to 5 s) until the store answers, the patience
// is spent, or the provider shuts down. A store that is away then holds the replay up, not
// the callers, and costs no change: every change behind the one waiting that touches the
// same paths waits for it, so none overtakes another, and what is still pending at shut-down
// stays in the journal (when there is one) for the next process.
//
//   UnavailableRetry retry(std::chrono::milliseconds(-1), stopped);  // no limit
//   for (int attempt = 1;; ++attempt) {
//     try { call(); break; } catch (unavailable) { if (!retry.again(attempt, since)) break; }
//   }
//
// Caveat: a working file's replay waits holding the file's store-side lock, so a reader of
// bytes that only the store holds, of that same file, waits for the store too.
//
// A small value, copied into the replay tasks and the working files; the shut-down flag it
// watches is the provider's, shared. No lock; again() sleeps on the calling thread (a replay
// worker).
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

namespace storage::overlayprovider {

class UnavailableRetry {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kImmediateAttempts = 3;

  // patience 0: three immediate attempts; below 0: no limit but the shut-down. `stopped`
  // (may be null) is the provider's shut-down flag.
  explicit UnavailableRetry(std::chrono::milliseconds patience = std::chrono::milliseconds(0),
                            std::shared_ptr<const std::atomic<bool>> stopped = nullptr);

  // After attempt `attempt` (counted from 1), begun first at `since`, failed with Unavailable:
  // whether to try once more. With patience it first waits the back-off, and says no when
  // the provider shuts down meanwhile.
  bool again(int attempt, Clock::time_point since) const;
  bool isPatient() const { return patience_.count() != 0; }
  bool stopped() const { return stopped_ && stopped_->load(); }

 private:
  std::chrono::milliseconds patience_;
  std::shared_ptr<const std::atomic<bool>> stopped_;
};

}  // namespace storage::overlayprovider
