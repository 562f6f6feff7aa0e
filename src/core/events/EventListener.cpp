#include "core/events/EventListener.h"

#include "core/contentcache/ContentCache.h"
#include "core/metadata/MetadataCache.h"
#include "core/quota/IQuotaAccountant.h"
#include "core/support/InnerLocation.h"
#include "core/support/OverlayLog.h"

#include <boost/exception/diagnostic_information.hpp>

namespace storage::overlayprovider {

namespace events = foundation::storage::events;
namespace fsp = foundation::storage::provider;
namespace log = foundation::log;

namespace {

constexpr const char* kListenerSource = "src/core/events/EventListener";

}  // namespace

std::shared_ptr<EventListener> EventListener::create(
    const fsp::StorageItem& inner, std::shared_ptr<MetadataCache> metadataCache,
    ContentCache& contentCache, std::shared_ptr<ExecutorSlot> executor,
    std::shared_ptr<IQuotaAccountant> quotaAccountant, std::shared_ptr<ReplayEchoes> echoes) {
  std::shared_ptr<EventListener> listener(
      new EventListener(std::move(metadataCache), contentCache, std::move(executor),
                        std::move(quotaAccountant), std::move(echoes), inner.getLocation()));
  listener->subscribe(inner);
  return listener;
}

EventListener::EventListener(std::shared_ptr<MetadataCache> metadataCache,
                             ContentCache& contentCache, std::shared_ptr<ExecutorSlot> executor,
                             std::shared_ptr<IQuotaAccountant> quotaAccountant,
                             std::shared_ptr<ReplayEchoes> echoes, Location innerRoot)
    : metadataCache_(std::move(metadataCache)),
      contentCache_(contentCache),
      executor_(std::move(executor)),
      quotaAccountant_(std::move(quotaAccountant)),
      echoes_(std::move(echoes)),
      innerRoot_(std::move(innerRoot)) {}

void EventListener::subscribe(const fsp::StorageItem& inner) {
  // The store keeps the publisher; it must not keep the listener (and through it the caches)
  // alive, nor call a listener that has gone.
  std::weak_ptr<EventListener> weak = weak_from_this();
  const fsp::EventPublisher publisher = [weak](events::Kind kind, const Location& watched,
                                               const Location& location, events::EntryType type,
                                               boost::property_tree::ptree details) {
    try {
      if (const auto listener = weak.lock())
        listener->handle(kind, watched, location, type, details);
    } catch (...) {
      logCaughtException("Error handling an event of the inner provider.");
    }
  };
  const std::vector<events::Kind> kinds{events::Kind::Rescan, events::Kind::Appeared,
                                        events::Kind::Disappeared, events::Kind::Changed};
  try {
    inner.publishFolderEvents(publisher, kinds, fsp::RecursiveFileWatching::Yes);
  } catch (...) {
    OVERLAY_LOG(log::error) << "Error subscribing to inner provider. "
                            << boost::current_exception_diagnostic_information();
  }
}

std::optional<EventListener::Location> EventListener::overlayLocation(const Location& inner) const {
  const auto path = pathBelow(innerRoot_, inner);
  if (!path) return std::nullopt;
  return Location(u"overlay", *path);
}

void EventListener::pause() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kListenerSource);
  if (!running_) return;
  std::lock_guard lock(stateMutex_);
  paused_ = true;
}

bool EventListener::isPaused() const {
  std::lock_guard lock(stateMutex_);
  return paused_;
}

void EventListener::unpause() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kListenerSource);
  std::shared_lock active(activeMutex_);
  if (!running_) return;
  std::map<Location, HeldEvent> held;
  {
    std::lock_guard lock(stateMutex_);
    paused_ = false;
    held.swap(heldEvents_);
  }
  for (const auto& [location, event] : held) handleEvent(location, event.kind, event.entryType);
}

void EventListener::handle(const events::Kind& kind, const Location& watched,
                           const Location& location, const events::EntryType& entryType,
                           const boost::property_tree::ptree& /*details*/) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kListenerSource);
  std::shared_lock active(activeMutex_);
  if (!running_) return;
  const auto overlay = overlayLocation(location);
  if (!overlay) return;  // outside the tree that the overlay shows
  // Recognised at arrival, not after a pause: what the overlay did itself is already in its
  // caches, and holding the echo would only make it a relisting later. The store publishes
  // the event's own location first; the second names the other end of a move.
  if (echoes_ && echoes_->isEnabled()) {
    const auto own = overlayLocation(watched);
    if (own && echoes_->consume(*own, kind)) return;
  }
  {
    std::lock_guard lock(stateMutex_);
    if (paused_) {
      // The first event per location during a pause wins: the relisting it causes shows
      // whatever happened after it as well.
      heldEvents_.try_emplace(*overlay, HeldEvent{kind, entryType});
      return;
    }
  }
  handleEvent(*overlay, kind, entryType);
}

void EventListener::stop() {
  running_.store(false);
  // Waits for handlers that passed the running test before it was cleared.
  std::unique_lock active(activeMutex_);
  std::lock_guard lock(stateMutex_);
  heldEvents_.clear();
  removedFolders_.clear();
}

void EventListener::handleEvent(const Location& location, events::Kind kind,
                                events::EntryType entryType) {
  if (entryType != events::EntryType::File) {
    handleFolderEvent(location, kind);
  } else {
    handleFileEvent(location, kind);
  }
}

void EventListener::handleFileEvent(const Location& location, events::Kind kind) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kListenerSource);
  OVERLAY_LOG(log::debug) << "handleFileEvent location=" << location.toString();
  if (!location.hasParent()) return;
  switch (kind) {
    case events::Kind::Changed:
      enqueue([location](EventListener& self) {
        self.quotaAccountant_->removeFile(location);
        self.metadataCache_->markForInvalidation(location);
      });
      break;
    case events::Kind::Appeared:
    case events::Kind::Disappeared:
      enqueue([location](EventListener& self) { self.forgetFolder(location); });
      break;
    default:
      break;
  }
}

void EventListener::handleFolderEvent(const Location& location, events::Kind kind) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kListenerSource);
  OVERLAY_LOG(log::debug) << "handleFolderEvent location=" << location.toString();
  if (kind == events::Kind::Rescan && !location.hasParent()) {
    // The store may have lost track of anything (its event queue overflowed): everything is
    // read again. The mark keeps the overlay's own changes that are still on their way to
    // the store visible, where dropping the entries outright would hide them until replayed.
    metadataCache_->markForInvalidation(location);
    contentCache_.releasePending();
    return;
  }
  switch (kind) {
    case events::Kind::Changed:
      enqueue([location](EventListener& self) {
        self.quotaAccountant_->removeFolderTree(location);
        self.metadataCache_->markForInvalidation(location);
      });
      break;
    case events::Kind::Disappeared: {
      std::uint64_t removal = 0;
      {
        std::lock_guard lock(stateMutex_);
        removedFolders_.insert(location);
        removal = ++latestRemoval_;
      }
      enqueue([removal](EventListener& self) {
        // Only the latest removal's job acts, for every removal heard before it too: a burst
        // of removals costs one pass, and a removal whose own job was passed over is not lost.
        std::set<Location> removed;
        {
          std::lock_guard lock(self.stateMutex_);
          if (self.latestRemoval_ != removal) return;
          removed.swap(self.removedFolders_);
        }
        for (const auto& folder : removed) {
          OVERLAY_LOG(log::info) << "Triggering invalidation " << folder.toString();
          self.metadataCache_->markForInvalidation(folder);
        }
      });
      break;
    }
    case events::Kind::Appeared:
      if (location.hasParent()) {
        enqueue([location](EventListener& self) { self.forgetFolder(location); });
      }
      break;
    default:
      break;
  }
}

void EventListener::forgetFolder(const Location& changedChild) {
  quotaAccountant_->removeFolderTree(changedChild.getParent());
  // Marking the child invalidates its parent's listing, where the child's record lives.
  metadataCache_->markForInvalidation(changedChild);
}

void EventListener::enqueue(std::function<void(EventListener&)> job) {
  const auto executor = executor_->load();
  if (!executor) return;
  auto self = shared_from_this();
  executor->execute(
      [self, job = std::move(job)] {
        if (self->running_) job(*self);
      },
      ObservableTransactionType::EXTERNAL_EVENT, 0.0);
}

}  // namespace storage::overlayprovider
