// OverlayProvider: folder listings, served from the metadata cache. One inner listing per
// folder fills the cache, shared by every concurrent caller; a listing of a cached folder
// costs one copy of its children and no inner call.
#include "core/metadata/FolderIterator.h"
#include "core/metadata/ListingPredicates.h"
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"

#include <type_traits>

namespace storage::overlayprovider {

using fsp::StorageIRI;

namespace {

// The inner store's own listing of the kind a predicate selects, for pass-through mode.
template <class Pred>
fsp::FolderEntryIteratorPtr innerListing(const fsp::StorageItem& folder) {
  if constexpr (std::is_same_v<Pred, ListFilesPred>) {
    return folder.listFiles();
  } else if constexpr (std::is_same_v<Pred, ListFoldersPred>) {
    return folder.listFolders();
  } else {
    return folder.listAll();
  }
}

}  // namespace

// Every listing, pass-through ones included, opens its trace record here, so that the record
// names the predicate ("[with Pred = ...]") whichever kind of listing the host asked for.
template <class Pred>
fsp::FolderEntryIteratorPtr OverlayProvider::doListingOperation(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (passThrough_) {
    return forwardingRefusals([&] { return innerListing<Pred>(innerItem(location)); });
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
  return doListingOperation<ListFilesPred>(iri);
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListFolders(const StorageIRI& iri) const {
  return doListingOperation<ListFoldersPred>(iri);
}

}  // namespace storage::overlayprovider
