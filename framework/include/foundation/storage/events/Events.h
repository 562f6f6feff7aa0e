// Change events: what changed (Kind) and what kind of entry it concerns (EntryType).
//
// The numeric values of Kind are part of the contract between every provider and every
// listener: a listener may read the raw value, so each value keeps one meaning forever.
//   1 Rescan      anything at or below the location may have changed (the store's event queue
//                 overflowed, or the watcher cannot tell what changed): everything cached about
//                 it must be read again;
//   2 Appeared    an entry appeared at the location (created, or moved in);
//   3 Disappeared the entry at the location went away (removed, or moved out);
//   4 Changed     the entry itself changed (content or attributes).
// There is no move kind: a move is published as two events, Disappeared at its source and
// then Appeared at its destination. The event's second location names the other end when the
// store knows it (the destination for the Disappeared, the source for the Appeared); when it
// does not (an entry moved in from or out to somewhere the store does not see), and for every
// other event, the second location is the event's own location.
// No value is 0, so a Kind left zero-initialised by mistake means nothing.
#pragma once

#include <cstdint>

namespace foundation::storage::events {

enum class Kind : std::uint32_t {
  Rescan = 1,
  Appeared = 2,
  Disappeared = 3,
  Changed = 4,
};

enum class EntryType : std::uint32_t { File = 0, Folder = 1, Unknown = 2 };

}  // namespace foundation::storage::events
