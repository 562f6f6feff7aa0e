// OverlayProvider: opening streams. Bodies are not cached yet: streams are the inner store's,
// and a stream that writes refreshes the file's cache record when it is closed.
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"
#include "core/provider/RecordRefreshingByteStream.h"

#include <boost/date_time/posix_time/posix_time.hpp>

namespace storage::overlayprovider {

using fsp::StorageIRI;

fsp::ByteStreamPtr OverlayProvider::doOpenStream(const StorageIRI& iri,
                                                 const fsp::ByteStreamOpenOptions& options) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  if (passThrough_)
    return forwardingRefusals([&] { return innerItem(location).openStream(options); });
  if (options.create) checkName(publicLocation(location));
  const auto held = guard(location);
  auto stream = forwardingRefusals([&] { return innerItem(location).openStream(options); });
  if (!options.write && !options.create && !options.truncate) return stream;
  // Opening may have created or emptied the file: the record shows it at once, without
  // asking the inner store (a new record is made as a creation makes it).
  keepCacheTrue(location, [&] { noteOpenedForWriting(location, options.truncate); });
  return std::make_unique<RecordRefreshingByteStream>(std::move(stream), [this, location] {
    const auto held = guard(location);
    keepCacheTrue(location, [&] { refreshFileRecord(location); });
  });
}

void OverlayProvider::noteOpenedForWriting(const StorageIRI& location, bool truncated) const {
  const auto record = metadataCache_->getFileMetadata(location);
  if (!record) {
    metadataCache_->createFileMetadata(location);
    metadataCache_->confirmFile(location);
  } else if (truncated) {
    record->setSize(0).setLastModified(boost::posix_time::microsec_clock::universal_time());
  }
}

fsp::ByteStreamPtr OverlayProvider::doOpenReadOnlyStream(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  if (passThrough_)
    return forwardingRefusals([&] { return innerItem(location).openReadOnlyStream(); });
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).openReadOnlyStream(); });
}

}  // namespace storage::overlayprovider
