#include "core/events/ReplayEchoes.h"

#include "core/support/OverlayLog.h"

namespace storage::overlayprovider {

namespace events = foundation::storage::events;
using foundation::storage::provider::StorageIRI;

namespace {

// Whether an event of `kind` at the noted location itself is an echo of `change`.
bool echoesAt(events::Kind kind, ReplayedChange change) {
  switch (kind) {
    case events::Kind::Appeared:
      return change == ReplayedChange::Created || change == ReplayedChange::MovedTo;
    case events::Kind::Disappeared:
      return change == ReplayedChange::Removed || change == ReplayedChange::MovedFrom;
    case events::Kind::Changed:
      return change == ReplayedChange::Written || change == ReplayedChange::AttributesSet;
    default:
      return false;
  }
}

// Whether an event of `kind` below the noted location is an echo of `change`: a change of a
// whole subtree reports its children one by one on some stores.
bool echoesBelow(events::Kind kind, ReplayedChange change) {
  switch (kind) {
    case events::Kind::Appeared:
      return change == ReplayedChange::MovedTo;
    case events::Kind::Disappeared:
      return change == ReplayedChange::Removed || change == ReplayedChange::MovedFrom;
    default:
      return false;
  }
}

}  // namespace

ReplayEchoes::ReplayEchoes(std::chrono::milliseconds lifetime, std::size_t capacity,
                           std::function<Clock::time_point()> now)
    : lifetime_(lifetime), capacity_(capacity), now_(std::move(now)) {}

void ReplayEchoes::note(const StorageIRI& location, ReplayedChange change) {
  if (!enabled_.load()) return;
  const auto when = now();
  OVERLAY_LOG(foundation::log::debug)
      << "replayed: " << static_cast<int>(change) << " " << location.toString();
  std::lock_guard lock(mutex_);
  const auto serial = nextSerial_++;
  noted_.emplace(location, Noted{change, serial});
  order_.push_back(Order{when, serial, location});
  pruneLocked(when);
}

bool ReplayEchoes::consume(const StorageIRI& location, events::Kind kind) {
  if (!enabled_.load() || kind == events::Kind::Rescan) return false;
  std::lock_guard lock(mutex_);
  pruneLocked(now());
  // At the location itself: the oldest matching change is used up.
  auto [first, last] = noted_.equal_range(location);
  auto oldest = last;
  for (auto it = first; it != last; ++it) {
    if (echoesAt(kind, it->second.change) &&
        (oldest == last || it->second.serial < oldest->second.serial)) {
      oldest = it;
    }
  }
  if (oldest != last) {
    noted_.erase(oldest);
    recognised_.fetch_add(1);
    return true;
  }
  // Below a change of a whole subtree: recognised, nothing used up.
  for (auto above = location; above.hasParent();) {
    above = above.getParent();
    auto [from, to] = noted_.equal_range(above);
    for (auto it = from; it != to; ++it) {
      if (echoesBelow(kind, it->second.change)) {
        recognised_.fetch_add(1);
        return true;
      }
    }
  }
  OVERLAY_LOG(foundation::log::debug)
      << "not an echo: " << static_cast<int>(kind) << " " << location.toString();
  return false;
}

std::size_t ReplayEchoes::waiting() const {
  std::lock_guard lock(mutex_);
  return noted_.size();
}

void ReplayEchoes::pruneLocked(Clock::time_point now) {
  while (!order_.empty()) {
    const auto& oldest = order_.front();
    const bool expired = now - oldest.when >= lifetime_;
    if (!expired && noted_.size() <= capacity_ && order_.size() <= 4 * capacity_) break;
    auto [first, last] = noted_.equal_range(oldest.location);
    for (auto it = first; it != last; ++it) {
      if (it->second.serial == oldest.serial) {
        noted_.erase(it);
        break;
      }
    }
    order_.pop_front();
  }
}

ReplayedChangeNote ReplayEchoes::noteThrough(const std::shared_ptr<ReplayEchoes>& echoes) {
  if (!echoes) return {};
  return [weak = std::weak_ptr<ReplayEchoes>(echoes)](const StorageIRI& location,
                                                      ReplayedChange change) {
    try {
      if (const auto held = weak.lock()) held->note(location, change);
    } catch (...) {
      logCaughtException("Noting a replayed change failed.");
    }
  };
}

}  // namespace storage::overlayprovider
