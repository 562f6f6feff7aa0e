#include "core/execution/BackendExecutor.h"

#include "core/support/OverlayLog.h"

#include <exception>
#include <utility>

namespace storage::overlayprovider {

BackendExecutor::BackendExecutor(std::function<void()> activityCallback, double maxQueueWeight)
    : activityCallback_(std::move(activityCallback)),
      queue_(maxQueueWeight),
      lastCompletion_(std::chrono::system_clock::now()) {
  worker_ = std::thread([this] { runWorker(); });
  OVERLAY_LOG(foundation::log::notice) << "BackendExecutor initialized with a max queue weight "
                                       << "of " << maxQueueWeight;
}

BackendExecutor::~BackendExecutor() {
  if (worker_.joinable()) {
    std::terminate();
  }
}

void BackendExecutor::execute(const std::function<void()>& task, ObservableTransactionType type,
                              double weight) {
  if (queue_.isClosed()) {
    logRefused(type);
    return;
  }
  if (queue_.isEmpty() && !busy_.load()) {
    if (!activityCallback_) {
      throw std::bad_function_call();
    }
    activityCallback_();
  }
  // The closed test above only spares a refused task the activity callback; the one that
  // counts is made by push, under the queue's mutex, together with the acceptance.
  if (!queue_.push(QueuedTransaction(task, false, weight, type))) {
    logRefused(type);
  }
}

void BackendExecutor::logRefused(ObservableTransactionType type) {
  OVERLAY_LOG(foundation::log::error) << "Attempted to execute task when no longer accepting.";
  OVERLAY_LOG(foundation::log::debug) << "ObservableTransactionType: " << type;
}

void BackendExecutor::runWorker() {
  try {
    while (!stopped_.load()) {
      runOne();
    }
  } catch (...) {
    logCaughtException("BackendExecutor worker ended by an unexpected exception");
  }
  try {
    // Releases flushes and held-back submitters, refuses later tasks, discards leftovers.
    queue_.workerEnded();
  } catch (...) {
    logCaughtException("BackendExecutor worker could not close its queue");
  }
}

void BackendExecutor::runOne() {
  busy_.store(true);
  QueuedTransaction entry = queue_.take();
  if (!entry.internal) {
    // The provider's tasks report their own failures (runWithRetry logs them); whatever
    // still escapes must not end the worker and strand the rest of the queue, nor vanish.
    try {
      entry.task();
      lastCompletion_.store(std::chrono::system_clock::now());
    } catch (...) {
      logFailedTask(entry.type);
    }
  }
  busy_.store(false);
}

void BackendExecutor::shutdown(bool cancelOutstanding) {
  if (cancelOutstanding) {
    OVERLAY_LOG(foundation::log::debug) << "Cancelling outstanding";
  }
  queue_.close(cancelOutstanding);
  queue_.waitUntilEmpty();
  stopped_.store(true);
  // The worker may be asleep on an empty queue: give it one entry to wake up to. A marker
  // never waits on the bound.
  queue_.push(QueuedTransaction::marker());
}

void BackendExecutor::join() {
  std::lock_guard lock(joinMutex_);
  if (worker_.joinable()) {
    worker_.join();
  }
}

bool BackendExecutor::isStopped() { return stopped_.load(); }

std::chrono::system_clock::time_point BackendExecutor::lastCompletionTime() {
  return lastCompletion_.load();
}

bool BackendExecutor::isQueueEmpty() { return queue_.isEmpty(); }

void BackendExecutor::waitForPendingToFinish() { queue_.waitForEarlierEntries(); }

void BackendExecutor::setMaxQueueWeight(double maxWeight) {
  OVERLAY_LOG(foundation::log::notice)
      << "Updating BackendExecutor max queue weight to " << maxWeight;
  queue_.setMaxWeight(maxWeight);
}

std::string BackendExecutor::captureQueueMetrics() { return queue_.captureMetrics(); }

}  // namespace storage::overlayprovider
