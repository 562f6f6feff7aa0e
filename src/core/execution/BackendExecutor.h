// BackendExecutor: the write-behind executor. Submitters return as soon as their task is
// queued; worker threads replay the tasks on the inner store. With one worker (the default)
// they run strictly in submission order (no priorities, no merging), so the inner store sees
// the same sequence of changes as the overlay did. With several, a task that says what it
// changes (a ReplayChange) may run beside earlier ones that touch unrelated paths, while every
// two changes of one path, or of a folder and something inside it, keep their order (see
// ReplayOrder): a store far away takes several calls at once, and one slow or retried change
// no longer holds up the rest. A task without a ReplayChange, and a flush's marker, wait for
// everything before them, so callers that say nothing get the strict order. With absorption on,
// a change that makes queued ones moot (a file created and removed before its creation was
// replayed, say) takes them out of the queue: the store never sees them (ChangeAbsorber).
//
// Back-pressure: each task carries a weight; while more than the max queue weight is waiting,
// execute() blocks the submitter (see WeightedTransactionQueue).
//
// Neither the host's exit nor accepted work may be lost to a shutdown, hence these rules:
//   - A task execute() accepted is run, or discarded by a cancelling shutdown; never left
//     queued behind a worker that has ended. The closed test and the acceptance are one step
//     under the queue's mutex: a test first and a push later let a task slip in after the
//     worker's last take, where it was neither run nor reported. A task arriving once shutdown
//     has begun is refused with an error record naming its kind.
//   - A submitter held back by the bound when shutdown begins is released: its task is run
//     when the shutdown drains, refused (with that record) when it cancels. Left waiting, it
//     would wait for ever, since no take would come.
//   - Shutdown's wake-up marker and a flush's marker do not wait on the bound: a cancelled
//     backlog above the bound would otherwise block shutdown, and so the host's exit, for
//     ever, and a flush would queue behind back-pressure for longer than the drain takes.
//   - waitForPendingToFinish returns once every task submitted before it has finished (with
//     several workers too: its marker is a barrier), and at once
//     when the worker will take nothing more (after a cancelling shutdown, or once it has
//     ended): a flush after shutdown would otherwise wait for a worker that is gone.
//   - A task that throws is logged with its kind and the exception's diagnostic text (also
//     when it is not a std::exception, like the framework's own), and the worker goes on.
//
// Ownership and lifetime: made with std::make_shared and owned by the provider as
// std::shared_ptr<IExecutor>. The owner must call shutdown() and then join() before the last
// reference goes: destroying an executor whose worker is still joinable calls
// std::terminate(), because a worker left running would use a destroyed queue. Entries still
// queued at destruction are destroyed unrun.
//
// Threads: execute, shutdown, waitForPendingToFinish, setMaxQueueWeight and
// captureQueueMetrics are called by the provider's threads; the workers only run tasks.
// Locks: the queue's mutex (inside WeightedTransactionQueue) and the join mutex, never
// together. The activity callback and the tasks run with no lock of this class held.
#pragma once

#include "core/execution/IExecutor.h"
#include "core/execution/WeightedTransactionQueue.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace storage::overlayprovider {

class BackendExecutor : public IExecutor {
 public:
  // Starts the worker. `activityCallback` is called on the submitter's thread when a task
  // arrives at an idle executor (empty queue, worker not busy), to tell the provider that
  // background activity starts; an empty one makes that execute throw
  // std::bad_function_call. maxQueueWeight <= 0 means unbounded. `workers` below 1 counts as 1.
  // absorbChanges: queued changes that a later one makes moot are never replayed;
  // absorbWindow: how long each waits first (see WeightedTransactionQueue::setAbsorbing).
  BackendExecutor(std::function<void()> activityCallback, double maxQueueWeight, int workers = 1,
                  bool absorbChanges = false,
                  std::chrono::milliseconds absorbWindow = std::chrono::milliseconds(0));
  ~BackendExecutor() override;
  BackendExecutor(const BackendExecutor&) = delete;
  BackendExecutor& operator=(const BackendExecutor&) = delete;

  // Queues a copy of `task`; may block while the queue is over its weight. After shutdown
  // has begun the task is dropped with an error record naming its kind.
  void execute(const std::function<void()>& task, ObservableTransactionType type,
               double weight) override;
  // Queues the task; with absorption on, it may take queued changes it makes moot out of the
  // queue, or be moot itself (see ChangeAbsorber).
  void submit(ReplayTask task) override;
  // Stops accepting tasks and releases held-back submitters; without cancelOutstanding waits
  // until the worker has taken every accepted task (draining), with it discards them unrun.
  // Then tells the worker to end. Does not join, nor wait for a task already running when it
  // cancels. Calling it again is harmless; a cancelling call during a draining one cancels.
  void shutdown(bool cancelOutstanding) override;
  void join() override;
  bool isStopped() override;
  std::chrono::system_clock::time_point lastCompletionTime() override;
  bool isQueueEmpty() override;
  // Queues a no-op marker (past the weight bound) and waits until the worker has taken it,
  // so every task submitted before the call has run; later submissions do not hold it up.
  // Returns early, or at once, when a cancelling shutdown discards the marker or the worker
  // has ended.
  void waitForPendingToFinish() override;
  void setMaxQueueWeight(double maxWeight) override;
  std::string captureQueueMetrics() override;

 private:
  void enqueue(QueuedTransaction entry);
  void runWorker();
  void perform(QueuedTransaction& entry);
  // Takes and runs one entry; false once the workers are told to end.
  bool runOne();
  static void logRefused(ObservableTransactionType type);

  std::function<void()> activityCallback_;
  std::atomic<bool> stopped_{false};  // set once shutdown has drained; the worker then ends
  std::mutex joinMutex_;
  WeightedTransactionQueue queue_;
  std::atomic<std::chrono::system_clock::time_point> lastCompletion_;
  std::atomic<int> liveWorkers_;
  std::vector<std::thread> workers_;
};

}  // namespace storage::overlayprovider
