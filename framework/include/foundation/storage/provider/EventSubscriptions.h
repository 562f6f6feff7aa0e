// EventSubscriptions: the subscription table that providers keep for publishFileEventsFor,
// publishFolderEventsFor and stopPublishingEventsFor, and the matching of one change against
// it. Shared by every provider so that they agree on who hears what:
//   - an event is matched by its own location only (its second location is information for
//     the subscriber): a move's Disappeared is heard at the source, its Appeared at the
//     destination, each by the subscriptions that cover that end and asked for that kind;
//   - a file subscription hears events whose location is the file;
//   - a folder subscription hears events on the folder itself and its direct children, and
//     with RecursiveFileWatching::Yes on everything below it;
//   - a subscription hears only the kinds it asked for (an empty list means all kinds);
//     Rescan events are delivered to every subscription at or below the rescanned location,
//     and to every folder subscription that covers it.
// Several subscriptions may exist for one location; stopping a location removes them all.
//
// Thread safety: every operation takes the table's own mutex; deliver() copies the matching
// publishers under it and calls them after releasing it.
#pragma once

#include <foundation/storage/provider/EventPublisher.h>
#include <foundation/storage/provider/Types.h>

#include <mutex>
#include <vector>

namespace foundation::storage::provider {

class EventSubscriptions {
 public:
  void addFile(const StorageIRI& file, EventPublisher publisher, std::vector<events::Kind> kinds);
  void addFolder(const StorageIRI& folder, EventPublisher publisher,
                 std::vector<events::Kind> kinds, RecursiveFileWatching recursive);
  // Removes every subscription of the location; false when there was none.
  bool remove(const StorageIRI& location);
  bool empty() const;

  // Calls every publisher that hears this change. Exceptions thrown by publishers are
  // logged and not passed on (a subscriber's failure must not stop the provider's event
  // thread).
  void deliver(events::Kind kind, const StorageIRI& location, const StorageIRI& other,
               events::EntryType type) const;

 private:
  struct Subscription {
    StorageIRI location;
    EventPublisher publisher;
    std::vector<events::Kind> kinds;
    bool folder;
    bool recursive;
  };
  static bool hears(const Subscription& s, events::Kind kind, const StorageIRI& location);

  mutable std::mutex mutex_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace foundation::storage::provider
