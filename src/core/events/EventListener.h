// EventListener: keeps the overlay's caches true when something other than the overlay changes
// the inner store. It subscribes once to the change events of the whole inner tree and turns
// each event into a small invalidation job (forget the quota figures of what changed, mark the
// folder whose listing is stale) that runs on the provider's executor as an EXTERNAL_EVENT of
// weight 0, so that invalidations stay in order with the overlay's own queued changes. The
// metadata cache acts on the marked folders in one batch at its next lookup.
//
// While the overlay itself writes to the store, the listener is paused: the provider's event
// latch pauses it on every operation and resumes it once the store has been quiet for the
// robustness period. Events that arrive meanwhile are held, the first per location wins, and
// they are handled in location order on resumption. This is how the echoes of the overlay's
// own writes are absorbed: a burst of 1,000 creates in one folder costs one relisting.
//
// What the kinds mean (events::Kind values): 1 anything at or below the location may have
// changed; 2 an entry appeared there; 3 an entry went away; 4 the entry itself changed.
//   - a file: 4 forgets the file's figures and its folder's listing; 2 and 3 the parent's;
//   - a folder: 4 forgets that folder; 2 its parent; 3 its parent too, but debounced: only the
//     job of the latest folder removal acts, and it forgets the parents of every folder removed
//     since the last one acted, so a burst of removals costs one job and one batch of
//     invalidations, and none of them is lost (acting on the latest folder alone, as a plain
//     debounce would, leaves an earlier removal in an unrelated folder showing for ever);
//   - 1 on the root drops the whole metadata cache and the content cache's pending state at
//     once, on the event's thread (nothing is queued: the store may have lost track of
//     everything, and a busy executor must not delay that); 1 elsewhere is only noted.
//
// Echoes: given a ReplayEchoes table (switched on by "overlay.suppressEchoes"), an event that
// the table recognises as the echo of a change the overlay's replay made is dropped as it
// arrives, before any pause holds it: it costs no job, no invalidation and no listing. Every
// other event is handled as described above.
//
// Ownership: made by the provider at lazy initialisation with create() and held through
// std::shared_ptr; the subscription and every queued job hold it weakly or strongly through
// shared ownership, so they may outlive the provider. It shares the metadata cache, the quota
// accountant and the provider's executor slot (configuration may swap the executor). The
// content cache is the provider's: stop() guarantees that no handler touches it afterwards, and
// the provider calls stop() before the content cache goes.
//
// Threads: handle() on whatever thread the inner store delivers events; pause() and unpause()
// on the latch's threads; jobs on the executor's worker; stop() on the provider's shutdown.
// Locks: stateMutex_ guards paused_, heldEvents_, removedFolders_ and latestRemoval_, and is
// never held while a handler runs or a job is queued. Each handler runs under a shared hold of
// activeMutex_, which stop() takes exclusively, so stop() returns only after every running
// handler has finished. Order: activeMutex_, then stateMutex_; the executor's and the caches'
// locks come after both. The echo table's own lock is taken alone, under activeMutex_ only.
#pragma once

#include "core/events/ReplayEchoes.h"
#include "core/execution/ExecutorSlot.h"

#include <foundation/storage/events/Events.h>
#include <foundation/storage/provider/StorageItem.h>

#include <boost/property_tree/ptree.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <utility>

namespace storage::overlayprovider {

class ContentCache;
class IQuotaAccountant;
class MetadataCache;

class EventListener : public std::enable_shared_from_this<EventListener> {
 public:
  // Makes the listener and subscribes it to the whole inner tree. A refused subscription is
  // logged ("Error subscribing to inner provider.") and the listener stays deaf; it never
  // throws for that. `innerRoot` is the inner location that the overlay's root stands for.
  // `echoes` may be empty: then every event is acted on.
  static std::shared_ptr<EventListener> create(
      const foundation::storage::provider::StorageItem& inner,
      std::shared_ptr<MetadataCache> metadataCache, ContentCache& contentCache,
      std::shared_ptr<ExecutorSlot> executor, std::shared_ptr<IQuotaAccountant> quotaAccountant,
      std::shared_ptr<ReplayEchoes> echoes = nullptr);
  EventListener(const EventListener&) = delete;
  EventListener& operator=(const EventListener&) = delete;

  // Holds events from now on (no effect once stopped).
  void pause();
  // Handles what was held, in location order, and handles events at once from now on.
  void unpause();
  // The subscription's target. `location` is the inner store's location of the change.
  void handle(const foundation::storage::events::Kind& kind,
              const foundation::storage::provider::StorageIRI& watched,
              const foundation::storage::provider::StorageIRI& location,
              const foundation::storage::events::EntryType& entryType,
              const boost::property_tree::ptree& details);
  // For good: later events, unpauses and queued jobs do nothing; held events are dropped.
  // Returns once no handler is running any more.
  void stop();
  bool isRunning() const { return running_.load(); }
  bool isPaused() const;

 private:
  struct HeldEvent {
    foundation::storage::events::Kind kind;
    foundation::storage::events::EntryType entryType;
  };
  using Location = foundation::storage::provider::StorageIRI;

  EventListener(std::shared_ptr<MetadataCache> metadataCache, ContentCache& contentCache,
                std::shared_ptr<ExecutorSlot> executor,
                std::shared_ptr<IQuotaAccountant> quotaAccountant,
                std::shared_ptr<ReplayEchoes> echoes, Location innerRoot);
  void subscribe(const foundation::storage::provider::StorageItem& inner);
  // The overlay location of an inner one; empty when it lies outside the inner root.
  std::optional<Location> overlayLocation(const Location& inner) const;
  void handleEvent(const Location& location, foundation::storage::events::Kind kind,
                   foundation::storage::events::EntryType entryType);
  void handleFileEvent(const Location& location, foundation::storage::events::Kind kind);
  void handleFolderEvent(const Location& location, foundation::storage::events::Kind kind);
  // Queues `job` on the executor as an EXTERNAL_EVENT of weight 0; it runs only while the
  // listener is still running.
  void enqueue(std::function<void(EventListener&)> job);
  // The quota figures and the listing of `folder` are stale.
  void forgetFolder(const Location& folder);

  const std::shared_ptr<MetadataCache> metadataCache_;
  ContentCache& contentCache_;
  const std::shared_ptr<ExecutorSlot> executor_;
  const std::shared_ptr<IQuotaAccountant> quotaAccountant_;
  const std::shared_ptr<ReplayEchoes> echoes_;
  const Location innerRoot_;
  std::atomic<bool> running_{true};
  mutable std::mutex stateMutex_;
  bool paused_ = false;
  std::map<Location, HeldEvent> heldEvents_;
  // Folders heard removed whose parents are not marked yet, and the number of the latest
  // removal, whose job marks them all.
  std::set<Location> removedFolders_;
  std::uint64_t latestRemoval_ = 0;
  std::shared_mutex activeMutex_;
};

}  // namespace storage::overlayprovider
