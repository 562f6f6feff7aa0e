// OverlayProvider: the mutating operations. Each is checked against and carried out in the
// overlay's caches on the caller's thread, under the path guard of its location(s), so that
// every later call sees the result at once; the same change is then queued as one
// transaction that replays it on the inner store (write-behind) and confirms it in the
// metadata cache once replayed. The caller never hears of the replay's outcome: a refusal by
// the store is logged by runWithRetry.
//
// With the journal, a change that discards or moves cached bodies (a removal, a move) is
// recorded before it is applied: applied first, a crash in between would leave the records of
// the file's earlier writes pointing at bytes that are gone, with nothing saying why.
//
// The transaction is queued before the guard is released, not after: released first, a
// related operation on another thread (a removal of the file just created and written, say)
// could queue its own change ahead of this one, and the store would replay the two in the
// other order than the caches applied them.
#include "core/execution/RunWithRetry.h"
#include "core/journal/JournalReceipt.h"
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"
#include "core/support/InnerLocation.h"

#include <boost/exception/diagnostic_information.hpp>
#include <deque>

namespace storage::overlayprovider {

using fsp::ErrorCode;
using fsp::Exception;
using fsp::StorageIRI;
using fsp::StorageItem;
namespace log = foundation::log;

namespace {

// The one name that FUSE gives a file that was removed while open; the kernel removes it
// itself later, so replaying the move on the store would only churn it.
bool isFuseHiddenName(const StorageIRI& location) {
  return location.getName().rfind(u".fuse_hidden", 0) == 0;
}

}  // namespace

void OverlayProvider::replay(
    const ReplayChange& change,
    std::function<void(const StorageItem& innerRoot, const ReplayChange& replayed)> innerCall,
    std::function<void(MetadataCache&)> confirm, ReplayedChanges echoes,
    std::shared_ptr<JournalReceipt> recorded) const {
  if (shutDown_->load()) return;
  const auto executor = executor_->load();
  if (!executor) return;
  // The confirmation is also the change's local half: absorbed by a later change, it is
  // confirmed as if the store had done it and then undone it.
  const auto receipt = recorded ? std::move(recorded) : journalReceipt(change);
  auto confirmInCache = [cache = metadataCache_, confirm = std::move(confirm), receipt] {
    try {
      confirm(*cache);
    } catch (...) {
      logCaughtException("Confirming a replayed change failed.");
    }
    // runWithRetry has logged a refusal; a later process could not do better with the record.
    if (receipt) receipt->confirm();
  };
  auto run = [name = std::string(actionName(change.action)), inner = inner_, stopped = shutDown_,
              innerCall = std::move(innerCall), confirmInCache, noted = echoes_,
              echoes = std::move(echoes), retry = unavailableRetry()](const ReplayChange& queued) {
    if (stopped->load()) return;
    const bool followsMove = (queued.flags & ReplayChange::kFollowsMove) != 0;
    for (const auto& [location, replayed] : echoes) {
      noted->note(followsMove ? queued.location : location, replayed);
    }
    // Shut down while the store was away: the change is still due, and its record stays for
    // the next process over the cache root.
    if (runWithRetry([&] { innerCall(*inner, queued); }, name, retry) ==
        ReplayOutcome::Interrupted) {
      return;
    }
    confirmInCache();
  };
  executor->submit(ReplayTask{change, std::move(run), confirmInCache, minQueueItemWeight_.load()});
}

void OverlayProvider::triggerEventLatch() const {
  if (const auto latch = eventLatch()) latch->trigger();
}

bool OverlayProvider::existsInCache(const StorageIRI& location) const {
  return metadataCache_->getFileMetadata(location) || metadataCache_->getFolderMetadata(location);
}

void OverlayProvider::requireNothingAt(const StorageIRI& location) const {
  if (existsInCache(location)) throw Exception(ErrorCode::AlreadyExists, publicLocation(location));
}

void OverlayProvider::requireParentFolder(const StorageIRI& location) const {
  if (!location.hasParent() || !metadataCache_->getFolderMetadata(location.getParent())) {
    throw notFound(location.hasParent() ? location.getParent() : location);
  }
}

void OverlayProvider::requireWritableParent(const StorageIRI& location) const {
  if (!innerHasFeature(fsp::ExtendedFeature::FolderWritableEnforced)) return;
  const auto parent = metadataCache_->getFolderMetadata(location.getParent());
  if (parent && !parent->isWritable()) {
    throw Exception(ErrorCode::OperationRefused, publicLocation(location.getParent()),
                    "the destination folder is not writable");
  }
}

void OverlayProvider::doCreateFile(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  checkName(publicLocation(resolve(iri)));
  ensureReady();
  const auto location = resolve(iri);
  if (passThrough_) return forwardingRefusals([&] { innerItem(location).createFile(); });
  triggerEventLatch();
  const auto held = guard(location);
  requireNothingAt(location);
  requireParentFolder(location);
  contentCache_->discardEntry(location, false);
  metadataCache_->createFileMetadata(location);
  replay(
      ReplayChange(FILE_CREATION, ChangeAction::CreateFile, location),
      // Where the change is when it runs: a move may have taken it along (see ChangeAbsorber).
      [](const StorageItem& inner, const ReplayChange& replayed) {
        innerItemFor(inner, replayed.location).createFile();
      },
      [location](MetadataCache& cache) { cache.confirmFile(location); },
      {{location, ReplayedChange::Created}, {location, ReplayedChange::Written}});
}

void OverlayProvider::doCreateFolder(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  checkName(publicLocation(resolve(iri)));
  ensureReady();
  const auto location = resolve(iri);
  if (passThrough_) return forwardingRefusals([&] { innerItem(location).createFolder(); });
  triggerEventLatch();
  const auto held = guard(location);
  requireNothingAt(location);
  requireParentFolder(location);
  metadataCache_->createFolderMetadata(location);
  replay(
      ReplayChange(FOLDER_CREATION, ChangeAction::CreateFolder, location),
      [location](const StorageItem& inner, const ReplayChange&) {
        innerItemFor(inner, location).createFolder();
      },
      [location](MetadataCache& cache) { cache.confirmFolder(location, false); },
      {{location, ReplayedChange::Created}});
}

void OverlayProvider::doCreateFolderRecursive(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  checkName(publicLocation(resolve(iri)));
  ensureReady();
  const auto location = resolve(iri);
  if (passThrough_) {
    return forwardingRefusals([&] { innerItem(location).createFolderRecursive(); });
  }
  triggerEventLatch();
  const auto held = guard(location);
  // The folders that are new, top-down. The walk goes down from the root and stops at the
  // first name that is not a folder: nothing exists below it, and a lookup there would list
  // folders that the store does not have, on the caller's time (under a folder the overlay
  // has just made, one listing per level). A file in the way refuses as the store would.
  std::deque<StorageIRI> missing;
  for (auto folder = location; folder.hasParent(); folder = folder.getParent()) {
    missing.push_front(folder);
  }
  while (!missing.empty() && metadataCache_->getFolderMetadata(missing.front())) {
    missing.pop_front();
  }
  if (missing.empty()) throw Exception(ErrorCode::AlreadyExists, publicLocation(location));
  if (metadataCache_->getFileMetadata(missing.front())) {
    throw Exception(ErrorCode::AlreadyExists, publicLocation(missing.front()), "a file is there");
  }
  ReplayedChanges made;
  for (const auto& folder : missing) made.emplace_back(folder, ReplayedChange::Created);
  for (const auto& folder : missing) metadataCache_->createFolderMetadata(folder);
  replay(
      ReplayChange(FOLDER_CREATION_RECURSIVE, ChangeAction::CreateFolderTree, location),
      [location](const StorageItem& inner, const ReplayChange&) {
        innerItemFor(inner, location).createFolderRecursive();
      },
      [missing](MetadataCache& cache) {
        for (const auto& folder : missing) cache.confirmFolder(folder, false);
      },
      std::move(made));
}

void OverlayProvider::doRemoveFile(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  if (passThrough_) return forwardingRefusals([&] { innerItem(location).removeFile(); });
  triggerEventLatch();
  const auto held = guard(location);
  const auto record = metadataCache_->getFileMetadata(location);
  if (!record) throw notFound(location);
  // The store's spelling: the body's key, and the name the store removes.
  const auto stored = record->getIRI();
  refuseWhileOpen(stored);
  // The store will hold that much less once the removal reaches it; the estimate says so now,
  // as it counted the file's growth when it was written.
  if (const auto accountant = quotaAccountant()) accountant->releaseSpace(record->getSize());
  const ReplayChange change(FILE_REMOVAL, ChangeAction::RemoveFile, stored);
  auto recorded = recordBeforeApplying(change, [&] {
    metadataCache_->removeFileMetadata(stored);
    // The file's unsent writes are queued ahead of its removal rather than lost with its entry.
    contentCache_->discardEntry(stored, true);
  });
  replay(
      change,
      [stored](const StorageItem& inner, const ReplayChange&) {
        innerItemFor(inner, stored).removeFile();
      },
      [stored](MetadataCache& cache) { cache.confirmRemoval(stored); },
      {{stored, ReplayedChange::Removed}}, std::move(recorded));
}

void OverlayProvider::doRemoveFolder(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  if (passThrough_) return forwardingRefusals([&] { innerItem(location).removeFolder(); });
  triggerEventLatch();
  const auto held = guard(location);
  const auto folder = requireFolder(location);
  if (!metadataCache_->getFolderEntry(folder)->isEmpty()) {
    throw Exception(ErrorCode::FolderNotEmpty, publicLocation(location));
  }
  removeFolderBehind(ReplayChange(FOLDER_REMOVAL, ChangeAction::RemoveFolder, folder),
                     [](const StorageItem& item) { item.removeFolder(); });
}

void OverlayProvider::doRemoveFolderRecursively(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  if (passThrough_) {
    return forwardingRefusals([&] { innerItem(location).removeFolderRecursively(); });
  }
  triggerEventLatch();
  const auto held = guard(location);
  const auto folder = requireFolder(location);
  removeFolderBehind(ReplayChange(FOLDER_REMOVAL_RECURSIVE, ChangeAction::RemoveFolderTree, folder),
                     [](const StorageItem& item) { item.removeFolderRecursively(); });
}

void OverlayProvider::removeFolderBehind(const ReplayChange& change,
                                         std::function<void(const StorageItem&)> removal) const {
  const auto& folder = change.location;
  // Sized from the metadata cache while it still knows the tree.
  if (const auto accountant = quotaAccountant()) accountant->removeFolderTree(folder);
  auto recorded = recordBeforeApplying(change, [&] {
    metadataCache_->removeFolderMetadata(folder);
    contentCache_->removeFolderEntries(folder, true);
  });
  replay(
      change,
      [folder, removal = std::move(removal)](const StorageItem& inner, const ReplayChange&) {
        removal(innerItemFor(inner, folder));
      },
      [folder](MetadataCache& cache) { cache.confirmRemoval(folder); },
      {{folder, ReplayedChange::Removed}}, std::move(recorded));
}

StorageIRI OverlayProvider::requireFolder(const StorageIRI& location) const {
  if (!location.hasParent()) {
    throw Exception(ErrorCode::OperationRefused, publicLocation(location), "the root stays");
  }
  const auto record = metadataCache_->getFolderMetadata(location);
  if (!record) throw notFound(location);
  return record->getIRI();
}

void OverlayProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to,
                                 const fsp::ReplacementPolicy& policy) const {
  OVERLAY_OPERATION(from);
  ensureReady();
  const auto source = resolve(from);
  const auto destination = resolve(to);
  if (passThrough_) {
    return forwardingRefusals(
        [&] { innerItem(source).moveFile(innerItem(destination).getLocation(), policy); });
  }
  triggerEventLatch();
  const auto held = guard(source, destination);
  const auto record = metadataCache_->getFileMetadata(source);
  const auto stored = record ? record->getIRI() : source;
  refuseWhileOpen(stored);
  if (!record) throw notFound(source);
  const auto replaced = checkFileDestination(stored, destination, policy);
  if (stored == destination) return;  // the file is already there: nothing changes
  auto change =
      ReplayChange(FILE_MOVE, ChangeAction::MoveFile, stored).to(destination).withFlags(policy);
  change.destinationWasFree = !replaced;
  const bool hidden = isFuseHiddenName(destination);
  std::shared_ptr<WorkingFileEntry> moved;
  auto recorded = recordBeforeApplying(hidden ? std::nullopt : std::optional(change), [&] {
    // The body of a file that the move replaces goes with that file.
    if (replaced && replaced->getIRI() != stored) {
      contentCache_->discardEntry(replaced->getIRI(), true);
    }
    metadataCache_->moveFileMetadata(stored, destination);
    moved = contentCache_->moveEntry(stored, destination);
  });
  if (moved) moved->adoptRecord(metadataCache_->getFileMetadata(destination));
  if (hidden) {
    metadataCache_->confirmFile(destination);
    metadataCache_->confirmRemoval(stored);
    return;
  }
  replay(
      change,
      [stored, destination, policy](const StorageItem& inner, const ReplayChange&) {
        innerItemFor(inner, stored)
            .moveFile(innerItemFor(inner, destination).getLocation(), policy);
      },
      [stored, destination,
       respelled = replaced && replaced->getIRI() == stored](MetadataCache& cache) {
        cache.confirmFile(destination);
        // A new spelling of the same file went nowhere: its name must not be forgotten.
        if (!respelled) cache.confirmRemoval(stored);
      },
      {{stored, ReplayedChange::MovedFrom}, {destination, ReplayedChange::MovedTo}},
      std::move(recorded));
}

std::shared_ptr<JournalReceipt> OverlayProvider::recordBeforeApplying(
    const std::optional<ReplayChange>& change, const std::function<void()>& apply) const {
  auto recorded = change ? journalReceipt(*change) : nullptr;
  try {
    apply();
  } catch (...) {
    // Not applied, so not to be replayed by a later process either.
    if (recorded) recorded->confirm();
    throw;
  }
  return recorded;
}

std::shared_ptr<FileMetadata> OverlayProvider::checkFileDestination(
    const StorageIRI& source, const StorageIRI& destination, fsp::ReplacementPolicy policy) const {
  if (metadataCache_->getFolderMetadata(destination)) {
    throw Exception(ErrorCode::AlreadyExists, publicLocation(destination), "a folder");
  }
  const auto existing = metadataCache_->getFileMetadata(destination);
  // On a case-insensitive store a new spelling of the same file is a rename, not a clash.
  const bool sameFile = existing && existing->getIRI() == source;
  if (existing && !sameFile && !fsp::allowsReplacing(policy)) {
    throw Exception(ErrorCode::AlreadyExists, publicLocation(destination));
  }
  requireParentFolder(destination);
  requireWritableParent(destination);
  return existing;
}

void OverlayProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                                   const fsp::ReplacementPolicy& policy) const {
  OVERLAY_OPERATION(from);
  checkName(publicLocation(resolve(to)));
  ensureReady();
  const auto source = resolve(from);
  const auto destination = resolve(to);
  if (passThrough_) {
    return forwardingRefusals(
        [&] { innerItem(source).moveFolder(innerItem(destination).getLocation(), policy); });
  }
  triggerEventLatch();
  const auto held = guard(source, destination);
  const auto stored = requireFolder(source);
  if (stored == destination) return;  // the folder is already there: nothing changes
  // On a case-insensitive store a new spelling of the same folder renames it: nothing is
  // replaced, and nothing of it goes away.
  const auto existing = metadataCache_->getFolderMetadata(destination);
  const bool respelled = existing && existing->getIRI() == stored;
  if (!respelled) {
    if (stored.isAncestorOf(destination)) {
      throw Exception(ErrorCode::OperationRefused, publicLocation(destination),
                      "a folder cannot move into itself");
    }
    checkFolderDestination(destination, policy);
  }
  const auto change =
      ReplayChange(FOLDER_MOVE, ChangeAction::MoveFolder, stored).to(destination).withFlags(policy);
  auto recorded = recordBeforeApplying(change, [&] {
    // Unless the move merges, the bodies below a folder it replaces go with that folder.
    if (!respelled && existing && policy != fsp::ReplacementPolicy::Merge) {
      contentCache_->removeFolderEntries(existing->getIRI(), true);
    }
    metadataCache_->moveFolderMetadata(stored, destination, policy);
    contentCache_->moveFolderEntries(stored, destination);
  });
  keepWorkingFilesOnTheirRecords(destination);
  replay(
      change,
      [stored, destination, policy](const StorageItem& inner, const ReplayChange&) {
        innerItemFor(inner, stored)
            .moveFolder(innerItemFor(inner, destination).getLocation(), policy);
      },
      [stored, destination, respelled](MetadataCache& cache) {
        cache.confirmFolder(destination, true);
        if (!respelled) cache.confirmRemoval(stored);
      },
      {{stored, ReplayedChange::MovedFrom}, {destination, ReplayedChange::MovedTo}},
      std::move(recorded));
}

void OverlayProvider::checkFolderDestination(const StorageIRI& destination,
                                             fsp::ReplacementPolicy policy) const {
  if (metadataCache_->getFileMetadata(destination)) {
    throw Exception(ErrorCode::AlreadyExists, publicLocation(destination), "a file");
  }
  const auto existing = metadataCache_->getFolderMetadata(destination);
  if (existing && policy == fsp::ReplacementPolicy::Fail) {
    throw Exception(ErrorCode::AlreadyExists, publicLocation(destination));
  }
  requireParentFolder(destination);
  requireWritableParent(destination);
  const auto value = static_cast<std::uint32_t>(policy);
  const bool checksContents = value == 1 || value == 2 || value == 4;
  if (existing && checksContents &&
      (policy == fsp::ReplacementPolicy::Exclusive ||
       !metadataCache_->getFolderEntry(existing->getIRI())->isEmpty())) {
    throw Exception(ErrorCode::AlreadyExists, publicLocation(destination), "a folder");
  }
}

void OverlayProvider::doCopyFile(const StorageIRI& from, const StorageIRI& to,
                                 const fsp::ReplacementPolicy& policy) const {
  OVERLAY_OPERATION(from);
  ensureReady();
  const auto destination = resolve(to);
  // Built on the overlay's own operations: the destination's bytes reach the store through
  // its working file like any other write, and the source is read from the cache.
  if (passThrough_) {
    forwardingRefusals(
        [&] { innerItem(resolve(from)).copyFile(innerItem(destination).getLocation(), policy); });
    return;
  }
  const auto forbidsReplacing = !fsp::allowsReplacing(policy);
  if (doFileExists(to) && forbidsReplacing) {
    throw Exception(ErrorCode::AlreadyExists, publicLocation(destination));
  }
  // Opening the destination for overwriting would empty the very bytes the copy reads: a copy
  // of a file onto itself (under any spelling the store takes for the same name) changes
  // nothing, as the stores themselves answer it.
  const auto target = metadataCache_->getFileMetadata(destination);
  const auto origin = target ? metadataCache_->getFileMetadata(resolve(from)) : nullptr;
  if (origin && target->getIRI() == origin->getIRI()) return;
  if (doFolderExists(to)) throw Exception(ErrorCode::AlreadyExists, publicLocation(destination));
  // The source first: a missing source must not leave an empty destination behind.
  auto source = doOpenReadOnlyStream(from);
  copyThroughStreams(std::move(source), doOpenStream(to, fsp::ByteStreamOpenOptions::overwrite()));
}

void OverlayProvider::doSetLastModified(const StorageIRI& iri,
                                        const fsp::posix_time::ptime& time) const {
  OVERLAY_OPERATION(iri);
  setAttribute(
      iri, ReplayChange(SET_LAST_MODIFIED, ChangeAction::SetLastModified, iri).at(time),
      [time](const StorageItem& item) { item.setLastModified(time); },
      [&](FileMetadata& file) { file.setLastModified(time); },
      [&](FolderMetadata& folder) { folder.setLastModified(time); });
}

void OverlayProvider::doSetWritable(const StorageIRI& iri, bool writable) const {
  OVERLAY_OPERATION(iri);
  if (alreadyWritableAs(iri, writable)) return;
  setAttribute(
      iri, ReplayChange(SET_WRITABLE, ChangeAction::SetWritable, iri).withFlags(writable ? 1 : 0),
      [writable](const StorageItem& item) { item.setWritable(writable); },
      [&](FileMetadata& file) { file.setWritable(writable); },
      [&](FolderMetadata& folder) { folder.setWritable(writable); });
}

bool OverlayProvider::alreadyWritableAs(const StorageIRI& iri, bool writable) const {
  if (!absorbChanges_.load() || passThrough_) return false;
  ensureReady();
  const auto location = resolve(iri);
  if (const auto file = metadataCache_->getFileMetadata(location)) {
    return file->isWritable() == writable;
  }
  if (const auto folder = metadataCache_->getFolderMetadata(location)) {
    return folder->isWritable() == writable;
  }
  return false;  // the change reports what is missing
}

void OverlayProvider::setAttribute(const StorageIRI& iri, ReplayChange change,
                                   std::function<void(const StorageItem&)> innerCall,
                                   const std::function<void(FileMetadata&)>& updateFile,
                                   const std::function<void(FolderMetadata&)>& updateFolder) const {
  ensureReady();
  const auto location = resolve(iri);
  if (passThrough_) return forwardingRefusals([&] { innerCall(innerItem(location)); });
  triggerEventLatch();
  const auto held = guard(location);
  const bool isFile = updateRecord(location, updateFile, updateFolder);
  if (!shutDown_->load()) metadataCache_->beginAttributeChange(location);
  change.location = location;
  replay(
      change,
      // A move that took the file's unsent creation along takes this change along too.
      [innerCall = std::move(innerCall)](const StorageItem& inner, const ReplayChange& replayed) {
        innerCall(innerItemFor(inner, replayed.location));
      },
      [location, isFile](MetadataCache& cache) { cache.confirmAttributes(location, isFile); },
      {{location, ReplayedChange::AttributesSet}});
}

bool OverlayProvider::updateRecord(const StorageIRI& location,
                                   const std::function<void(FileMetadata&)>& updateFile,
                                   const std::function<void(FolderMetadata&)>& updateFolder) const {
  // The record stays frozen until the change is replayed, so that a folder listed again from
  // the store meanwhile keeps the new value. A relisting between the lookup and the freeze
  // replaces the record before it is frozen: the change then goes again to the one that the
  // cache shows now (which, frozen, stays). Each round needs another relisting in that window.
  for (int round = 0;; ++round) {
    const bool last = round == 2;
    if (const auto file = metadataCache_->getFileMetadata(location)) {
      updateFile(*file);
      file->freeze();
      // A working file keeps its own record, which its close writes back to the store.
      if (const auto entry = contentCache_->find(file->getIRI())) {
        if (entry->record() != file) updateFile(*entry->record());
      }
      if (last || metadataCache_->getFileMetadata(location) == file) return true;
    } else if (const auto folder = metadataCache_->getFolderMetadata(location)) {
      updateFolder(*folder);
      folder->freeze();
      if (last || metadataCache_->getFolderMetadata(location) == folder) return false;
    } else {
      throw notFound(location);
    }
  }
}

void OverlayProvider::keepWorkingFilesOnTheirRecords(const StorageIRI& moved) const {
  // The metadata cache made new records below the destination; the working files that moved
  // with them must now keep those current, or their sizes would no longer show.
  for (const auto& entry : contentCache_->entries()) {
    const auto location = entry->location();
    if (location == moved || moved.isAncestorOf(location)) {
      entry->adoptRecord(metadataCache_->getFileMetadata(location));
    }
  }
}

void OverlayProvider::refuseWhileOpen(const StorageIRI& key) const {
  const bool refused = innerHasFeature(fsp::ExtendedFeature::RemoveWhileClosing)
                           ? contentCache_->isInUse(key, true)
                           : !innerHasFeature(fsp::ExtendedFeature::RemoveWhileOpen) &&
                                 contentCache_->isInUse(key, false);
  if (refused) {
    throw Exception(ErrorCode::ResourceBusy, publicLocation(key), "a stream on the file is open");
  }
}

}  // namespace storage::overlayprovider
