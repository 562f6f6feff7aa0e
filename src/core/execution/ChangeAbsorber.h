// ChangeAbsorber: finds the queued changes that an arriving change makes moot, so that the
// store is never asked to do work that a later change undoes or repeats.
//
// The rules, each on changes still queued (none has started) with no barrier between:
//   - a time stamp or writable flag set again on the same location replaces the one still
//     queued, when that is the location's latest queued change;
//   - a file's creation followed by the open that creates it, or by its first write: the open
//     or the write creates the file itself (the write is marked kCreatesFile), one call less;
//   - a file's write whose bytes a later write covers, with only writes of the file between:
//     the later write reads the file's current bytes anyway (only writes that cover are
//     dropped, so every byte still reaches the store, and a file's truncation already cuts
//     its queued writes; see PendingWriteBlock::clip);
//   - a file created under one name and moved before any of it replayed (how git, editors
//     and many tools write): its stream changes are taken along to the destination (marked
//     kFollowsMove, re-keyed there), the relocation of its stream that the move queued goes,
//     and the move itself costs nothing. Only when the destination was free, only the file's
//     own creation, stream changes and attribute changes (whose replay works where the
//     change is when it runs) from its creation to the move, and nothing else touching the
//     destination after the creation;
//   - a file's time stamps queued since its last close, when the arriving close will stamp
//     the file itself (a write, truncation or creating open of the file is queued before it):
//     the close stamps the time the file has when it runs, which is the last one set. A stamp
//     arriving right after such a close is moot likewise. With the stamps gone, a creation
//     followed by the file's first write or creating open is merged into it, as on arrival;
//   - a file's close, when all its stream did since the file was created or emptied is one
//     write from the start: that write becomes the file's whole content (kWholeFile), which
//     the store may take in one call with the time stamp; the creation or emptying open
//     before it goes, and the close finds nothing left to send;
//   - a file removed while its creation is still queued: the creation, everything queued on the
//     file since, and the removal itself cost the store nothing. Only changes of exactly that
//     file may lie between (a move of it or of a folder above it stops the rule);
//   - a folder removed while its creation is still queued: likewise for everything queued at
//     or below it, provided none of it reaches outside the folder (a move out of it, say).
//     Only a plain creation counts: a creation of a whole path may have made folders above
//     it too, which the removal leaves in place.
// A change whose submitter gave it no local half (ReplayTask::moot) is never absorbed, and a
// barrier (a change that says nothing of its locations, a flush) stops every rule.
//
// Pure: judges a queue it is shown, finding the entries that touch a location through the
// queue's QueueScopeIndex rather than by walking it; the WeightedTransactionQueue calls it
// under its mutex and carries out the verdict. No state, no lock, any thread.
#pragma once

#include "core/execution/QueueScopeIndex.h"
#include "core/execution/QueuedTransaction.h"

#include <cstddef>
#include <deque>
#include <utility>
#include <vector>

namespace storage::overlayprovider {

class ChangeAbsorber {
 public:
  // How far back from the end of the queue a rule looks.
  static constexpr std::size_t kLookback = 4096;
  // How many of a file's latest queued changes a write looks at for writes it covers.
  static constexpr std::size_t kWriteLookback = 16;

  struct Verdict {
    std::vector<std::size_t> withdrawn;  // positions in the queue, ascending
    bool arrivalMoot = false;            // the arriving change need not reach the store
    int addFlags = 0;                    // flags the arriving change takes on
    // Positions (ascending) whose change now happens at the arriving move's destination.
    std::vector<std::size_t> relocated;
    // Queued changes that take on flags: (position, flags).
    std::vector<std::pair<std::size_t, int>> flagged;
  };

  // `index` holds the scope of every entry of `queue` under the entry's serial.
  static Verdict judge(const std::deque<QueuedTransaction>& queue, const QueueScopeIndex& index,
                       const QueuedTransaction& arriving);
};

}  // namespace storage::overlayprovider
