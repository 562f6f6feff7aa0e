// MetadataCache: construction, lookups, updates, confirmations and the invalidation entry
// points. The helpers that run under the cache's lock are in MetadataCacheTree.cpp.
#include "core/metadata/MetadataCache.h"

#include "core/metadata/FutureFolderEntry.h"
#include "core/support/InnerLocation.h"
#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/text/Unicode.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace storage::overlayprovider {

namespace {

bool isNotFound(const fsp::Exception& e) { return e.getErrorCode() == fsp::ErrorCode::NotFound; }

boost::posix_time::ptime nowUtc() { return boost::posix_time::microsec_clock::universal_time(); }

}  // namespace

MetadataCache::MetadataCache(std::shared_ptr<fsp::StorageItem> innerRoot,
                             fsp::FilenameSensitivity sensitivity)
    : innerRoot_(std::move(innerRoot)),
      caseSensitive_(sensitivity == fsp::FilenameSensitivity::CaseSensitive) {
  if (!innerRoot_) {
    throw fsp::Exception(fsp::ErrorCode::InvalidLocation, rootIRI(), "no inner root item");
  }
}

MetadataCache::~MetadataCache() {
  // The population task works on this cache's members; they must outlive it.
  std::shared_ptr<std::future<void>> population;
  {
    Guard guard(*this);
    population = population_;
  }
  if (!population || !population->valid()) return;
  try {
    population->get();
  } catch (const std::exception& e) {
    OVERLAY_LOG(foundation::log::exception) << "Exception caught: " << e.what();
  }
}

fsp::StorageIRI MetadataCache::rootIRI() { return fsp::StorageIRI(u"overlay", u"/"); }

std::shared_ptr<IFolderEntry> MetadataCache::lookupEntry(const fsp::StorageIRI& folder) {
  std::shared_ptr<IFolderEntry> entry;
  {
    Guard guard(*this);
    if (isRemovedLocked(folder)) return ownEntryLocked(folder);
    entry = entryLocked(folder, true);
  }
  try {
    entry->waitForDetail();
  } catch (const fsp::Exception& e) {
    if (isNotFound(e)) {
      Guard guard(*this);
      invalidateLocked(folder);
    }
    throw;
  }
  return entry;
}

std::shared_ptr<FileMetadata> MetadataCache::getFileMetadata(const fsp::StorageIRI& iri) {
  if (!iri.hasParent()) return {};
  prepareLookup();
  try {
    const auto found =
        lookupEntry(iri.getParent())->tryFindChild(iri, NodeKind::File, caseSensitive_);
    return found ? believed(iri, std::get<0>(*found)) : nullptr;
  } catch (const fsp::Exception& e) {
    if (isNotFound(e)) return {};
    throw;
  }
}

std::shared_ptr<FolderMetadata> MetadataCache::doGetFolderMetadata(const fsp::StorageIRI& iri) {
  if (!iri.hasParent()) return lookupEntry(iri)->getFolderMetadata();
  const auto found =
      lookupEntry(iri.getParent())->tryFindChild(iri, NodeKind::Folder, caseSensitive_);
  return found ? std::get<1>(*found) : nullptr;
}

std::shared_ptr<FolderMetadata> MetadataCache::getFolderMetadata(const fsp::StorageIRI& iri) {
  prepareLookup();
  try {
    return believed(iri, doGetFolderMetadata(iri));
  } catch (const fsp::Exception& e) {
    if (isNotFound(e)) return {};
    throw;
  }
}

std::shared_ptr<IFolderEntry> MetadataCache::getFolderEntry(const fsp::StorageIRI& iri) {
  // Frozen records go back into the listing that replaces a dropped folder under the same
  // hold that dropped it: a confirmation in between would thaw a record that the new
  // listing, started before the store received it, may lack.
  prepareLookup();
  auto entry = lookupEntry(iri);
  Guard guard(*this);
  reapplyFrozenLocked();
  hidePendingRemovalsLocked(*entry);
  return entry;
}

std::uint64_t MetadataCache::getFileSize(const fsp::StorageIRI& iri) {
  auto record = getFileMetadata(iri);
  return record ? record->getSize() : 0;
}

std::uint64_t MetadataCache::getFolderTreeSize(const fsp::StorageIRI& iri) {
  Guard guard(*this);
  return treeSizeLocked(iri);
}

void MetadataCache::addFileMetadata(std::shared_ptr<FileMetadata> record) {
  if (!record || !record->getIRI().hasParent()) {
    throw fsp::Exception(fsp::ErrorCode::InvalidLocation, record ? record->getIRI() : rootIRI(),
                         "a file record needs a parent folder");
  }
  Guard guard(*this);
  addFileMetadataLocked(std::move(record));
}

fsp::ExtendedAttributes MetadataCache::parentAttributes(const fsp::StorageIRI& iri) {
  auto parent = lookupEntry(iri.getParent())->getFolderMetadata();
  return parent ? parent->getExtendedAttributes() : fsp::ExtendedAttributes();
}

std::shared_ptr<FileMetadata> MetadataCache::createFileMetadata(const fsp::StorageIRI& iri) {
  prepareLookup();
  auto record = std::make_shared<FileMetadata>(iri, true);
  record->setLastModified(nowUtc()).setWritable(true).setSize(0);
  if (!iri.hasParent()) return record;
  record->setExtendedAttributes(parentAttributes(iri));
  Guard guard(*this);
  beginChangeLocked(iri);
  addFileMetadataLocked(record);
  return record;
}

std::shared_ptr<FolderMetadata> MetadataCache::createFolderMetadata(const fsp::StorageIRI& iri) {
  prepareLookup();
  auto record = std::make_shared<FolderMetadata>(iri, true);
  record->setLastModified(nowUtc()).setWritable(true);
  if (!iri.hasParent()) return record;
  record->setExtendedAttributes(parentAttributes(iri));
  Guard guard(*this);
  beginChangeLocked(iri);
  enterNewFolderLocked(record);
  return record;
}

void MetadataCache::removeFileMetadata(const fsp::StorageIRI& iri) {
  Guard guard(*this);
  if (auto parent = iri.hasParent() ? entryLocked(iri.getParent(), false) : nullptr) {
    parent->removeIfPresent(iri, NodeKind::File, caseSensitive_);
  }
  dropFrozenLocked(iri, false);
  noteRemovalLocked(iri);
}

void MetadataCache::removeFolderMetadata(const fsp::StorageIRI& iri) {
  Guard guard(*this);
  reapplyFrozenLocked();
  if (auto parent = iri.hasParent() ? entryLocked(iri.getParent(), false) : nullptr) {
    parent->removeIfPresent(iri, NodeKind::Folder, caseSensitive_);
  }
  invalidateLocked(iri);
  dropFrozenLocked(iri, true);
  noteRemovalLocked(iri);
}

void MetadataCache::moveFileMetadata(const fsp::StorageIRI& from, const fsp::StorageIRI& to) {
  prepareLookup();
  if (!from.hasParent() || !to.hasParent()) {
    throw fsp::Exception(fsp::ErrorCode::InvalidLocation, from.hasParent() ? to : from);
  }
  // The source as the store spells it: on a case-insensitive store the caller's spelling may
  // differ, and the stored record is the one that must go.
  auto source = lookupEntry(from.getParent())->getFileMetadata(from, caseSensitive_);
  const auto stored = source->getIRI();
  auto moved = std::make_shared<FileMetadata>(to, true);
  moved->setSize(source->getSize())
      .setWritable(source->isWritable())
      .setLastModified(source->getLastModified())
      .setExtendedAttributes(source->getExtendedAttributes());
  Guard guard(*this);
  beginChangeLocked(to);
  entryLocked(to.getParent(), true)->removeIfPresent(to, NodeKind::File, caseSensitive_);
  addFileMetadataLocked(moved);
  if (stored != to) {
    entryLocked(stored.getParent(), true)->removeIfPresent(stored, NodeKind::File, true);
  }
  dropFrozenLocked(stored, false);
  // A new spelling of the same name on a case-insensitive store removes nothing.
  if (keyOf(stored) != keyOf(to)) noteRemovalLocked(stored);
}

void MetadataCache::moveFolderMetadata(const fsp::StorageIRI& from, const fsp::StorageIRI& to,
                                       fsp::ReplacementPolicy policy) {
  if (!from.hasParent() || !to.hasParent() || from == to || from.isAncestorOf(to)) {
    throw fsp::Exception(fsp::ErrorCode::OperationRefused, from, "folder cannot move there");
  }
  // Acts on pending invalidations first, as every lookup does, folder by folder.
  auto tree = snapshotTree(from);
  const auto& source = tree.front().record;
  auto moved = std::make_shared<FolderMetadata>(to, true);
  moved->setWritable(source->isWritable())
      .setLastModified(source->getLastModified())
      .setExtendedAttributes(source->getExtendedAttributes());
  Guard guard(*this);
  reapplyFrozenLocked();
  beginChangeLocked(to);
  // A new spelling of the same name on a case-insensitive store replaces the subtree in place
  // and removes nothing.
  const bool respelled = keyOf(from) == keyOf(to);
  moveFolderDetail(from, to, moved, respelled ? fsp::ReplacementPolicy::Merge : policy, tree);
  if (!respelled) noteRemovalLocked(from);
}

void MetadataCache::confirmFile(const fsp::StorageIRI& iri) {
  Guard guard(*this);
  if (endChangeLocked(iri) && !attributeChangeInFlightLocked(iri)) unfreezeFileLocked(iri);
}

void MetadataCache::confirmFolder(const fsp::StorageIRI& iri, bool recursive) {
  Guard guard(*this);
  if (endChangeLocked(iri) && !attributeChangeInFlightLocked(iri)) {
    unfreezeFolderLocked(iri, recursive);
  }
}

void MetadataCache::beginAttributeChange(const fsp::StorageIRI& iri) {
  Guard guard(*this);
  ++attributeChangesInFlight_[keyOf(iri)];
}

void MetadataCache::confirmAttributes(const fsp::StorageIRI& iri, bool isFile) {
  Guard guard(*this);
  const auto it = attributeChangesInFlight_.find(keyOf(iri));
  if (it != attributeChangesInFlight_.end() && --it->second <= 0) {
    attributeChangesInFlight_.erase(it);
  }
  if (changeInFlightLocked(iri) || attributeChangeInFlightLocked(iri)) return;
  isFile ? unfreezeFileLocked(iri) : unfreezeFolderLocked(iri, false);
}

void MetadataCache::confirmRemoval(const fsp::StorageIRI& iri) {
  Guard guard(*this);
  const auto it = pendingRemovals_.find(keyOf(iri));
  if (it != pendingRemovals_.end() && --it->second <= 0) pendingRemovals_.erase(it);
  removalsPending_ = !pendingRemovals_.empty();
  // Until now lookups hid what a listing of the parent brought back from the store; a
  // listing read before the store changed (still running, or done but not yet looked at)
  // would show it again from here on, so it goes from that listing now.
  if (!iri.hasParent()) return;
  if (const auto parent = findEntryLocked(iri.getParent())) {
    parent->forgetUnlessFrozen(iri, caseSensitive_);
  }
}

void MetadataCache::prepareLookup() {
  Guard guard(*this);
  actOnPendingInvalidationsLocked();
  reapplyFrozenLocked();
}

template <typename Record>
std::shared_ptr<Record> MetadataCache::believed(const fsp::StorageIRI& iri,
                                                std::shared_ptr<Record> record) {
  // A frozen record is believed, and so is any record while no removal is pending: each is
  // one reading at one instant, so the common lookup takes no second hold of the lock.
  if (!record || !removalsPending_.load() || record->isFrozen()) return record;
  // Under the lock, as the confirmations change both: the removal and the record's frozen
  // state must be read at one instant. Read apart, a removal seen before a long listing and
  // a record unfrozen after it (the removal and the re-creation both confirmed meanwhile)
  // would hide a folder that the store holds.
  Guard guard(*this);
  return isRemovedLocked(iri) && !record->isFrozen() ? nullptr : record;
}

void MetadataCache::markForInvalidation(const fsp::StorageIRI& iri) {
  Guard guard(*this);
  pendingInvalidations_.insert(iri);
}

void MetadataCache::invalidate(const fsp::StorageIRI& iri) {
  Guard guard(*this);
  invalidateLocked(iri);
}

void MetadataCache::clear() {
  Guard guard(*this);
  for (auto& [folder, entry] : folders_) released_.push_back(std::move(entry));
  folders_.clear();
  frozen_.clear();
}

void MetadataCache::dropPendingState() {
  Guard guard(*this);
  actOnPendingInvalidationsLocked();
  reapplyFrozenLocked();
  frozen_.clear();
}

}  // namespace storage::overlayprovider
