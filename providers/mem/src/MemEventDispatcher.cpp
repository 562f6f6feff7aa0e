#include "MemEventDispatcher.h"

#include "MemLog.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>

namespace foundation::storage::provider::mem {

struct MemEventDispatcher::Shared {
  std::mutex mutex;
  std::condition_variable wake;       // the thread waits for work or stop
  std::condition_variable delivered;  // waitUntilDelivered waits for posted == finished
  std::deque<MemChange> queue;
  std::uint64_t posted = 0;
  std::uint64_t finished = 0;
  bool stopping = false;
  std::thread::id threadId;
  EventSubscriptions subscriptions;
};

MemEventDispatcher::MemEventDispatcher() : shared_(std::make_shared<Shared>()) {
  thread_ = std::thread([shared = shared_] { run(shared); });
  std::lock_guard lock(shared_->mutex);
  shared_->threadId = thread_.get_id();
}

MemEventDispatcher::~MemEventDispatcher() { stop(); }

EventSubscriptions& MemEventDispatcher::subscriptions() { return shared_->subscriptions; }

void MemEventDispatcher::post(MemChange change) {
  if (shared_->subscriptions.empty()) return;
  {
    std::lock_guard lock(shared_->mutex);
    if (shared_->stopping) return;
    shared_->queue.push_back(std::move(change));
    ++shared_->posted;
  }
  shared_->wake.notify_one();
}

void MemEventDispatcher::waitUntilDelivered() {
  std::unique_lock lock(shared_->mutex);
  if (std::this_thread::get_id() == shared_->threadId) return;
  const std::uint64_t target = shared_->posted;
  shared_->delivered.wait(lock, [&] { return shared_->stopping || shared_->finished >= target; });
}

void MemEventDispatcher::stop() {
  std::size_t dropped = 0;
  {
    std::lock_guard lock(shared_->mutex);
    if (shared_->stopping) return;
    shared_->stopping = true;
    dropped = shared_->queue.size();
    shared_->queue.clear();
  }
  shared_->wake.notify_all();
  shared_->delivered.notify_all();
  if (dropped != 0) {
    FOUNDATION_LOG(memLogger(), log::notice)
        << "Event thread stopped with " << dropped << " undelivered change(s)";
  }
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // destroyed from a subscriber's callback: finish on the shared block
  } else if (thread_.joinable()) {
    thread_.join();
  }
}

void MemEventDispatcher::run(const std::shared_ptr<Shared>& shared) {
  std::unique_lock lock(shared->mutex);
  while (true) {
    shared->wake.wait(lock, [&] { return shared->stopping || !shared->queue.empty(); });
    if (shared->stopping) return;
    MemChange change = std::move(shared->queue.front());
    shared->queue.pop_front();
    lock.unlock();
    try {
      shared->subscriptions.deliver(change.kind, change.location, change.other, change.type);
    } catch (const std::exception& e) {
      FOUNDATION_LOG(memLogger(), log::error) << "Event delivery failed: " << e.what();
    } catch (...) {
      FOUNDATION_LOG(memLogger(), log::error) << "Event delivery failed: unknown exception";
    }
    lock.lock();
    ++shared->finished;
    shared->delivered.notify_all();
  }
}

}  // namespace foundation::storage::provider::mem
