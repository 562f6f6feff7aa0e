// SynchronousExecutor: the executor for an overlay configured without write-behind: each task
// runs on the submitting thread, before execute returns.
//
// Owned by the provider through std::shared_ptr<IExecutor>. Takes no lock. A task's exception
// goes back to the submitter, but is first logged with the task's kind and the exception's
// diagnostic text, as the BackendExecutor does: a failure must leave the same trace whichever
// executor ran it, also when the submitter drops it. Any thread may call any operation; the
// task and the activity callback run on the calling thread; the flags are atomics.
#pragma once

#include "core/execution/IExecutor.h"

#include <atomic>
#include <chrono>
#include <functional>

namespace storage::overlayprovider {

class SynchronousExecutor : public IExecutor {
 public:
  // `activityCallback` runs after every execute, also after shutdown (an empty one makes
  // execute throw std::bad_function_call).
  explicit SynchronousExecutor(std::function<void()> activityCallback);

  // Runs the task, stores its completion time and calls the activity callback. After shutdown
  // the task is dropped silently but the activity callback still runs: the provider uses it
  // as its "something happened" heartbeat. A throwing task (an empty one throws
  // std::bad_function_call) is logged and rethrown, skipping both the time and callback.
  void execute(const std::function<void()>& task, ObservableTransactionType type,
               double weight) override;
  void shutdown(bool cancelOutstanding) override;
  void join() override {}
  bool isStopped() override;
  std::chrono::system_clock::time_point lastCompletionTime() override;
  // Nothing ever waits here, before or after shutdown: every task has run when execute
  // returns.
  bool isQueueEmpty() override { return true; }
  void waitForPendingToFinish() override {}
  void setMaxQueueWeight(double) override {}
  std::string captureQueueMetrics() override { return "{}"; }

 private:
  std::function<void()> activityCallback_;
  std::atomic<bool> stopped_{false};
  std::atomic<std::chrono::system_clock::time_point> lastCompletion_;
};

}  // namespace storage::overlayprovider
