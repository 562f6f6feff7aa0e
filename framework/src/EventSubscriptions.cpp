#include <foundation/log/DiagnosticLogger.h>
#include <foundation/storage/provider/EventSubscriptions.h>

#include <algorithm>

namespace foundation::storage::provider {

namespace {

const log::diagnostic_logger& frameworkLogger() {
  static const log::diagnostic_logger logger("foundation::storage::provider");
  return logger;
}

bool samePath(const StorageIRI& a, const StorageIRI& b) { return a.getPath() == b.getPath(); }

// Ancestry by path only: event locations may come with another scheme than the subscription.
bool pathIsAncestor(const StorageIRI& ancestor, const StorageIRI& location) {
  return StorageIRI(u"", ancestor.getPath()).isAncestorOf(StorageIRI(u"", location.getPath()));
}

}  // namespace

void EventSubscriptions::addFile(const StorageIRI& file, EventPublisher publisher,
                                 std::vector<events::Kind> kinds) {
  std::lock_guard lock(mutex_);
  subscriptions_.push_back({file, std::move(publisher), std::move(kinds), false, false});
}

void EventSubscriptions::addFolder(const StorageIRI& folder, EventPublisher publisher,
                                   std::vector<events::Kind> kinds,
                                   RecursiveFileWatching recursive) {
  std::lock_guard lock(mutex_);
  subscriptions_.push_back({folder, std::move(publisher), std::move(kinds), true,
                            recursive == RecursiveFileWatching::Yes});
}

bool EventSubscriptions::remove(const StorageIRI& location) {
  std::lock_guard lock(mutex_);
  const auto removed = std::erase_if(
      subscriptions_, [&](const Subscription& s) { return samePath(s.location, location); });
  return removed != 0;
}

bool EventSubscriptions::empty() const {
  std::lock_guard lock(mutex_);
  return subscriptions_.empty();
}

bool EventSubscriptions::hears(const Subscription& s, events::Kind kind,
                               const StorageIRI& location) {
  const bool kindWanted =
      s.kinds.empty() || std::find(s.kinds.begin(), s.kinds.end(), kind) != s.kinds.end();
  if (!kindWanted) return false;
  if (samePath(s.location, location)) return true;
  // A rescan of an ancestor may have changed anything the subscription covers.
  if (kind == events::Kind::Rescan && pathIsAncestor(location, s.location)) return true;
  if (!s.folder) return false;
  if (s.recursive) return pathIsAncestor(s.location, location);
  return location.hasParent() && samePath(s.location, location.getParent());
}

void EventSubscriptions::deliver(events::Kind kind, const StorageIRI& location,
                                 const StorageIRI& other, events::EntryType type) const {
  std::vector<EventPublisher> publishers;
  {
    std::lock_guard lock(mutex_);
    for (const auto& s : subscriptions_) {
      if (hears(s, kind, location)) publishers.push_back(s.publisher);
    }
  }
  for (const auto& publish : publishers) {
    try {
      publish(kind, location, other, type, {});
    } catch (const std::exception& e) {
      FOUNDATION_LOG(frameworkLogger(), log::error)
          << "Event subscriber failed for " << location << ": " << e.what();
    } catch (...) {
      FOUNDATION_LOG(frameworkLogger(), log::error)
          << "Event subscriber failed for " << location << " with a non-standard exception";
    }
  }
}

}  // namespace foundation::storage::provider
