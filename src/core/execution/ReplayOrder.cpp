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
  if (runningBarriers_ > 0) return std::nullopt;
  std::set<std::u16string> waitingBefore;
  const auto limit = std::min(queue.size(), kLookahead);
  for (std::size_t index = 0; index < limit; ++index) {
    const auto& entry = queue[index];
    if (entry.scope.empty()) {
      if (index == 0 && running_ == 0) return index;
      return std::nullopt;  // nothing passes a barrier
    }
    if (!overlapsAny(entry.scope, runningKeys_) && !overlapsAny(entry.scope, waitingBefore)) {
      return index;
    }
    waitingBefore.insert(entry.scope.begin(), entry.scope.end());
  }
  return std::nullopt;
}

std::size_t ReplayOrder::countStartable(
    const std::deque<QueuedTransaction>& queue, std::size_t enough,
    const std::function<bool(const QueuedTransaction&)>& ripe) const {
  if (runningBarriers_ > 0) return 0;
  // The keys of every entry ahead, whether it waits or is counted as started.
  std::set<std::u16string> ahead;
  std::size_t count = 0;
  const auto limit = std::min(queue.size(), kLookahead);
  for (std::size_t index = 0; index < limit && count < enough; ++index) {
    const auto& entry = queue[index];
    if (entry.scope.empty()) return index == 0 && running_ == 0 ? 1 : count;
    if (!ripe(entry)) break;
    if (!overlapsAny(entry.scope, runningKeys_) && !overlapsAny(entry.scope, ahead)) ++count;
    ahead.insert(entry.scope.begin(), entry.scope.end());
  }
  return count;
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
