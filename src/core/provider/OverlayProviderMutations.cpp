// OverlayProvider: the mutating operations. Each is carried out on the inner provider under
// the path guard of its location(s), then the metadata cache is told exactly what changed.
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
  const auto held = guard(location);
  forwardingRefusals([&] { change(innerItem(location)); });
  keepCacheTrue(location, recordChange);
}

void OverlayProvider::mutateBetween(
    const StorageIRI& source, const StorageIRI& destination,
    const std::function<void(const fsp::StorageItem&, const StorageIRI&)>& change,
    const std::function<void()>& recordChange) const {
  checkName(publicLocation(destination));
  const auto held = guard(source, destination);
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
      location, [](const fsp::StorageItem& item) { item.createFile(); },
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
  const auto held = guard(location);
  // The folders that will be new, top-down, found before the inner store makes them.
  std::deque<StorageIRI> missing;
  for (auto folder = location; folder.hasParent() && !metadataCache_->getFolderMetadata(folder);
       folder = folder.getParent()) {
    missing.push_front(folder);
  }
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
      location, [](const fsp::StorageItem& item) { item.removeFile(); },
      [&] { metadataCache_->removeFileMetadata(location); });
}

void OverlayProvider::doRemoveFolder(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  mutate(
      location, [](const fsp::StorageItem& item) { item.removeFolder(); },
      [&] { metadataCache_->removeFolderMetadata(location); });
}

void OverlayProvider::doRemoveFolderRecursively(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  mutate(
      location, [](const fsp::StorageItem& item) { item.removeFolderRecursively(); },
      [&] { metadataCache_->removeFolderMetadata(location); });
}

void OverlayProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to,
                                 const fsp::ReplacementPolicy& policy) const {
  OVERLAY_OPERATION(from);
  ensureReady();
  const auto source = resolve(from);
  const auto destination = resolve(to);
  mutateBetween(
      source, destination,
      [&](const fsp::StorageItem& item, const StorageIRI& to) { item.moveFile(to, policy); },
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
      [&](const fsp::StorageItem& item, const StorageIRI& to) { item.moveFolder(to, policy); },
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
  const auto source = resolve(from);
  const auto destination = resolve(to);
  mutateBetween(
      source, destination,
      [&](const fsp::StorageItem& item, const StorageIRI& to) { item.copyFile(to, policy); },
      [&] { refreshFileRecord(destination); });
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
