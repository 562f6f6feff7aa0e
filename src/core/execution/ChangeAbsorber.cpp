#include "core/execution/ChangeAbsorber.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace storage::overlayprovider {

namespace {

using Verdict = ChangeAbsorber::Verdict;

Verdict withdrawing(std::vector<std::size_t> positions, bool arrivalMoot = false, int flags = 0) {
  Verdict verdict;
  verdict.withdrawn = std::move(positions);
  verdict.arrivalMoot = arrivalMoot;
  verdict.addFlags = flags;
  return verdict;
}

bool absorbable(const QueuedTransaction& entry) {
  return entry.change.has_value() && static_cast<bool>(entry.moot) && !entry.internal;
}

// The keys are folded to lower case, so that the order holds across spellings; absorbing
// needs the very same name, since on a case-sensitive store /A and /a are two files.
bool exactlyAt(const QueuedTransaction& entry, const std::u16string& path) {
  return absorbable(entry) && !entry.change->destination &&
         entry.change->location.getPath() == path;
}

bool inside(const std::u16string& path, const std::u16string& folder) {
  return path.size() >= folder.size() && scopesOverlap(path, folder) &&
         path.compare(0, folder.size(), folder) == 0;
}

bool within(const QueuedTransaction& entry, const std::u16string& folder) {
  return absorbable(entry) && inside(entry.change->location.getPath(), folder) &&
         (!entry.change->destination || inside(entry.change->destination->getPath(), folder));
}

bool createsFile(const ReplayChange& change) {
  return change.action == ChangeAction::CreateFile ||
         (change.action == ChangeAction::OpenFile && (change.flags & ReplayChange::kOpenCreates)) ||
         (change.action == ChangeAction::WriteRange && (change.flags & ReplayChange::kCreatesFile));
}

// The queue as the rules see it: its entries, and the index of which of them touch a key,
// limited to the last kLookback entries.
struct QueueView {
  const std::deque<QueuedTransaction>& queue;
  const QueueScopeIndex& index;

  std::uint64_t firstSerial() const {
    if (queue.empty()) return 0;
    return queue.size() > ChangeAbsorber::kLookback
               ? queue[queue.size() - ChangeAbsorber::kLookback].serial
               : queue.front().serial;
  }
  // Entries are queued in serial order and leave it keeping that order.
  std::size_t positionOf(std::uint64_t serial) const {
    const auto found = std::lower_bound(
        queue.begin(), queue.end(), serial,
        [](const QueuedTransaction& entry, std::uint64_t wanted) { return entry.serial < wanted; });
    return static_cast<std::size_t>(found - queue.begin());
  }
};

// The position of the latest queued entry that overlaps `key`, if any within the lookback.
std::optional<std::size_t> latestOverlapping(const QueueView& view, const std::u16string& key) {
  const auto latest = view.index.latestOverlapping(key, view.firstSerial());
  if (!latest) return std::nullopt;
  return view.positionOf(*latest);
}

// Walks back over the entries that overlap `key` while `belongs` holds for each; returns
// their positions (ascending) up to and including the first for which `starts` holds, or
// nothing when the walk stops before one.
template <class Belongs, class Starts>
std::vector<std::size_t> backToStart(const QueueView& view, const std::u16string& key,
                                     Belongs belongs, Starts starts) {
  std::vector<std::size_t> found;
  for (const auto serial : view.index.overlapping(key, view.firstSerial())) {
    const auto position = view.positionOf(serial);
    const auto& entry = view.queue[position];
    if (!belongs(entry)) return {};
    found.push_back(position);
    if (starts(*entry.change)) {
      std::reverse(found.begin(), found.end());
      return found;
    }
  }
  return {};
}

Verdict sameAttributeAgain(const QueueView& view, const ReplayChange& change,
                           const std::u16string& key) {
  const auto& queue = view.queue;
  const auto latest = latestOverlapping(view, key);
  if (!latest || !exactlyAt(queue[*latest], change.location.getPath())) return {};
  if (queue[*latest].change->action != change.action) return {};
  return withdrawing({*latest});
}

Verdict creationMergedInto(const QueueView& view, const ReplayChange& change,
                           const std::u16string& key) {
  const auto& queue = view.queue;
  const auto latest = latestOverlapping(view, key);
  if (!latest || !exactlyAt(queue[*latest], change.location.getPath())) return {};
  if (queue[*latest].change->action != ChangeAction::CreateFile) return {};
  const int flags = change.action == ChangeAction::WriteRange ? ReplayChange::kCreatesFile : 0;
  return withdrawing({*latest}, false, flags);
}

bool contains(const ReplayChange& outer, const ReplayChange& inner) {
  return inner.offset >= outer.offset && inner.offset + inner.length <= outer.offset + outer.length;
}

// The file's queued writes, back from the arrival while nothing else of the file lies between,
// whose bytes the arriving write covers: the store would only receive them to have them
// overwritten. The write that took over the file's creation goes only when nothing stays
// after it, and hands the creation on to the arrival.
Verdict writesOverwrittenBy(const QueueView& view, const ReplayChange& change,
                            const std::u16string& key) {
  Verdict verdict;
  bool kept = false;
  // Rewrites come soon after what they rewrite; a file written from start to end queues a
  // write a block, and looking through all of them for each would cost a long write dearly.
  for (const auto serial :
       view.index.overlapping(key, view.firstSerial(), ChangeAbsorber::kWriteLookback)) {
    const auto position = view.positionOf(serial);
    const auto& entry = view.queue[position];
    if (!exactlyAt(entry, change.location.getPath())) break;
    const auto& queued = *entry.change;
    if (queued.action != ChangeAction::WriteRange) break;
    const bool creates = (queued.flags & ReplayChange::kCreatesFile) != 0;
    if (!contains(change, queued) || (creates && kept)) {
      kept = true;
      if (creates) break;
      continue;
    }
    verdict.withdrawn.push_back(position);
    if (creates) {
      verdict.addFlags = ReplayChange::kCreatesFile;
      break;
    }
  }
  std::reverse(verdict.withdrawn.begin(), verdict.withdrawn.end());
  return verdict;
}

// The changes of a file whose replay works at the location the change names as the executor
// holds it (rather than where it was made), so that a move can take them along.
bool followsItsLocation(const ReplayChange& change) {
  switch (change.action) {
    case ChangeAction::CreateFile:
    case ChangeAction::OpenFile:
    case ChangeAction::WriteRange:
    case ChangeAction::Truncate:
    case ChangeAction::CloseFile:
    case ChangeAction::SetLastModified:
    case ChangeAction::SetWritable:
      return true;
    default:
      return false;
  }
}

bool relocates(const QueuedTransaction& entry, const ReplayChange& move) {
  return absorbable(entry) && entry.change->action == ChangeAction::Relocate &&
         entry.change->location.getPath() == move.location.getPath() && entry.change->destination &&
         entry.change->destination->getPath() == move.destination->getPath();
}

// The positions (ascending) of the file's changes from its creation on, ending with the
// relocation that the move queued last; nothing when anything else of the source lies between.
std::vector<std::size_t> createdAndRelocated(const QueueView& view, const ReplayChange& move,
                                             const std::u16string& sourceKey) {
  bool latest = true;
  return backToStart(
      view, sourceKey,
      [&](const QueuedTransaction& entry) {
        const bool first = std::exchange(latest, false);
        return first
                   ? relocates(entry, move)
                   : exactlyAt(entry, move.location.getPath()) && followsItsLocation(*entry.change);
      },
      createsFile);
}

Verdict creationMovedAway(const QueueView& view, const ReplayChange& move,
                          const std::vector<std::u16string>& keys) {
  if (!move.destinationWasFree || !move.destination || keys.size() != 2 ||
      scopesOverlap(keys[0], keys[1])) {
    return {};
  }
  auto chain = createdAndRelocated(view, move, keys[0]);
  if (chain.empty()) return {};
  const auto relocation = chain.back();
  chain.pop_back();
  for (const auto serial : view.index.overlapping(keys[1], view.firstSerial())) {
    const auto position = view.positionOf(serial);
    if (position < chain.front()) break;
    if (position != relocation) return {};
  }
  Verdict verdict;
  verdict.withdrawn = {relocation};
  verdict.relocated = chain;
  verdict.arrivalMoot = true;
  return verdict;
}

// The file's changes since its last close (latest first; the entry at `skipping` aside), as
// far as they are the file's own creation, stream and attribute changes; the walk ends at
// anything else.
std::vector<std::size_t> sinceLastClose(const QueueView& view, const std::u16string& path,
                                        const std::u16string& key,
                                        std::optional<std::size_t> skipping = std::nullopt) {
  std::vector<std::size_t> found;
  for (const auto serial : view.index.overlapping(key, view.firstSerial())) {
    const auto position = view.positionOf(serial);
    if (position == skipping) continue;
    const auto& entry = view.queue[position];
    if (!exactlyAt(entry, path) || !followsItsLocation(*entry.change) ||
        entry.change->action == ChangeAction::CloseFile) {
      break;
    }
    found.push_back(position);
  }
  return found;
}

// Whether a close after these changes stamps the file's time on the store: its stream wrote.
bool closeStamps(const QueueView& view, const std::vector<std::size_t>& session) {
  return std::any_of(session.begin(), session.end(), [&](std::size_t position) {
    const auto& change = *view.queue[position].change;
    return change.action == ChangeAction::WriteRange || change.action == ChangeAction::Truncate ||
           (change.action == ChangeAction::OpenFile && change.flags != 0);
  });
}

Verdict stampsMadeMootByClose(const QueueView& view, const ReplayChange& close,
                              const std::u16string& key) {
  auto session = sinceLastClose(view, close.location.getPath(), key);
  if (!closeStamps(view, session)) return {};
  std::reverse(session.begin(), session.end());
  Verdict verdict;
  std::vector<std::size_t> kept;
  for (const auto position : session) {
    const bool stamp = view.queue[position].change->action == ChangeAction::SetLastModified;
    (stamp ? verdict.withdrawn : kept).push_back(position);
  }
  if (verdict.withdrawn.empty()) return {};
  // The creation now comes right before the first write or creating open: merged into it.
  if (kept.size() >= 2 && view.queue[kept[0]].change->action == ChangeAction::CreateFile) {
    const auto& next = *view.queue[kept[1]].change;
    if (next.action == ChangeAction::WriteRange || createsFile(next)) {
      verdict.withdrawn.push_back(kept[0]);
      std::sort(verdict.withdrawn.begin(), verdict.withdrawn.end());
      if (next.action == ChangeAction::WriteRange) {
        verdict.flagged.emplace_back(kept[1], ReplayChange::kCreatesFile);
      }
    }
  }
  return verdict;
}

bool createsOrEmpties(const ReplayChange& change) {
  return change.action == ChangeAction::CreateFile ||
         (change.action == ChangeAction::OpenFile &&
          (change.flags & (ReplayChange::kOpenCreates | ReplayChange::kOpenTruncates)));
}

// At a close: a file whose stream, since the file was created or emptied, wrote its bytes from
// the start in one write (how most programs write a small file). That write becomes the
// file's whole content (kWholeFile, creating: it replaces whatever the store holds), the
// creation or emptying open before it goes, and the close finds nothing left to send. Adds to
// the verdict of the close's other rule, whose withdrawals it leaves out of the session.
void wholeFileAtClose(const QueueView& view, const ReplayChange& close, const std::u16string& key,
                      Verdict& verdict) {
  auto session = sinceLastClose(view, close.location.getPath(), key);
  std::erase_if(session, [&](std::size_t position) {
    return std::binary_search(verdict.withdrawn.begin(), verdict.withdrawn.end(), position);
  });
  std::reverse(session.begin(), session.end());
  std::optional<std::size_t> start;
  if (session.size() == 2 && createsOrEmpties(*view.queue[session.front()].change)) {
    start = session.front();
    session.erase(session.begin());
  }
  if (session.size() != 1) return;
  const auto position = session.front();
  const auto& write = *view.queue[position].change;
  int flags = write.flags;
  for (const auto& [flagged, added] : verdict.flagged) {
    if (flagged == position) flags |= added;
  }
  if (write.action != ChangeAction::WriteRange || write.offset != 0) return;
  if (!start && !(flags & ReplayChange::kCreatesFile)) return;
  verdict.flagged.emplace_back(position, ReplayChange::kWholeFile | ReplayChange::kCreatesFile);
  if (start) {
    verdict.withdrawn.push_back(*start);
    std::sort(verdict.withdrawn.begin(), verdict.withdrawn.end());
  }
}

// A stamp arriving right after a close that will stamp the file anyway.
Verdict stampAfterClose(const QueueView& view, const ReplayChange& stamp,
                        const std::u16string& key) {
  const auto latest = latestOverlapping(view, key);
  if (!latest || !exactlyAt(view.queue[*latest], stamp.location.getPath()) ||
      view.queue[*latest].change->action != ChangeAction::CloseFile) {
    return {};
  }
  Verdict verdict;
  verdict.arrivalMoot =
      closeStamps(view, sinceLastClose(view, stamp.location.getPath(), key, *latest));
  return verdict;
}

}  // namespace

Verdict ChangeAbsorber::judge(const std::deque<QueuedTransaction>& queue,
                              const QueueScopeIndex& index, const QueuedTransaction& arriving) {
  const QueueView view{queue, index};
  if (!arriving.change || arriving.scope.empty() || !arriving.moot) return {};
  const auto& change = *arriving.change;
  if (change.action == ChangeAction::MoveFile) {
    return creationMovedAway(view, change, arriving.scope);
  }
  if (arriving.scope.size() != 1) return {};
  const auto& key = arriving.scope.front();
  const auto& path = change.location.getPath();
  switch (change.action) {
    case ChangeAction::SetLastModified: {
      auto again = sameAttributeAgain(view, change, key);
      if (!again.withdrawn.empty()) return again;
      return stampAfterClose(view, change, key);
    }
    case ChangeAction::SetWritable:
      return sameAttributeAgain(view, change, key);
    case ChangeAction::CloseFile: {
      auto verdict = stampsMadeMootByClose(view, change, key);
      wholeFileAtClose(view, change, key, verdict);
      return verdict;
    }
    case ChangeAction::OpenFile:
      if (!(change.flags & ReplayChange::kOpenCreates)) return {};
      return creationMergedInto(view, change, key);
    case ChangeAction::WriteRange: {
      auto merged = creationMergedInto(view, change, key);
      if (!merged.withdrawn.empty()) return merged;
      return writesOverwrittenBy(view, change, key);
    }
    case ChangeAction::RemoveFile: {
      auto found = backToStart(
          view, key, [&](const QueuedTransaction& e) { return exactlyAt(e, path); }, createsFile);
      const bool moot = !found.empty();
      return withdrawing(std::move(found), moot);
    }
    case ChangeAction::RemoveFolder:
    case ChangeAction::RemoveFolderTree: {
      auto found = backToStart(
          view, key, [&](const QueuedTransaction& e) { return within(e, path); },
          [&](const ReplayChange& c) {
            return c.action == ChangeAction::CreateFolder && c.location.getPath() == path;
          });
      const bool moot = !found.empty();
      return withdrawing(std::move(found), moot);
    }
    default:
      return {};
  }
}

}  // namespace storage::overlayprovider
