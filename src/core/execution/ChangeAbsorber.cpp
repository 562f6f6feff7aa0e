#include "core/execution/ChangeAbsorber.h"

#include <algorithm>
#include <optional>

namespace storage::overlayprovider {

namespace {

using Verdict = ChangeAbsorber::Verdict;

bool overlaps(const QueuedTransaction& entry, const std::u16string& key) {
  if (entry.scope.empty()) return true;  // a barrier
  return std::any_of(entry.scope.begin(), entry.scope.end(),
                     [&](const std::u16string& other) { return scopesOverlap(key, other); });
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

// The position of the latest queued entry that overlaps `key`, if any within the lookback.
std::optional<std::size_t> latestOverlapping(const std::deque<QueuedTransaction>& queue,
                                             const std::u16string& key) {
  const auto stop = queue.size() > ChangeAbsorber::kLookback
                        ? queue.size() - ChangeAbsorber::kLookback
                        : std::size_t{0};
  for (auto index = queue.size(); index > stop; --index) {
    if (overlaps(queue[index - 1], key)) return index - 1;
  }
  return std::nullopt;
}

// Walks back over the entries that overlap `key` while `belongs` holds for each; returns
// their positions (ascending) up to and including the first for which `starts` holds, or
// nothing when the walk stops before one.
template <class Belongs, class Starts>
std::vector<std::size_t> backToStart(const std::deque<QueuedTransaction>& queue,
                                     const std::u16string& key, Belongs belongs, Starts starts) {
  std::vector<std::size_t> found;
  const auto stop = queue.size() > ChangeAbsorber::kLookback
                        ? queue.size() - ChangeAbsorber::kLookback
                        : std::size_t{0};
  for (auto index = queue.size(); index > stop; --index) {
    const auto& entry = queue[index - 1];
    if (!overlaps(entry, key)) continue;
    if (!belongs(entry)) return {};
    found.push_back(index - 1);
    if (starts(*entry.change)) {
      std::reverse(found.begin(), found.end());
      return found;
    }
  }
  return {};
}

Verdict sameAttributeAgain(const std::deque<QueuedTransaction>& queue, const ReplayChange& change,
                           const std::u16string& key) {
  const auto latest = latestOverlapping(queue, key);
  if (!latest || !exactlyAt(queue[*latest], change.location.getPath())) return {};
  if (queue[*latest].change->action != change.action) return {};
  return {{*latest}, false, 0};
}

Verdict creationMergedInto(const std::deque<QueuedTransaction>& queue, const ReplayChange& change,
                           const std::u16string& key) {
  const auto latest = latestOverlapping(queue, key);
  if (!latest || !exactlyAt(queue[*latest], change.location.getPath())) return {};
  if (queue[*latest].change->action != ChangeAction::CreateFile) return {};
  const int flags = change.action == ChangeAction::WriteRange ? ReplayChange::kCreatesFile : 0;
  return {{*latest}, false, flags};
}

}  // namespace

Verdict ChangeAbsorber::judge(const std::deque<QueuedTransaction>& queue,
                              const QueuedTransaction& arriving) {
  if (!arriving.change || arriving.scope.size() != 1 || !arriving.moot) return {};
  const auto& change = *arriving.change;
  const auto& key = arriving.scope.front();
  const auto& path = change.location.getPath();
  switch (change.action) {
    case ChangeAction::SetLastModified:
    case ChangeAction::SetWritable:
      return sameAttributeAgain(queue, change, key);
    case ChangeAction::OpenFile:
      if (!(change.flags & ReplayChange::kOpenCreates)) return {};
      return creationMergedInto(queue, change, key);
    case ChangeAction::WriteRange:
      return creationMergedInto(queue, change, key);
    case ChangeAction::RemoveFile: {
      auto found = backToStart(
          queue, key, [&](const QueuedTransaction& e) { return exactlyAt(e, path); }, createsFile);
      const bool moot = !found.empty();
      return {std::move(found), moot, 0};
    }
    case ChangeAction::RemoveFolder:
    case ChangeAction::RemoveFolderTree: {
      auto found = backToStart(
          queue, key, [&](const QueuedTransaction& e) { return within(e, path); },
          [&](const ReplayChange& c) {
            return c.action == ChangeAction::CreateFolder && c.location.getPath() == path;
          });
      const bool moot = !found.empty();
      return {std::move(found), moot, 0};
    }
    default:
      return {};
  }
}

}  // namespace storage::overlayprovider
