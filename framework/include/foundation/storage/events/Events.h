// Change events: what changed (Kind) and what kind of entry it concerns (EntryType).
// The numeric values are part of the contract: never renumber.
#pragma once

#include <cstdint>

namespace foundation::storage::events {

enum class Kind : std::uint32_t {
  // An entry appeared at the location.
  Created = 0,
  // The entry at the location went away.
  Removed = 1,
  // The entry's content or attributes changed.
  Modified = 2,
  // The entry moved from the first location to the second.
  Moved = 3,
  // Anything at or below the location may have changed (for instance after the store's
  // event queue overflowed): everything cached about it must be read again.
  Rescan = 4,
};

enum class EntryType : std::uint32_t { File = 0, Folder = 1, Unknown = 2 };

}  // namespace foundation::storage::events
