// OverlayProvider: questions about locations, answered from the metadata cache and the
// quota accountant without asking the inner store (except for features).
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"

namespace storage::overlayprovider {

using fsp::ErrorCode;
using fsp::Exception;
using fsp::StorageIRI;
namespace log = foundation::log;

Exception OverlayProvider::notFound(const StorageIRI& location) const {
  return Exception(ErrorCode::NotFound, publicLocation(location));
}

bool OverlayProvider::doFileExists(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (passThrough_) return forwardingRefusals([&] { return innerItem(location).fileExists(); });
  if (!location.hasParent()) return false;
  const auto held = guard(location);
  return forwardingRefusals([&] { return metadataCache_->getFileMetadata(location) != nullptr; });
}

bool OverlayProvider::doFolderExists(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (passThrough_) return forwardingRefusals([&] { return innerItem(location).folderExists(); });
  if (!location.hasParent()) return true;
  const auto held = guard(location);
  return forwardingRefusals([&] { return metadataCache_->getFolderMetadata(location) != nullptr; });
}

fsp::FileAttributes OverlayProvider::doGetFileAttributes(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (passThrough_)
    return forwardingRefusals([&] { return innerItem(location).getFileAttributes(); });
  const auto held = guard(location);
  const auto record = forwardingRefusals([&] { return metadataCache_->getFileMetadata(location); });
  if (!record) throw notFound(location);
  // A file open for writing answers from its working file: its size and time change with
  // every write, before the store (or a fresh listing) knows of them.
  if (const auto entry = contentCache_->find(record->getIRI());
      entry && entry->isOpenForWriting()) {
    return fsp::FileAttributes(entry->size(), entry->lastModified(), record->isWritable());
  }
  return fsp::FileAttributes(record->getSize(), record->getLastModified(), record->isWritable());
}

fsp::FolderAttributes OverlayProvider::doGetFolderAttributes(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (passThrough_) {
    return forwardingRefusals([&] { return innerItem(location).getFolderAttributes(); });
  }
  const auto held = guard(location);
  const auto record =
      forwardingRefusals([&] { return metadataCache_->getFolderMetadata(location); });
  if (!record) throw notFound(location);
  return fsp::FolderAttributes(record->getLastModified(), record->isWritable());
}

fsp::ExtendedAttributes OverlayProvider::doGetExtendedAttributes(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (passThrough_) {
    return forwardingRefusals([&] { return innerItem(location).getExtendedAttributes(); });
  }
  const auto held = guard(location);
  return forwardingRefusals([&] {
    // A store without extended attributes (sftp) refuses them; the overlay answers alike.
    const auto refuseWithoutStoreSupport = [&] {
      if (!innerHasFeature(fsp::ExtendedFeature::ExtendedAttributes)) {
        throw fsp::Exception(fsp::ErrorCode::NotSupported, iri, "the store keeps none");
      }
    };
    if (const auto folder = metadataCache_->getFolderMetadata(location)) {
      refuseWithoutStoreSupport();
      return folder->getExtendedAttributes();
    }
    const auto file = metadataCache_->getFileMetadata(location);
    if (!file) throw notFound(location);
    refuseWithoutStoreSupport();
    if (file->extendedAttributesUnread()) {
      file->setExtendedAttributes(innerItem(file->getIRI()).getExtendedAttributes());
    }
    return file->getExtendedAttributes();
  });
}

fsp::ProviderStorageInfo OverlayProvider::doGetProviderStorageInfo(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  triggerEventLatch();
  const auto accountant = quotaAccountant();
  const auto total = accountant->getTotalQuota();
  const auto available = accountant->getSpaceAvailable();
  if (!total || !available) {
    OVERLAY_LOG(log::error) << "Quota information unavailable";
    throw Exception(ErrorCode::Unavailable, iri);
  }
  // An estimate above the total wraps around; the figures come from the store as they are.
  return fsp::ProviderStorageInfo().withStorageCapacity(*total).withSpaceOccupied(*total -
                                                                                  *available);
}

bool OverlayProvider::doHasFeature(const fsp::ExtendedFeature& feature) const {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kOverlayProviderSource);
  ensureInitialized();
  // The overlay claims only what it keeps true whatever the inner store does: being
  // writable. Recursive listing and locking semantics are the overlay's own business.
  return innerHasFeature(feature) && feature == fsp::ExtendedFeature::ReadWrite;
}

fsp::FilenameSensitivity OverlayProvider::doGetFilenameSensitivity(const StorageIRI&) const {
  return metadataCache_->isCaseSensitive() ? fsp::FilenameSensitivity::CaseSensitive
                                           : fsp::FilenameSensitivity::CaseInsensitive;
}

}  // namespace storage::overlayprovider
