// PathGuardTable: serialises the provider's operations on related locations.
//
// An operation takes a Guard for the locations it works on and holds it while it runs.
// Conflict rule: a requested location waits while any location held by ANOTHER guard is
// equal to it, an ancestor of it or a descendant of it. Both directions block, so that an
// operation on a folder (a move, a recursive removal, an invalidation of the root) never
// overlaps an operation on anything inside it, and the other way round. Unrelated
// locations proceed in parallel. A guard taken for several locations at once (a move: its
// source and destination) is taken atomically, so it never conflicts with itself.
//
// Owned by value by the OverlayProvider. One mutex and one condition variable; the mutex is
// held only while the table is read or changed, never while an operation runs. Lock order:
// the table comes before the caches. Any thread may take and release guards.
#pragma once

#include <foundation/storage/provider/StorageIRI.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <vector>

namespace storage::overlayprovider {

class PathGuardTable {
 public:
  // Holds its locations until destroyed (move-only).
  class Guard {
   public:
    Guard(Guard&& other) noexcept;
    Guard& operator=(Guard&&) = delete;
    Guard(const Guard&) = delete;
    ~Guard();

   private:
    friend class PathGuardTable;
    Guard(PathGuardTable& table, std::vector<foundation::storage::provider::StorageIRI> held)
        : table_(&table), held_(std::move(held)) {}
    PathGuardTable* table_;
    std::vector<foundation::storage::provider::StorageIRI> held_;
  };

  // Blocks until no other guard holds a conflicting location.
  Guard acquire(const foundation::storage::provider::StorageIRI& location);
  Guard acquire(std::vector<foundation::storage::provider::StorageIRI> locations);

  // The number of locations held now (for tests and diagnostics).
  std::size_t heldCount() const;

 private:
  bool conflicts(const foundation::storage::provider::StorageIRI& location) const;
  void release(const std::vector<foundation::storage::provider::StorageIRI>& locations);

  mutable std::mutex mutex_;
  std::condition_variable released_;
  std::multiset<foundation::storage::provider::StorageIRI> held_;
};

}  // namespace storage::overlayprovider
