// OverlayProvider: change-event subscriptions. The overlay produces no events of its own: it
// hands every subscription to the inner provider, on the inner location, so subscribers hear
// what the inner store reports. No overlay lock is held while the inner provider is asked.
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"

namespace storage::overlayprovider {

using fsp::StorageIRI;
namespace events = foundation::storage::events;

void OverlayProvider::doPublishFolderEventsFor(const StorageIRI& iri,
                                               const fsp::EventPublisher& publisher,
                                               const std::vector<events::Kind>& kinds,
                                               fsp::RecursiveFileWatching recursive) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto item = innerItem(resolve(iri));
  forwardingRefusals([&] { item.publishFolderEvents(publisher, kinds, recursive); });
}

void OverlayProvider::doPublishFileEventsFor(const StorageIRI& iri,
                                             const fsp::EventPublisher& publisher,
                                             const std::vector<events::Kind>& kinds) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto item = innerItem(resolve(iri));
  forwardingRefusals([&] { item.publishFileEvents(publisher, kinds); });
}

void OverlayProvider::doStopPublishingEventsFor(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto item = innerItem(location);
  // Whether the location is a file or a folder is the overlay's own knowledge: a file whose
  // creation the inner store has not carried out yet is a file too.
  if (metadataCache_->getFileMetadata(location)) {
    forwardingRefusals([&] { item.stopPublishingFileEvents(); });
  } else if (metadataCache_->getFolderMetadata(location)) {
    forwardingRefusals([&] { item.stopPublishingFolderEvents(); });
  }
}

}  // namespace storage::overlayprovider
