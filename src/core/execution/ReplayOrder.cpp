#include "core/execution/ReplayOrder.h"

#include <algorithm>

namespace storage::overlayprovider {

namespace {

// True when a key of `keys` is `key`, lies above it or below it.
template <class Keys>
bool overlapsAny(const std::u16string& key, const Keys& keys) {
  return visitOverlappingKeys(keys, key, [](const auto&) { return true; });
}

template <class Keys>
bool overlapsAny(const std::vector<std::u16string>& scope, const Keys& keys) {
  for (const auto& key : scope) {
    if (overlapsAny(key, keys)) return true;
  }
  return false;
}

}  // namespace

std::optional<std::size_t> ReplayOrder::pickRunnable(
    const std::deque<QueuedTransaction>& queue) const {
  std::optional<std::size_t> first;
  visitStartable(
      queue, [](const QueuedTransaction&) { return true; },
      [&](std::size_t index) {
        first = index;
        return false;
      });
  return first;
}

std::size_t ReplayOrder::countStartable(
    const std::deque<QueuedTransaction>& queue, std::size_t enough,
    const std::function<bool(const QueuedTransaction&)>& ripe) const {
  std::size_t count = 0;
  if (enough == 0) return count;
  visitStartable(queue, ripe, [&](std::size_t) { return ++count < enough; });
  return count;
}

template <class Ripe, class Visit>
void ReplayOrder::visitStartable(const std::deque<QueuedTransaction>& queue, const Ripe& ripe,
                                 const Visit& visit) const {
  if (runningBarriers_ > 0) return;
  // The keys of every entry ahead, whether it waits or was visited (counts as started).
  std::set<std::u16string> ahead;
  const auto limit = std::min(queue.size(), kLookahead);
  for (std::size_t index = 0; index < limit; ++index) {
    const auto& entry = queue[index];
    if (entry.scope.empty()) {
      if (index == 0 && running_ == 0) visit(index);
      return;  // nothing passes a barrier
    }
    if (!ripe(entry)) return;  // later entries ripen later
    if (!overlapsAny(entry.scope, runningKeys_) && !overlapsAny(entry.scope, ahead) &&
        !visit(index)) {
      return;
    }
    ahead.insert(entry.scope.begin(), entry.scope.end());
  }
}

void ReplayOrder::started(const QueuedTransaction& entry) {
  ++running_;
  if (entry.scope.empty()) ++runningBarriers_;
  runningKeys_.insert(entry.scope.begin(), entry.scope.end());
}

void ReplayOrder::finished(const QueuedTransaction& entry) {
  --running_;
  if (entry.scope.empty()) --runningBarriers_;
  for (const auto& key : entry.scope) {
    if (const auto found = runningKeys_.find(key); found != runningKeys_.end()) {
      runningKeys_.erase(found);
    }
  }
}

}  // namespace storage::overlayprovider
