// OverlayProvider: the mutating operations. Each is carried out on the inner provider under
// the path guard of its location(s), after every transaction queued before it (so a queued
// write never lands after a later move or removal of its file); then the metadata cache and
// the content cache are told exactly what changed.
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"

#include <boost/exception/diagnostic_information.hpp>
#include <deque>

namespace storage::overlayprovider {

using fsp::StorageIRI;
namespace log = foundation::log;

void OverlayProvider::keepCacheTrue(const StorageIRI& location,
                                    const std::function<void()>& update) const {
  try {
    update();
  } catch (...) {
    // The inner change happened; the cache must not keep a picture without it.
    OVERLAY_LOG(log::exception) << "Exception caught: "
                                << boost::current_exception_diagnostic_information();
    metadataCache_->invalidate(location.getParent());
  }
}

void OverlayProvider::mutate(const StorageIRI& location,
                             const std::function<void(const fsp::StorageItem&)>& change,
                             const std::function<void()>& recordChange) const {
  if (passThrough_) {
    forwardingRefusals([&] { change(innerItem(location)); });
    return;
  }
  const auto held = guard(location);
  waitForQueuedWork();
  forwardingRefusals([&] { change(innerItem(location)); });
  keepCacheTrue(location, recordChange);
}

void OverlayProvider::mutateBetween(
    const StorageIRI& source, const StorageIRI& destination,
    const std::function<void(const fsp::StorageItem&, const StorageIRI&)>& change,
    const std::function<void()>& recordChange) const {
  checkName(publicLocation(destination));
  if (passThrough_) {
    forwardingRefusals([&] { change(innerItem(source), innerItem(destination).getLocation()); });
    return;
  }
  const auto held = guard(source, destination);
  waitForQueuedWork();
  forwardingRefusals([&] { change(innerItem(source), innerItem(destination).getLocation()); });
  // Moving or copying a location onto itself changes nothing the cache holds.
  if (source != destination) keepCacheTrue(destination, recordChange);
}

void OverlayProvider::doCreateFile(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  checkName(publicLocation(location));
  mutate(
      location,
      [&](const fsp::StorageItem& item) {
        if (!passThrough_) contentCache_->removeEntry(location, false);
        item.createFile();
      },
      [&] {
        metadataCache_->createFileMetadata(location);
        metadataCache_->confirmFile(location);
      });
}

void OverlayProvider::doCreateFolder(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  checkName(publicLocation(location));
  mutate(
      location, [](const fsp::StorageItem& item) { item.createFolder(); },
      [&] {
        metadataCache_->createFolderMetadata(location);
        metadataCache_->confirmFolder(location, false);
      });
}

void OverlayProvider::doCreateFolderRecursive(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  checkName(publicLocation(location));
  if (passThrough_) {
    forwardingRefusals([&] { innerItem(location).createFolderRecursive(); });
    return;
  }
  const auto held = guard(location);
  // The folders that will be new, top-down, found before the inner store makes them.
  std::deque<StorageIRI> missing;
  for (auto folder = location; folder.hasParent() && !metadataCache_->getFolderMetadata(folder);
       folder = folder.getParent()) {
    missing.push_front(folder);
  }
  waitForQueuedWork();
  forwardingRefusals([&] { innerItem(location).createFolderRecursive(); });
  keepCacheTrue(missing.empty() ? location : missing.front(), [&] {
    for (const auto& folder : missing) {
      metadataCache_->createFolderMetadata(folder);
      metadataCache_->confirmFolder(folder, false);
    }
  });
}

void OverlayProvider::doRemoveFile(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  mutate(
      location,
      [&](const fsp::StorageItem& item) {
        if (!passThrough_) {
          const auto key = bodyKey(location);
          refuseWhileOpen(key);
          // The file's pending writes are queued before it goes, not lost with its entry.
          contentCache_->removeEntry(key, true);
          waitForQueuedWork();
        }
        item.removeFile();
      },
      [&] { metadataCache_->removeFileMetadata(location); });
}

void OverlayProvider::doRemoveFolder(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  mutate(
      location, [](const fsp::StorageItem& item) { item.removeFolder(); },
      [&] {
        metadataCache_->removeFolderMetadata(location);
        contentCache_->removeFolderEntries(location, true);
      });
}

void OverlayProvider::doRemoveFolderRecursively(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  mutate(
      location, [](const fsp::StorageItem& item) { item.removeFolderRecursively(); },
      [&] {
        metadataCache_->removeFolderMetadata(location);
        contentCache_->removeFolderEntries(location, true);
      });
}

void OverlayProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to,
                                 const fsp::ReplacementPolicy& policy) const {
  OVERLAY_OPERATION(from);
  ensureReady();
  const auto source = resolve(from);
  const auto destination = resolve(to);
  mutateBetween(
      source, destination,
      [&](const fsp::StorageItem& item, const StorageIRI& to) {
        if (passThrough_) return item.moveFile(to, policy);
        refuseWhileOpen(bodyKey(source));
        moveBodies(bodyKey(source), destination, false, [&] { item.moveFile(to, policy); });
      },
      [&] {
        metadataCache_->moveFileMetadata(source, destination);
        metadataCache_->confirmFile(destination);
      });
}

void OverlayProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                                   const fsp::ReplacementPolicy& policy) const {
  OVERLAY_OPERATION(from);
  ensureReady();
  const auto source = resolve(from);
  const auto destination = resolve(to);
  mutateBetween(
      source, destination,
      [&](const fsp::StorageItem& item, const StorageIRI& to) {
        if (passThrough_) return item.moveFolder(to, policy);
        moveBodies(source, destination, true, [&] { item.moveFolder(to, policy); });
      },
      [&] {
        // A merge mixes the moved tree with what the destination held: the inner store has the
        // only complete picture, so both places are read again on their next use.
        metadataCache_->removeFolderMetadata(source);
        metadataCache_->invalidate(destination);
        metadataCache_->invalidate(destination.getParent());
      });
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
    throw fsp::Exception(fsp::ErrorCode::AlreadyExists, publicLocation(destination));
  }
  if (doFolderExists(to)) {
    throw fsp::Exception(fsp::ErrorCode::AlreadyExists, publicLocation(destination));
  }
  // The source first: a missing source must not leave an empty destination behind.
  auto source = doOpenReadOnlyStream(from);
  copyThroughStreams(std::move(source), doOpenStream(to, fsp::ByteStreamOpenOptions::overwrite()));
}

void OverlayProvider::doSetLastModified(const StorageIRI& iri,
                                        const fsp::posix_time::ptime& time) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  mutate(
      location, [&](const fsp::StorageItem& item) { item.setLastModified(time); },
      [&] {
        if (const auto file = metadataCache_->getFileMetadata(location))
          file->setLastModified(time);
        if (const auto folder = metadataCache_->getFolderMetadata(location))
          folder->setLastModified(time);
      });
}

void OverlayProvider::doSetWritable(const StorageIRI& iri, bool writable) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  mutate(
      location, [&](const fsp::StorageItem& item) { item.setWritable(writable); },
      [&] {
        if (const auto file = metadataCache_->getFileMetadata(location))
          file->setWritable(writable);
        if (const auto folder = metadataCache_->getFolderMetadata(location))
          folder->setWritable(writable);
      });
}

StorageIRI OverlayProvider::bodyKey(const StorageIRI& location) const {
  const auto record = metadataCache_->getFileMetadata(location);
  return record ? record->getIRI() : location;
}

void OverlayProvider::refuseWhileOpen(const StorageIRI& key) const {
  const bool refused = innerHasFeature(fsp::ExtendedFeature::RemoveWhileClosing)
                           ? contentCache_->isInUse(key, true)
                           : !innerHasFeature(fsp::ExtendedFeature::RemoveWhileOpen) &&
                                 contentCache_->isInUse(key, false);
  if (refused) {
    throw fsp::Exception(fsp::ErrorCode::ResourceBusy, publicLocation(key),
                         "a stream on the file is open");
  }
}

void OverlayProvider::moveBodies(const StorageIRI& from, const StorageIRI& to, bool folder,
                                 const std::function<void()>& innerMove) const {
  const auto move = [&](const StorageIRI& a, const StorageIRI& b) {
    folder ? contentCache_->moveFolderEntries(a, b) : contentCache_->moveEntry(a, b);
  };
  // The entries' inner streams are closed by transactions queued here, before the store
  // moves the file under them; writes queued later go to the new location.
  move(from, to);
  try {
    waitForQueuedWork();
    innerMove();
  } catch (...) {
    move(to, from);
    throw;
  }
}

void OverlayProvider::refreshFileRecord(const StorageIRI& location) const {
  const auto attributes = innerItem(location).getFileAttributes();
  auto record = metadataCache_->getFileMetadata(location);
  if (!record) {
    record = std::make_shared<FileMetadata>(location, false);
    record->setExtendedAttributes(innerItem(location).getExtendedAttributes());
  }
  record->setLastModified(attributes.getLastModified())
      .setWritable(attributes.isWritable())
      .setSize(attributes.getSize().value_or(0));
  metadataCache_->addFileMetadata(record);
}

}  // namespace storage::overlayprovider
