// BackendExecutor: the write-behind executor. Submitters return as soon as their task is
// queued; one worker thread replays the tasks on the inner store strictly in submission order
// (no priorities, no merging), so the inner store sees the same sequence of changes as the
// overlay did.
//
// Back-pressure: each task carries a weight; while more than the max queue weight is waiting,
// execute() blocks the submitter (see WeightedTransactionQueue).
//
// Ownership and lifetime: made with std::make_shared and owned by the provider as
// std::shared_ptr<IExecutor>. The owner must call shutdown() and then join() before the last
// reference goes: destroying an executor whose worker is still joinable calls
// std::terminate(), because a worker left running would use a destroyed queue. Entries still
// queued at destruction are destroyed unrun.
//
// Threads: execute, shutdown, waitForPendingToFinish, setMaxQueueWeight and
// captureQueueMetrics are called by the provider's threads; the worker only runs tasks.
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

namespace storage::overlayprovider {

class BackendExecutor : public IExecutor {
 public:
  // Starts the worker. `activityCallback` is called on the submitter's thread when a task
  // arrives at an idle executor (empty queue, worker not busy), to tell the provider that
  // background activity starts; an empty one makes that execute throw
  // std::bad_function_call. maxQueueWeight <= 0 means unbounded.
  BackendExecutor(std::function<void()> activityCallback, double maxQueueWeight);
  ~BackendExecutor() override;
  BackendExecutor(const BackendExecutor&) = delete;
  BackendExecutor& operator=(const BackendExecutor&) = delete;

  // Queues a copy of `task`; may block while the queue is over its weight. After shutdown
  // has begun the task is dropped with an error record naming its kind.
  void execute(const std::function<void()>& task, ObservableTransactionType type,
               double weight) override;
  // Stops accepting tasks; without cancelOutstanding waits until the worker has taken every
  // queued task (draining), with it discards them unrun. Then tells the worker to end. Does
  // not join. Beware: a cancelled backlog keeps its weight, so if that weight was above the
  // bound, the final wake-up push blocks for good.
  void shutdown(bool cancelOutstanding) override;
  void join() override;
  bool isStopped() override;
  std::chrono::system_clock::time_point lastCompletionTime() override;
  bool isQueueEmpty() override;
  // Queues a no-op marker and waits until the queue is empty, so every task submitted before
  // the call has been taken. Checks no flags: once the worker has ended (after shutdown) it
  // never returns. Subject to the weight bound like any submission.
  void waitForPendingToFinish() override;
  void setMaxQueueWeight(double maxWeight) override;
  void captureQueueMetrics() override;

 private:
  void runWorker();
  void runOne();

  std::function<void()> activityCallback_;
  std::atomic<bool> stopped_{false};  // set at the end of shutdown; the worker then ends
  std::atomic<bool> closed_{false};   // set at the start of shutdown; no longer accepting
  std::mutex joinMutex_;
  WeightedTransactionQueue queue_;
  std::atomic<std::chrono::system_clock::time_point> lastCompletion_;
  std::atomic<bool> busy_{false};  // the worker is taking or running an entry
  std::thread worker_;
};

}  // namespace storage::overlayprovider
