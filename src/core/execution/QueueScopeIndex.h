// QueueScopeIndex: which queued changes touch a location, without walking the queue.
//
// Why: with absorption on, every arriving change looks back through the queue for the changes
// it may make moot, and a queue that the store drains slowly holds thousands of them. Walking
// them cost a removal more than all the rest of its local work; the index answers from the
// few entries that overlap the location instead.
//
// The queue gives each entry a serial number, increasing in queue order, and registers its
// scope keys (ReplayChange::scopeKeys) under it; an entry with no keys is a barrier, which
// overlaps everything. Two keys overlap when one is the other or lies inside it.
//
//   index.add(7, {u"/a/b"});
//   index.overlapping(u"/a", 0);        // {7}: /a/b lies inside /a
//   index.latestOverlapping(u"/a/b/c", 0);  // 7
//   index.remove(7, {u"/a/b"});
//
// Owned by value by the WeightedTransactionQueue and used only under its mutex (tests build
// their own); no lock, no thread of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace storage::overlayprovider {

class QueueScopeIndex {
 public:
  void add(std::uint64_t serial, const std::vector<std::u16string>& scope);
  void remove(std::uint64_t serial, const std::vector<std::u16string>& scope);
  void clear();

  // The serials, from `from` on, of the entries that overlap `key` (barriers included),
  // latest first, each once; only the latest `limit` of them.
  std::vector<std::uint64_t> overlapping(
      const std::u16string& key, std::uint64_t from,
      std::size_t limit = std::numeric_limits<std::size_t>::max()) const;
  // The latest of them, if any.
  std::optional<std::uint64_t> latestOverlapping(const std::u16string& key,
                                                 std::uint64_t from) const;

 private:
  using Serials = std::set<std::uint64_t>;
  // Calls `visit` with every set of serials whose key overlaps `key`, and with the barriers.
  template <class Visit>
  void forEachOverlapping(const std::u16string& key, Visit visit) const;

  std::map<std::u16string, Serials> byKey_;
  Serials barriers_;
};

}  // namespace storage::overlayprovider
