// WeightedTransactionQueue: the BackendExecutor's FIFO of transactions, with back-pressure by
// weight and statistics for the operators.
//
// Back-pressure: every entry carries a weight (roughly the bytes it will move). While more
// than maxWeight is waiting, push() holds the submitter back until the worker takes an entry.
// The test comes before the entry's weight is added, so one entry may take the total above
// the bound; it is the next submitter that waits. maxWeight <= 0 means unbounded: nobody is
// held back and no weight is kept.
//
// Statistics (on unless QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE is exactly "true"): per-kind
// counters of what is waiting now and of all that was ever pushed, queue times, and how long
// the queue took to drain. They are written as compact JSON records at severity notice.
//
// Owned by value by the BackendExecutor. Locking: one mutex guards everything except
// maxWeight, which is an atomic so that setMaxWeight can store it without the mutex. While it
// is held only the logging core's own locks are taken (statistics records are written under
// it). No task runs under it, but discardAll destroys entries under it, so what a task
// captures must not call back into the executor when destroyed. push, isEmpty, waitUntilEmpty,
// discardAll and captureMetrics may be called from any thread; take only by the worker.
#pragma once

#include "core/execution/ObservableTransactionType.h"
#include "core/execution/QueuedTransaction.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace storage::overlayprovider {

class WeightedTransactionQueue {
 public:
  explicit WeightedTransactionQueue(double maxWeight);

  // Appends the entry, first waiting while more than maxWeight is queued.
  void push(QueuedTransaction entry);
  // Removes and returns the front entry, waiting while the queue is empty. Worker only.
  QueuedTransaction take();
  bool isEmpty();
  // Waits until the worker has taken every entry (it may still be running the last one).
  void waitUntilEmpty();
  // Destroys every queued entry unrun. Their weight is not given back, their counters are
  // left as they are and nobody is woken: a cancelled queue is on its way out.
  void discardAll();
  // Stored without the mutex and without waking anyone: held-back submitters see the new
  // bound at the next take.
  void setMaxWeight(double maxWeight);
  // Writes a snapshot of the statistics as one notice record and returns its JSON. Takes the
  // mutex, so the figures are consistent with each other; still only a sample of a moving
  // queue.
  std::string captureMetrics();
  bool capturesMetrics() const { return captureMetrics_; }

 private:
  using Clock = std::chrono::system_clock;

  void countPushed(ObservableTransactionType type);
  void accountTaken(const QueuedTransaction& entry);
  void recordQueueTime(const QueuedTransaction& entry);
  std::string writeSnapshotLocked();

  std::atomic<double> maxWeight_;
  double currentWeight_ = 0.0;
  std::int64_t periodQueueTime_ = 0;  // ms, since the queue last started from empty
  std::int64_t periodEntries_ = 0;
  Clock::time_point periodStart_;
  std::int64_t maxQueueTime_ = 0;  // ms, over the queue's lifetime
  Clock::time_point lastSnapshot_;
  bool captureMetrics_;
  // kind -> (queued now, pushed over the queue's lifetime)
  std::map<ObservableTransactionType, std::pair<std::int64_t, std::int64_t>> kindCounters_;
  std::deque<QueuedTransaction> entries_;
  std::mutex mutex_;
  std::condition_variable workAvailable_;
  std::condition_variable queueChanged_;
  std::condition_variable spaceAvailable_;
};

}  // namespace storage::overlayprovider
