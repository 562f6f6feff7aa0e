#include "core/execution/SynchronousExecutor.h"

#include "core/support/OverlayLog.h"

#include <utility>

namespace storage::overlayprovider {

SynchronousExecutor::SynchronousExecutor(std::function<void()> activityCallback)
    : activityCallback_(std::move(activityCallback)),
      lastCompletion_(std::chrono::system_clock::now()) {}

void SynchronousExecutor::execute(const std::function<void()>& task, ObservableTransactionType type,
                                  double) {
  if (!stopped_.load()) {
    try {
      task();  // an empty task throws std::bad_function_call
    } catch (...) {
      logFailedTask(type);
      throw;
    }
    lastCompletion_.store(std::chrono::system_clock::now());
  }
  if (!activityCallback_) {
    throw std::bad_function_call();
  }
  activityCallback_();
}

void SynchronousExecutor::shutdown(bool) { stopped_.store(true); }

bool SynchronousExecutor::isStopped() { return stopped_.load(); }

std::chrono::system_clock::time_point SynchronousExecutor::lastCompletionTime() {
  return lastCompletion_.load();
}

}  // namespace storage::overlayprovider
