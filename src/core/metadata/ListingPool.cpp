#include "core/metadata/ListingPool.h"

#include "core/support/OverlayLog.h"
#include "core/support/ThreadName.h"

namespace storage::overlayprovider {

ListingTask::ListingTask(std::function<void()> work) : work_(std::move(work)) {}

bool ListingTask::take() {
  std::lock_guard lock(mutex_);
  if (state_ != State::Queued) return false;
  state_ = State::Running;
  return true;
}

void ListingTask::run() {
  try {
    work_();
  } catch (...) {
    logCaughtException("A folder listing failed outside its entry.");
  }
  finish();
}

void ListingTask::finish() {
  std::function<void()> work;
  {
    std::lock_guard lock(mutex_);
    state_ = State::Done;
    work.swap(work_);  // what it holds goes now, outside the lock
  }
  done_.notify_all();
}

void ListingTask::runOrWait() {
  if (take()) return run();
  std::unique_lock lock(mutex_);
  done_.wait(lock, [this] { return state_ == State::Done; });
}

void ListingTask::cancelOrWait() {
  if (take()) return finish();
  std::unique_lock lock(mutex_);
  done_.wait(lock, [this] { return state_ == State::Done; });
}

bool ListingTask::isDone() const {
  std::lock_guard lock(mutex_);
  return state_ == State::Done;
}

ListingPool::ListingPool(std::size_t threads) : maxThreads_(threads == 0 ? 1 : threads) {}

ListingPool::~ListingPool() {
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(shared_->mutex);
    shared_->stopping = true;
    threads.swap(threads_);
    shared_->queue.clear();
  }
  shared_->wake.notify_all();
  for (auto& thread : threads) {
    try {
      // Should the last owner drop the pool on one of its own threads, that one cannot join
      // itself: it leaves its loop on its own, holding the shared state.
      if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
      } else {
        thread.join();
      }
    } catch (...) {
      logCaughtException("Stopping a listing thread failed.");
    }
  }
}

std::shared_ptr<ListingTask> ListingPool::submit(std::function<void()> work) {
  auto task = std::make_shared<ListingTask>(std::move(work));
  {
    std::lock_guard lock(shared_->mutex);
    shared_->queue.push_back(task);
    if (shared_->idle == 0 && threads_.size() < maxThreads_) {
      try {
        threads_.emplace_back([shared = shared_] { workerLoop(shared); });
      } catch (...) {
        // No thread to be had: the task stays queued, and whoever waits for it runs it.
        logCaughtException("Starting a listing thread failed.");
      }
    }
  }
  shared_->wake.notify_one();
  return task;
}

void ListingPool::workerLoop(const std::shared_ptr<Shared>& shared) {
  nameThisThread("ovl listing");
  try {
    std::unique_lock lock(shared->mutex);
    for (;;) {
      ++shared->idle;
      shared->wake.wait(lock, [&] { return shared->stopping || !shared->queue.empty(); });
      --shared->idle;
      if (shared->stopping) return;
      auto task = std::move(shared->queue.front());
      shared->queue.pop_front();
      lock.unlock();
      // A waiter may have taken it over already: then there is nothing left to do here.
      if (task->take()) task->run();
      task.reset();
      lock.lock();
    }
  } catch (...) {
    logCaughtException("A listing thread stopped.");
  }
}

}  // namespace storage::overlayprovider
