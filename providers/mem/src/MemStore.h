// MemStore: what a MemProvider shares with the streams it opened: the one mutex, the tree it
// guards and the event thread. Streams hold it by shared_ptr, so a stream that outlives its
// provider still has a valid lock and tree (its file simply no longer changes anything the
// provider could show).
//
// Locks: `mutex` guards the whole tree, every node and every file content (MemTree takes no
// lock of its own). It is held for the whole of one provider call or one stream call and is
// never held while a subscriber runs. While holding it a caller may post to `events` (which
// takes the dispatcher's queue mutex: store mutex first, queue mutex second).
#pragma once

#include "MemEventDispatcher.h"
#include "MemTree.h"

#include <mutex>

namespace foundation::storage::provider::mem {

struct MemStore {
  MemStore(FilenameSensitivity sensitivity, std::uint64_t capacity) : tree(sensitivity, capacity) {}

  // Queues the changes for delivery; call with `mutex` held so that they are queued in the
  // order they were made.
  void publish(const MemTree::Changes& changes) {
    for (const MemChange& change : changes) events.post(change);
  }

  std::mutex mutex;
  MemTree tree;
  MemEventDispatcher events;
};

}  // namespace foundation::storage::provider::mem
