// ExecutorSlot: the place that names the provider's current executor.
//
// Configuration may replace the executor while the provider runs ("overlay.synchronous"), and
// working files made before that must send their later writes to the new one, not to an
// executor that has been drained and stopped. So the provider and every working file share
// one slot and look the executor up at each submission instead of keeping their own pointer.
//
// Ownership: made by the provider with std::make_shared and shared with its working files
// (which may outlive the provider). Locks: one mutex, held only to copy or swap the pointer
// (a plain mutex rather than std::atomic<std::shared_ptr>, whose lock-bit implementation in
// libstdc++ 12 ThreadSanitizer cannot follow); any thread.
#pragma once

#include "core/execution/IExecutor.h"

#include <memory>
#include <mutex>

namespace storage::overlayprovider {

class ExecutorSlot {
 public:
  ExecutorSlot() = default;
  explicit ExecutorSlot(std::shared_ptr<IExecutor> executor) : current_(std::move(executor)) {}
  ExecutorSlot(const ExecutorSlot&) = delete;
  ExecutorSlot& operator=(const ExecutorSlot&) = delete;

  // Empty until the provider has made or been given an executor.
  std::shared_ptr<IExecutor> load() const {
    std::lock_guard lock(mutex_);
    return current_;
  }
  void store(std::shared_ptr<IExecutor> executor) { exchange(std::move(executor)); }
  std::shared_ptr<IExecutor> exchange(std::shared_ptr<IExecutor> executor) {
    std::lock_guard lock(mutex_);
    std::swap(current_, executor);
    return executor;
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<IExecutor> current_;
};

}  // namespace storage::overlayprovider
