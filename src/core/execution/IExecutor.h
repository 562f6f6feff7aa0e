// IExecutor: where the overlay sends the change it must replay on its inner store.
//
// The overlay applies every change locally at once and hands the matching inner-store call to
// an executor: SynchronousExecutor runs it on the caller's thread, BackendExecutor queues it
// for one background worker (write-behind). Executors are made with std::make_shared and held
// as std::shared_ptr<IExecutor> by the provider, which owns them.
// Thread safety: every operation may be called from any thread; see the implementations for
// which locks they take.
#pragma once

#include "core/execution/ObservableTransactionType.h"
#include "core/execution/ReplayTask.h"

#include <chrono>
#include <functional>
#include <string>

namespace storage::overlayprovider {

class IExecutor {
 public:
  virtual ~IExecutor() = default;

  // Runs `task` (now or later, in submission order). `type` and `weight` let a queueing
  // executor count the task and hold back submitters when too much work is waiting. A task
  // that throws is logged with its kind; a task accepted is run or, by a cancelling
  // shutdown, discarded, never silently lost.
  virtual void execute(const std::function<void()>& task, ObservableTransactionType type,
                       double weight) = 0;
  // The same, for a task that says what it changes on the store. An executor that replays
  // unrelated changes side by side orders it only against those that overlap it, and one that
  // absorbs changes may find it moot and run its `moot` half instead; the others run it as the
  // plain execute does.
  virtual void submit(ReplayTask task) {
    auto run = std::move(task.run);
    execute([run = std::move(run), change = task.change] { run(change); }, task.change.kind,
            task.weight);
  }
  // Stops accepting tasks. With cancelOutstanding, tasks not yet started are discarded.
  // Never blocks for ever: submitters held back by a queue's bound are released.
  virtual void shutdown(bool cancelOutstanding) = 0;
  // Waits for the executor's thread, if it has one, to end (call after shutdown).
  virtual void join() = 0;
  virtual bool isStopped() = 0;
  // When the most recent task finished without an exception (construction time before that).
  virtual std::chrono::system_clock::time_point lastCompletionTime() = 0;
  virtual bool isQueueEmpty() = 0;
  // Returns once every task submitted before the call has been run; at once when the
  // executor has stopped and will run nothing more (a flush after shutdown must not hang).
  // Does not wait on the queue's weight bound, only for the earlier tasks.
  virtual void waitForPendingToFinish() = 0;
  // Changes the waiting weight above which submitters are held back (<= 0: unbounded).
  virtual void setMaxQueueWeight(double maxWeight) = 0;
  // Logs a snapshot of the queue's statistics and returns it as compact JSON ("{}" when the
  // executor queues nothing).
  virtual std::string captureQueueMetrics() = 0;
};

}  // namespace storage::overlayprovider
