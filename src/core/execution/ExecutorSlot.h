// ExecutorSlot: the place that names the provider's current executor.
//
// Configuration may replace the executor while the provider runs ("overlay.synchronous"), and
// working files made before that must send their later writes to the new one, not to an
// executor that has been drained and stopped. So the provider and every working file share
// one slot and look the executor up at each submission instead of keeping their own pointer.
//
// Ownership: made by the provider with std::make_shared and shared with its working files
// (which may outlive the provider). Locks: none; the pointer is an atomic shared pointer, so
// load and exchange are safe from any thread.
#pragma once

#include "core/execution/IExecutor.h"

#include <atomic>
#include <memory>

namespace storage::overlayprovider {

class ExecutorSlot {
 public:
  ExecutorSlot() = default;
  explicit ExecutorSlot(std::shared_ptr<IExecutor> executor) : current_(std::move(executor)) {}
  ExecutorSlot(const ExecutorSlot&) = delete;
  ExecutorSlot& operator=(const ExecutorSlot&) = delete;

  // Empty until the provider has made or been given an executor.
  std::shared_ptr<IExecutor> load() const { return current_.load(); }
  void store(std::shared_ptr<IExecutor> executor) { current_.store(std::move(executor)); }
  std::shared_ptr<IExecutor> exchange(std::shared_ptr<IExecutor> executor) {
    return current_.exchange(std::move(executor));
  }

 private:
  std::atomic<std::shared_ptr<IExecutor>> current_;
};

}  // namespace storage::overlayprovider
