// MetadataCache: the helpers that run with the cache's lock held. None of them waits for a
// listing: entries still listing are skipped by the readers and queue the writers' changes.
#include "core/metadata/FutureFolderEntry.h"
#include "core/metadata/MetadataCache.h"
#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/text/Unicode.h>

namespace storage::overlayprovider {

MetadataCache::Guard::~Guard() {
  auto released = std::move(cache_.released_);
  cache_.released_.clear();
  lock_.unlock();
}  // `released` goes here, without the lock

void MetadataCache::setEntryLocked(const fsp::StorageIRI& folder,
                                   std::shared_ptr<IFolderEntry> entry) {
  auto [it, inserted] = folders_.try_emplace(keyOf(folder), entry);
  if (inserted) return;
  released_.push_back(std::move(it->second));
  it->second = std::move(entry);
}

fsp::StorageIRI MetadataCache::keyOf(const fsp::StorageIRI& iri) const {
  if (caseSensitive_) return iri;
  return fsp::StorageIRI(iri.getScheme(), foundation::text::toLower(iri.getPath()));
}

std::shared_ptr<IFolderEntry> MetadataCache::findEntryLocked(const fsp::StorageIRI& folder) const {
  auto found = folders_.find(keyOf(folder));
  return found == folders_.end() ? nullptr : found->second;
}

std::shared_ptr<IFolderEntry> MetadataCache::entryLocked(const fsp::StorageIRI& folder,
                                                         bool create) {
  auto entry = findEntryLocked(folder);
  if (entry || !create) return entry;
  // Made under the lock so that concurrent first lookups share one listing; the listing
  // itself runs on the entry's own thread. Below a removal not yet replayed the store still
  // holds what was removed: such a folder starts empty and holds only the overlay's own
  // records.
  if (isRemovedLocked(folder)) {
    entry = std::make_shared<IFolderEntry>(folder);
  } else {
    entry = std::make_shared<FutureFolderEntry>(folder, innerRoot_, &listings_);
  }
  setEntryLocked(folder, entry);
  return entry;
}

void MetadataCache::invalidateLocked(const fsp::StorageIRI& iri) {
  if (!iri.hasParent()) {
    OVERLAY_LOG(foundation::log::notice) << "Invalidating root.";
    for (auto& [folder, entry] : folders_) released_.push_back(std::move(entry));
    folders_.clear();
    return;
  }
  const auto key = keyOf(iri);
  for (auto it = folders_.begin(); it != folders_.end();) {
    if (it->first != key && !key.isAncestorOf(it->first)) {
      ++it;
      continue;
    }
    released_.push_back(std::move(it->second));
    it = folders_.erase(it);
  }
}

// One pass for the whole batch: the frozen records are collected once (a walk over every
// cached record) and each cached folder is dropped when it lies at or below a target.
void MetadataCache::actOnPendingInvalidationsLocked() {
  if (pendingInvalidations_.empty()) return;
  std::set<fsp::StorageIRI> targets;
  for (const auto& iri : pendingInvalidations_) {
    targets.insert(keyOf(iri.hasParent() ? iri.getParent() : iri));
  }
  pendingInvalidations_.clear();
  collectFrozenLocked();
  // Set here, not by the mark: a re-application that runs between a mark and the batch it
  // starts (a removal or move does one) would otherwise clear it with nothing collected, and
  // the batch's records, dropped with their folders, would never come back.
  invalidationsPending_ = true;
  if (targets.count(rootIRI())) {
    invalidateLocked(rootIRI());
    return;
  }
  for (auto it = folders_.begin(); it != folders_.end();) {
    bool dropped = false;
    for (auto folder = it->first; !dropped; folder = folder.getParent()) {
      dropped = targets.count(folder) > 0;
      if (!folder.hasParent()) break;
    }
    if (!dropped) {
      ++it;
      continue;
    }
    released_.push_back(std::move(it->second));
    it = folders_.erase(it);
  }
}

void MetadataCache::collectFrozenLocked() {
  for (const auto& [folder, entry] : folders_) {
    for (auto& node : entry->collectRecords()) {
      const bool frozen = nodeIsFrozen(node);
      OVERLAY_LOG(foundation::log::debug)
          << nodeIRI(node).toString() << (frozen ? " is frozen." : " is not frozen.");
      if (frozen) frozen_.insert_or_assign(keyOf(nodeIRI(node)), std::move(node));
    }
  }
}

void MetadataCache::noteRemovalLocked(const fsp::StorageIRI& iri) {
  ++pendingRemovals_[keyOf(iri)];
  removalsPending_ = true;
}

void MetadataCache::beginChangeLocked(const fsp::StorageIRI& iri) {
  ++changesInFlight_[keyOf(iri)];
}

bool MetadataCache::endChangeLocked(const fsp::StorageIRI& iri) {
  const auto it = changesInFlight_.find(keyOf(iri));
  if (it != changesInFlight_.end() && --it->second <= 0) changesInFlight_.erase(it);
  return !changeInFlightLocked(iri);
}

// A move onto an ancestor placed new records at every location below it, and the move's own
// confirmation is the one that makes them the store's.
bool MetadataCache::changeInFlightLocked(const fsp::StorageIRI& iri) const {
  if (changesInFlight_.empty()) return false;
  for (auto at = keyOf(iri);; at = at.getParent()) {
    if (changesInFlight_.count(at)) return true;
    if (!at.hasParent()) return false;
  }
}

bool MetadataCache::attributeChangeInFlightLocked(const fsp::StorageIRI& iri) const {
  return !attributeChangesInFlight_.empty() && attributeChangesInFlight_.count(keyOf(iri)) > 0;
}

void MetadataCache::unfreezeFileLocked(const fsp::StorageIRI& iri) {
  if (iri.hasParent()) {
    if (const auto parent = findEntryLocked(iri.getParent())) {
      // The record may be stored under another spelling on a case-insensitive store.
      auto child = parent->peekChild(iri);
      if (!child && !caseSensitive_ && parent->isDetailReady()) {
        child = parent->tryFindChild(iri, NodeKind::File, false);
      }
      if (child && child->index() == 0) std::get<0>(*child)->unfreeze();
    }
  }
  dropFrozenLocked(iri, false);
}

void MetadataCache::unfreezeFolderLocked(const fsp::StorageIRI& iri, bool recursive) {
  if (const auto entry = findEntryLocked(iri)) {
    if (auto record = entry->peekFolderMetadata()) record->unfreeze();
    if (recursive) unfreezeTreeLocked(entry->getIRI());
  }
  dropFrozenLocked(iri, false);
}

std::shared_ptr<IFolderEntry> MetadataCache::ownEntryLocked(const fsp::StorageIRI& folder) {
  auto entry = findEntryLocked(folder);
  if (!entry || !entry->isFrozen()) throw fsp::Exception(fsp::ErrorCode::NotFound, folder);
  return entry;
}

bool MetadataCache::isRemovedLocked(const fsp::StorageIRI& iri) const {
  if (pendingRemovals_.empty()) return false;
  for (auto at = keyOf(iri);; at = at.getParent()) {
    if (pendingRemovals_.count(at)) return true;
    if (!at.hasParent()) return false;
  }
}

void MetadataCache::hidePendingRemovalsLocked(IFolderEntry& entry) {
  if (pendingRemovals_.empty() || !entry.isDetailReady()) return;
  if (isRemovedLocked(entry.getIRI())) {
    for (const auto& [iri, node] : entry.getChildren()) hideUnlessFrozen(entry, node);
    return;
  }
  // Only the removals directly below this folder can hide a child: each is looked up by name
  // rather than every child tested, since a large folder is listed often.
  const auto folder = keyOf(entry.getIRI());
  for (const auto& [removed, count] : pendingRemovals_) {
    if (!removed.hasParent() || removed.getParent() != folder) continue;
    for (const auto kind : {NodeKind::File, NodeKind::Folder}) {
      if (const auto child = entry.tryFindChild(removed, kind, caseSensitive_)) {
        hideUnlessFrozen(entry, *child);
      }
    }
  }
}

void MetadataCache::hideUnlessFrozen(IFolderEntry& entry, const MetadataNode& node) {
  if (nodeIsFrozen(node)) return;
  const auto& iri = nodeIRI(node);
  node.index() == 0 ? entry.removeFile(iri, true) : entry.removeFolder(iri, true);
}

void MetadataCache::reapplyFrozenLocked() {
  if (!invalidationsPending_) return;
  invalidationsPending_ = false;
  for (const auto& [iri, node] : frozen_) {
    if (iri.hasParent()) {
      // What the cache holds now, for the record; a failed listing must not stop the pass.
      try {
        const auto parent = findEntryLocked(iri.getParent());
        if (parent && parent->isDetailReady()) parent->waitForDetail();
      } catch (const std::exception& e) {
        OVERLAY_LOG(foundation::log::exception) << "Exception caught: " << e.what();
      }
    }
    if (nodeIsFrozen(node)) reapplyLocked(node);
  }
  frozen_.clear();
}

void MetadataCache::reapplyLocked(const MetadataNode& node) {
  if (!nodeIRI(node).hasParent()) return;
  if (node.index() == 0) {
    addFileMetadataLocked(std::get<0>(node));
    return;
  }
  const auto& record = std::get<1>(node);
  entryLocked(record->getIRI().getParent(), true)->addFolder(record, caseSensitive_);
  // A folder the overlay made or moved here is complete in the cache alone; one frozen only
  // for a change of its attributes keeps its contents in the store, listed on demand.
  if (!findEntryLocked(record->getIRI()) && changeInFlightLocked(record->getIRI())) {
    auto own = std::make_shared<IFolderEntry>(record->getIRI());
    own->setFolderMetadata(record);
    setEntryLocked(record->getIRI(), std::move(own));
  }
}

void MetadataCache::addFileMetadataLocked(std::shared_ptr<FileMetadata> record) {
  entryLocked(record->getIRI().getParent(), true)->addFile(std::move(record), caseSensitive_);
}

void MetadataCache::enterNewFolderLocked(const std::shared_ptr<FolderMetadata>& record) {
  const auto& iri = record->getIRI();
  entryLocked(iri.getParent(), true)->addFolder(record, caseSensitive_);
  // A new folder is empty: whatever was cached below that name before is stale.
  invalidateLocked(iri);
  auto own = std::make_shared<IFolderEntry>(iri);
  own->setFolderMetadata(record);
  setEntryLocked(iri, std::move(own));
}

void MetadataCache::dropFrozenLocked(const fsp::StorageIRI& iri, bool withDescendants) {
  const auto key = keyOf(iri);
  frozen_.erase(key);
  if (!withDescendants) return;
  for (auto it = frozen_.begin(); it != frozen_.end();) {
    it = key.isAncestorOf(it->first) ? frozen_.erase(it) : std::next(it);
  }
}

std::uint64_t MetadataCache::treeSizeLocked(const fsp::StorageIRI& folder) const {
  const auto found = findEntryLocked(folder);
  if (!found || !found->isDetailReady()) return 0;
  std::uint64_t total = 0;
  try {
    for (const auto& [iri, node] : found->getChildren()) {
      total += node.index() == 0 ? std::get<0>(node)->getSize() : treeSizeLocked(iri);
    }
  } catch (const std::exception& e) {
    // A folder whose listing failed holds no sizes to count; its failure reaches the callers
    // that look it up.
    OVERLAY_LOG(foundation::log::debug) << "No sizes under a failed listing: " << e.what();
  }
  return total;
}

void MetadataCache::unfreezeTreeLocked(const fsp::StorageIRI& folder) const {
  const auto found = findEntryLocked(folder);
  if (!found) return;
  for (const auto& node : found->collectRecords()) {
    // A record placed since by a change still on its way, onto it or onto a folder between
    // it and the confirmed one (a later move into the tree), stays the overlay's own.
    const bool inFlight =
        changeInFlightLocked(nodeIRI(node)) || attributeChangeInFlightLocked(nodeIRI(node));
    if (node.index() == 0) {
      if (!inFlight) std::get<0>(node)->unfreeze();
      continue;
    }
    const auto& record = std::get<1>(node);
    if (!inFlight) record->unfreeze();
    if (record->getIRI() != folder) unfreezeTreeLocked(record->getIRI());
  }
}

}  // namespace storage::overlayprovider
