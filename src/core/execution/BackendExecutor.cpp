#include "core/execution/BackendExecutor.h"

#include "core/execution/CurrentReplay.h"
#include "core/support/OverlayLog.h"
#include "core/support/ThreadName.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace storage::overlayprovider {

BackendExecutor::BackendExecutor(std::function<void()> activityCallback, double maxQueueWeight,
                                 int workers, bool absorbChanges,
                                 std::chrono::milliseconds absorbWindow)
    : activityCallback_(std::move(activityCallback)),
      queue_(maxQueueWeight),
      lastCompletion_(std::chrono::system_clock::now()),
      liveWorkers_(std::max(1, workers)) {
  queue_.setAbsorbing(absorbChanges, absorbWindow);
  for (int n = 0; n < std::max(1, workers); ++n) {
    workers_.emplace_back([this] { runWorker(); });
  }
  OVERLAY_LOG(foundation::log::notice)
      << "BackendExecutor initialized with a max queue weight "
      << "of " << maxQueueWeight << " and " << workers_.size() << " worker(s)"
      << (absorbChanges ? ", absorbing moot changes" : "")
      << (absorbChanges && absorbWindow.count() > 0
              ? " within " + std::to_string(absorbWindow.count()) + " ms"
              : "");
}

BackendExecutor::~BackendExecutor() {
  for (const auto& worker : workers_) {
    if (worker.joinable()) std::terminate();
  }
}

void BackendExecutor::execute(const std::function<void()>& task, ObservableTransactionType type,
                              double weight) {
  enqueue(QueuedTransaction(task, false, weight, type));
}

void BackendExecutor::submit(ReplayTask task) { enqueue(QueuedTransaction(std::move(task))); }

void BackendExecutor::enqueue(QueuedTransaction entry) {
  const auto type = entry.type;
  if (queue_.isClosed()) {
    logRefused(type);
    return;
  }
  if (queue_.isIdle()) {
    if (!activityCallback_) {
      throw std::bad_function_call();
    }
    activityCallback_();
  }
  // The closed test above only spares a refused task the activity callback; the one that
  // counts is made by push, under the queue's mutex, together with the acceptance.
  if (!queue_.push(std::move(entry))) {
    logRefused(type);
  }
}

void BackendExecutor::logRefused(ObservableTransactionType type) {
  OVERLAY_LOG(foundation::log::error) << "Attempted to execute task when no longer accepting.";
  OVERLAY_LOG(foundation::log::debug) << "ObservableTransactionType: " << type;
}

void BackendExecutor::runWorker() {
  nameThisThread("ovl replay");
  try {
    while (runOne()) {
    }
  } catch (...) {
    logCaughtException("BackendExecutor worker ended by an unexpected exception");
  }
  // The last worker out releases flushes and held-back submitters, refuses later tasks and
  // discards leftovers; while another worker lives, the queue still has someone to run it.
  if (liveWorkers_.fetch_sub(1) != 1) return;
  try {
    queue_.workerEnded();
  } catch (...) {
    logCaughtException("BackendExecutor worker could not close its queue");
  }
}

bool BackendExecutor::runOne() {
  auto entry = queue_.take();
  if (!entry) return false;
  if (!entry->internal) {
    // So that what the task calls (store wrappers, log lines) can tell which change it serves.
    CurrentReplay replaying(entry->serial);
    perform(*entry);
  }
  // What the task holds goes before the entry counts as finished: a flush that returns once
  // it has must find the file's pending count already down.
  try {
    entry->task = nullptr;
    entry->run = nullptr;
    entry->moot = nullptr;
    entry->absorbedMoot.clear();
  } catch (...) {
    logFailedTask(entry->type);
  }
  queue_.finished(*entry);
  return true;
}

// The provider's tasks report their own failures (runWithRetry logs them); whatever still
// escapes must not end the worker and strand the rest of the queue, nor vanish. Each local half
// runs on its own, so that one failing does not skip the confirmations of the others.
void BackendExecutor::perform(QueuedTransaction& entry) {
  bool succeeded = true;
  const auto attempt = [&](const std::function<void()>& step) {
    try {
      if (step) step();
    } catch (...) {
      succeeded = false;
      logFailedTask(entry.type);
    }
  };
  if (!entry.change) {
    attempt([&] { entry.task(); });  // an empty task throws, and is logged as a failure
  } else if (!entry.isMoot) {
    attempt([&] { entry.run(*entry.change); });
  }
  for (const auto& handler : entry.absorbedMoot) attempt(handler);
  if (entry.change && entry.isMoot) attempt(entry.moot);
  if (succeeded) lastCompletion_.store(std::chrono::system_clock::now());
}

void BackendExecutor::shutdown(bool cancelOutstanding) {
  if (cancelOutstanding) {
    OVERLAY_LOG(foundation::log::debug) << "Cancelling outstanding";
  }
  queue_.close(cancelOutstanding);
  queue_.waitUntilEmpty();
  stopped_.store(true);
  // The workers may be asleep on an empty queue: every take returns nothing from now on.
  queue_.stopWorkers();
}

void BackendExecutor::join() {
  std::lock_guard lock(joinMutex_);
  for (auto& worker : workers_) {
    if (worker.joinable()) worker.join();
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
