// MemEventDispatcher: the event thread of one MemProvider. Changes are queued by the
// provider (under MemStore::mutex, so the queue order is the order of the changes) and
// delivered on the dispatcher's own thread through the subscription table, the way a
// remote store reports changes some time after the request returned.
//
// Ownership: owned by MemStore. The queue, the subscription table and the thread's state
// live in a block shared with the thread, so that a subscriber dropping the last reference
// to the provider from inside its callback (the dispatcher then being destroyed on its own
// thread) cannot leave the thread running on freed memory: the thread is detached instead
// of joined and finishes on the shared block.
// Locks: the queue mutex only, never held while calling subscribers; it may be taken while
// MemStore::mutex is held (store mutex first), never the other way round. The subscription
// table takes its own mutex (see EventSubscriptions).
// Threads: post/subscriptions/waitUntilDelivered/stop from any thread; delivery on the
// dispatcher thread, which starts at construction and ends at stop() or destruction.
#pragma once

#include "MemChange.h"

#include <foundation/storage/provider/EventSubscriptions.h>

#include <memory>
#include <thread>

namespace foundation::storage::provider::mem {

class MemEventDispatcher {
 public:
  MemEventDispatcher();
  ~MemEventDispatcher();
  MemEventDispatcher(const MemEventDispatcher&) = delete;
  MemEventDispatcher& operator=(const MemEventDispatcher&) = delete;

  EventSubscriptions& subscriptions();
  // Queues a change for delivery. Ignored after stop(), and when nobody subscribed (nobody
  // could hear it).
  void post(MemChange change);
  // Returns once every change posted before the call has been delivered (at once after
  // stop(), or when called on the dispatcher thread itself, which could never see its own
  // delivery end).
  void waitUntilDelivered();
  // Ends the thread; changes not yet delivered are dropped (and counted in the log).
  // Idempotent.
  void stop();

 private:
  struct Shared;
  static void run(const std::shared_ptr<Shared>& shared);

  std::shared_ptr<Shared> shared_;
  std::thread thread_;
};

}  // namespace foundation::storage::provider::mem
