// ReplayedChange: what one store call of the overlay's replay does to a location, as told by
// the replay (the provider's mutations, a working file's writes) to whoever recognises the
// store's echoes of it (ReplayEchoes, in events/). It lives here, at the bottom, because the
// working files that report their writes sit below the events folder.
// A plain value; any thread.
#pragma once

#include <foundation/storage/provider/StorageIRI.h>

#include <functional>

namespace storage::overlayprovider {

enum class ReplayedChange {
  Created,        // a file or folder made at the location (an open that may create counts)
  Removed,        // the location and everything below it removed
  MovedFrom,      // the location moved away, with everything below it
  MovedTo,        // something moved onto the location, with everything below it
  Written,        // a file's bytes written, truncated or its store stream closed after writing
  AttributesSet,  // a time stamp or the writable flag set
};

// How the replay reports a change just before it makes the store call; the location is the
// overlay's. Empty when nobody listens. Must not throw.
using ReplayedChangeNote =
    std::function<void(const foundation::storage::provider::StorageIRI&, ReplayedChange)>;

}  // namespace storage::overlayprovider
