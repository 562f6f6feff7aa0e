// RecoveredWrites: where the bytes of each recovered write are now.
//
// A write record names a byte range of its file's cached body; the bytes themselves stay in
// the body. By the time a later process replays the record, later changes may have moved the
// file (or a folder above it) or removed it, and later writes may have overwritten the range.
// The body that holds the bytes is then the one at the file's final location, and it holds
// the bytes of the last write of every range: replaying every pending record in order with
// those bytes leaves the store exactly as the last of them would, which is all that recovery
// promises (the bytes of a range that a later write overwrites are never seen again).
//
// finalBodyLocations follows each written file through the later moves of it and of the
// folders above it; a removal of it or of a folder above it, or a move that replaces it, ends
// it (its bytes are never needed again). Locations are compared by path as the records
// spell them.
//
// A move is recorded before it is applied to the caches, so a crash can come between the two:
// the bytes are then still in the body at the source. A move is taken as not applied when the
// file's body is still at its source (`hasBody`) and no later change names that location
// (which could have put another body there).
//
// Pure functions; no state, no locks.
#pragma once

#include "core/execution/ReplayChange.h"

#include <functional>
#include <optional>
#include <vector>

namespace storage::overlayprovider {

// One entry per change: for a WriteRange, the location whose body holds its bytes after the
// last change (empty when the file is gone by then); empty for every other action.
std::vector<std::optional<foundation::storage::provider::StorageIRI>> finalBodyLocations(
    const std::vector<ReplayChange>& changes,
    const std::function<bool(const foundation::storage::provider::StorageIRI&)>& hasBody);

}  // namespace storage::overlayprovider
