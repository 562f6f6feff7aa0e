// OverlayProvider: opening streams. Bodies are not cached yet: streams are the inner store's,
// and a stream that writes refreshes the file's cache record when it is closed.
#include "core/OverlayProvider.h"
#include "core/OverlayProviderSupport.h"
#include "core/RecordRefreshingByteStream.h"

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
  // Opening may have created or emptied the file: the record shows it at once.
  keepCacheTrue(location, [&] { refreshFileRecord(location); });
  return std::make_unique<RecordRefreshingByteStream>(std::move(stream), [this, location] {
    const auto held = guard(location);
    keepCacheTrue(location, [&] { refreshFileRecord(location); });
  });
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
