// WeightedTransactionQueue: the BackendExecutor's queue of transactions, with back-pressure by
// weight, the executor's acceptance rule at shutdown, and statistics for the operators.
//
// Order: entries are taken in queue order, except that with several workers an entry may be
// taken ahead of earlier ones that it does not overlap (ReplayOrder decides; with one worker
// the front entry is always taken). A flush's marker is a barrier, taken only once every
// earlier entry has finished.
//
// Back-pressure: every entry carries a weight (roughly the bytes it will move). While more
// than maxWeight is waiting, push() holds the submitter back until the worker takes an entry.
// The test comes before the entry's weight is added, so one entry may take the total above
// the bound; it is the next submitter that waits. maxWeight <= 0 means unbounded: nobody is
// held back and no weight is kept. Each entry remembers what its push added, and its take (or
// discard) gives back exactly that: a bound changed in between (1, then 0, then 5) would
// otherwise leave weight behind with nothing queued, and every later push would wait for a
// take that never comes. The executor's markers weigh nothing and never wait: a flush or a
// shutdown must not queue behind back-pressure.
//
// Closing: close() makes acceptance and the closed test one step under the mutex, so a task is
// either accepted before the close (and then run, or discarded by a cancelling close) or
// refused; none can slip in behind a worker that has ended. Submitters held back when the
// queue closes are released: a draining close accepts their entries past the bound (they were
// submitted before the shutdown, and the drain waits for them), a cancelling close refuses
// them. workerEnded() closes the queue for good: what is still queued can no longer run.
//
// Absorption (when switched on): an arriving change that makes queued ones moot takes them out
// of the queue unrun and carries their local halves (ChangeAbsorber has the rules); it may be
// moot itself, and then costs the store nothing either. Withdrawn entries give their weight
// back and leave the "now" counters; "absorbed" counts them.
//
// Wake-ups: an idle worker is woken only when more ripe entries could start side by side than
// there are workers running, since each of those comes back for the next entry as soon as its
// own has finished (a worker calls take() again after finished()). A fast store is so replayed
// by one worker that never sleeps, a slow one by as many as the backlog keeps busy. While the
// oldest runnable entry waits out the absorption window, one idle worker keeps its timer and
// the others sleep until woken. Eight workers each waking at every push, every finish and every
// ripening to find one entry between them spent more of the daemon's time switching threads
// than replaying. What must hurry every worker (a flush, a drain, the first held-back
// submitter, a close, a new setting) still wakes them all.
//
// Statistics (on unless QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE is exactly "true"): per-kind
// counters of what is waiting now and of all that was ever pushed, the weight waiting, queue
// times, and how long the queue took to drain. They are written as compact JSON records at severity
// notice.
//
// Owned by value by the BackendExecutor. Locking: one mutex guards everything except
// maxWeight, which is an atomic so that setMaxWeight can store it without the mutex. While it
// is held only the logging core's own locks are taken (statistics records are written under
// it). No task runs under it and no entry is destroyed under it (discarded entries are
// destroyed after it is released, so what a task captures may call back into the executor
// when it goes). push, isEmpty, waitUntilEmpty, waitForEarlierEntries, close, discardAll,
// setMaxWeight, captureMetrics and stopWorkers may be called from any thread; take, finished
// and workerEnded by the workers only.
#pragma once

#include "core/execution/ObservableTransactionType.h"
#include "core/execution/QueueScopeIndex.h"
#include "core/execution/QueuedTransaction.h"
#include "core/execution/ReplayOrder.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace storage::overlayprovider {

class WeightedTransactionQueue {
 public:
  explicit WeightedTransactionQueue(double maxWeight);

  // Appends the entry, first waiting while more than maxWeight is queued (a marker never
  // waits). Returns false, dropping the entry, when the queue is closed, or when a cancelling
  // close (or the worker's end) releases the wait. A closed queue still takes markers.
  bool push(QueuedTransaction entry);
  // Removes and returns the first entry that may start now (see ReplayOrder; with one worker,
  // the front entry), waiting while there is none. Nothing once stopWorkers() was called.
  // Workers only; each entry taken must be handed back to finished() once it has run.
  std::optional<QueuedTransaction> take();
  // The entry's task has run (or thrown): changes that waited for it may start.
  void finished(const QueuedTransaction& entry);
  // Every take, waiting or later, returns nothing, so that the workers end.
  void stopWorkers();
  bool isEmpty();
  // Nothing queued and nothing running.
  bool isIdle();
  // Waits until the worker has taken every entry (it may still be running the last one),
  // including those of held-back submitters a draining close let in, or has ended.
  void waitUntilEmpty();
  // Appends a marker and waits until a worker has taken it, which happens only once every
  // entry pushed before it has finished; returns early when a cancelling close discards the marker
  // or the worker ends, and at once when either has already happened. Never waits on the bound.
  void waitForEarlierEntries();
  // Refuses every later task (markers still pass) and releases held-back submitters; with
  // cancelOutstanding, discards what is queued and refuses the held-back ones. Idempotent; a
  // cancelling close after a draining one still cancels.
  void close(bool cancelOutstanding);
  bool isClosed();
  // The worker's last act: closes the queue and discards what it still holds.
  void workerEnded();
  // Destroys every queued entry unrun, gives their weight back and wakes held-back submitters
  // and flushes. Their counters are left as they are: a cancelled queue is on its way out.
  void discardAll();
  // Stored without the mutex and without waking anyone: held-back submitters see the new
  // bound at the next take.
  void setMaxWeight(double maxWeight);
  // Whether an arriving change may absorb queued ones (off: every change is replayed), and how
  // long each change waits before a worker may take it, so that the change that makes it moot
  // can still arrive: a program's temporary file is renamed or removed within microseconds,
  // while an idle worker would have taken its creation at once. Nothing waits once anyone
  // waits for the queue (a flush's marker, a drain, a held-back submitter) or it is closed.
  void setAbsorbing(bool absorbing,
                    std::chrono::milliseconds window = std::chrono::milliseconds(0));
  // Writes a snapshot of the statistics as one notice record and returns its JSON. Takes the
  // mutex, so the figures are consistent with each other; still only a sample of a moving
  // queue.
  std::string captureMetrics();
  bool capturesMetrics() const { return captureMetrics_; }

 private:
  using Clock = std::chrono::system_clock;

  void appendLocked(QueuedTransaction entry);
  // Takes out the queued entries that `arriving` makes moot (ChangeAbsorber) and hands their
  // local halves to it, and moves the changes that `arriving` (a move) takes along to its
  // destination; returns the entries taken out, to be destroyed once the mutex is released.
  std::deque<QueuedTransaction> absorbLocked(QueuedTransaction& arriving);
  std::deque<QueuedTransaction> discardLocked();
  // When `entry` may be taken, if it must wait for the absorption window.
  std::optional<Clock::time_point> ripensAtLocked(const QueuedTransaction& entry) const;
  // Whether an idle worker must be woken to start an entry or keep the timer.
  bool needsAnotherWorkerLocked() const;
  // Sleeps until `ripe` if no other worker keeps that timer, else until woken.
  void waitForRipening(std::unique_lock<std::mutex>& lock, Clock::time_point ripe);
  void countPushed(ObservableTransactionType type);
  void accountTaken(const QueuedTransaction& entry);
  void recordQueueTime(const QueuedTransaction& entry);
  std::string writeSnapshotLocked();

  std::atomic<double> maxWeight_;
  std::atomic<bool> absorbing_{false};
  Clock::duration absorbWindow_{};  // guarded by mutex_
  int drainWaiters_ = 0;            // in waitUntilEmpty
  double currentWeight_ = 0.0;
  // What every queued entry weighs, kept whatever the bound (currentWeight_ only counts under
  // a bound): roughly the bytes still to replay, for the statistics.
  double waitingWeight_ = 0.0;
  std::int64_t periodQueueTime_ = 0;  // ms, since the queue last started from empty
  std::int64_t periodEntries_ = 0;
  Clock::time_point periodStart_;
  std::int64_t maxQueueTime_ = 0;  // ms, over the queue's lifetime
  Clock::time_point lastSnapshot_;
  bool captureMetrics_;
  // kind -> (queued now, pushed over the queue's lifetime)
  std::map<ObservableTransactionType, std::pair<std::int64_t, std::int64_t>> kindCounters_;
  std::deque<QueuedTransaction> entries_;
  QueueScopeIndex scopes_;  // the scope keys of entries_, by serial (for the absorber)
  std::uint64_t nextSerial_ = 1;
  // Markers ever appended, and ever taken or discarded: marker n (counted from 1) has left
  // the queue once markersResolved_ >= n, which is how a flush finds its marker gone. Markers
  // are barriers, so they leave in the order they came.
  std::uint64_t markersAppended_ = 0;
  std::uint64_t markersResolved_ = 0;
  std::uint64_t absorbed_ = 0;  // changes made moot, over the queue's lifetime
  int heldBack_ = 0;            // submitters inside push's wait for space
  bool closed_ = false;
  bool cancelled_ = false;
  bool workerEnded_ = false;
  bool workersStopping_ = false;
  bool timerKept_ = false;  // an idle worker waits for the oldest runnable entry to ripen
  ReplayOrder order_;       // which entries are running, and which may start
  std::mutex mutex_;
  std::condition_variable workAvailable_;
  std::condition_variable queueChanged_;
  std::condition_variable spaceAvailable_;
};

}  // namespace storage::overlayprovider
