#include "core/provider/PathGuardTable.h"

#include "core/support/OverlayLog.h"

#include <boost/exception/diagnostic_information.hpp>

namespace storage::overlayprovider {

using foundation::storage::provider::StorageIRI;

PathGuardTable::Guard::Guard(Guard&& other) noexcept
    : table_(other.table_), held_(std::move(other.held_)) {
  other.table_ = nullptr;
}

PathGuardTable::Guard::~Guard() {
  if (table_ == nullptr) return;
  try {
    table_->release(held_);
  } catch (...) {
    OVERLAY_LOG(foundation::log::error)
        << "Exception caught:" << boost::current_exception_diagnostic_information();
  }
}

PathGuardTable::Guard PathGuardTable::acquire(const StorageIRI& location) {
  return acquire(std::vector<StorageIRI>{location});
}

PathGuardTable::Guard PathGuardTable::acquire(std::vector<StorageIRI> locations) {
  std::unique_lock lock(mutex_);
  released_.wait(lock, [&] {
    return std::none_of(locations.begin(), locations.end(),
                        [&](const StorageIRI& location) { return conflicts(location); });
  });
  held_.insert(locations.begin(), locations.end());
  return Guard(*this, std::move(locations));
}

std::size_t PathGuardTable::heldCount() const {
  std::lock_guard lock(mutex_);
  return held_.size();
}

bool PathGuardTable::conflicts(const StorageIRI& location) const {
  // Ancestors of `location` sort before it and descendants right after it, but unrelated
  // locations can sit in between; the table is small, so a scan is simplest and exact.
  return std::any_of(held_.begin(), held_.end(), [&](const StorageIRI& held) {
    return held == location || held.isAncestorOf(location) || location.isAncestorOf(held);
  });
}

void PathGuardTable::release(const std::vector<StorageIRI>& locations) {
  {
    std::lock_guard lock(mutex_);
    for (const auto& location : locations) {
      const auto it = held_.find(location);
      if (it != held_.end()) held_.erase(it);
    }
  }
  released_.notify_all();
}

}  // namespace storage::overlayprovider
