#include "core/execution/QueueScopeIndex.h"

#include "core/execution/ReplayChange.h"

#include <algorithm>

namespace storage::overlayprovider {

void QueueScopeIndex::add(std::uint64_t serial, const std::vector<std::u16string>& scope) {
  if (scope.empty()) barriers_.insert(serial);
  for (const auto& key : scope) byKey_[key].insert(serial);
}

void QueueScopeIndex::remove(std::uint64_t serial, const std::vector<std::u16string>& scope) {
  if (scope.empty()) barriers_.erase(serial);
  for (const auto& key : scope) {
    const auto found = byKey_.find(key);
    if (found == byKey_.end()) continue;
    found->second.erase(serial);
    if (found->second.empty()) byKey_.erase(found);
  }
}

void QueueScopeIndex::clear() {
  byKey_.clear();
  barriers_.clear();
}

template <class Visit>
void QueueScopeIndex::forEachOverlapping(const std::u16string& key, Visit visit) const {
  visit(barriers_);
  visitOverlappingKeys(byKey_, key, [&](const auto& keyed) {
    visit(keyed.second);
    return false;
  });
}

std::vector<std::uint64_t> QueueScopeIndex::overlapping(const std::u16string& key,
                                                        std::uint64_t from,
                                                        std::size_t limit) const {
  std::vector<std::uint64_t> found;
  // The latest `limit` of all are among the latest `limit` of each set.
  forEachOverlapping(key, [&](const Serials& serials) {
    std::size_t taken = 0;
    for (auto it = serials.rbegin(); it != serials.rend() && *it >= from && taken < limit;
         ++it, ++taken) {
      found.push_back(*it);
    }
  });
  std::sort(found.begin(), found.end(), std::greater<>());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  if (found.size() > limit) found.resize(limit);
  return found;
}

std::optional<std::uint64_t> QueueScopeIndex::latestOverlapping(const std::u16string& key,
                                                                std::uint64_t from) const {
  std::optional<std::uint64_t> latest;
  forEachOverlapping(key, [&](const Serials& serials) {
    if (!serials.empty() && *serials.rbegin() >= from && (!latest || *serials.rbegin() > *latest)) {
      latest = *serials.rbegin();
    }
  });
  return latest;
}

}  // namespace storage::overlayprovider
