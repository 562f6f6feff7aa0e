// MemChange: one change of the in-memory tree, as it will be published to subscribers.
// Plain value; made under MemStore::mutex and delivered later on the event thread.
#pragma once

#include <foundation/storage/events/Events.h>
#include <foundation/storage/provider/StorageIRI.h>

namespace foundation::storage::provider::mem {

struct MemChange {
  events::Kind kind;
  StorageIRI location;
  // The other end of a move (see Events.h); otherwise the same as `location`.
  StorageIRI other;
  events::EntryType type;
};

}  // namespace foundation::storage::provider::mem
