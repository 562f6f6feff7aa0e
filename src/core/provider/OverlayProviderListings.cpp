// OverlayProvider: folder listings, served from the metadata cache. One inner listing per
// folder fills the cache, shared by every concurrent caller; a listing of a cached folder
// costs one copy of its children and no inner call.
#include "core/metadata/FolderIterator.h"
#include "core/metadata/ListingPredicates.h"
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"

namespace storage::overlayprovider {

using fsp::StorageIRI;

template <class Pred>
fsp::FolderEntryIteratorPtr OverlayProvider::doListingOperation(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (passThrough_) {
    return forwardingRefusals([&] { return innerItem(location).listAll(); });
  }
  // Mutations update the cache before they return, so there is no queued work for this
  // location to wait for: the cache already shows it.
  const auto entry = forwardingRefusals([&] { return metadataCache_->getFolderEntry(location); });
  if (!entry) throw notFound(location);
  return std::make_unique<FolderIterator<Pred>>(entry->getChildren());
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListAll(const StorageIRI& iri) const {
  return doListingOperation<ListAllPred>(iri);
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListFiles(const StorageIRI& iri) const {
  if (passThrough_) return innerItem(resolve(iri)).listFiles();
  return doListingOperation<ListFilesPred>(iri);
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListFolders(const StorageIRI& iri) const {
  if (passThrough_) return innerItem(resolve(iri)).listFolders();
  return doListingOperation<ListFoldersPred>(iri);
}

}  // namespace storage::overlayprovider
