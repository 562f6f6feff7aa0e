// OverlayProvider: opening streams. A stream is a WorkingFileByteStream over the file's
// working file in the content cache, so every stream on one file shares one cached body and
// one queue of writes to the inner store. When the content cache fails, the provider flushes
// and forwards everything to the inner store for the rest of its life.
#include "core/contentcache/CachingErrorException.h"
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"
#include "core/workingfiles/WorkingFileByteStream.h"

#include <foundation/storage/provider/GenericByteStreamDevice.h>

#include <array>
#include <boost/filesystem/exception.hpp>

namespace storage::overlayprovider {

using fsp::StorageIRI;
namespace log = foundation::log;

UnavailableRetry OverlayProvider::unavailableRetry() const {
  return UnavailableRetry(std::chrono::milliseconds(retryUnavailableMs_.load()), shutDown_);
}

WorkingFileSettings OverlayProvider::workingFileSettings() const {
  WorkingFileSettings settings;
  settings.innerRoot = inner_;
  settings.executor = executor_;
  settings.metadataCache = metadataCache_;
  settings.quotaAccountant = quotaAccountant();
  settings.eventLatch = eventLatch();
  settings.maxReadPayloadSize = static_cast<std::int64_t>(maxReadPayloadSize_.load());
  settings.maxWritePayloadSize = static_cast<std::int64_t>(maxWritePayloadSize_.load());
  settings.minQueueItemWeight = minQueueItemWeight_.load();
  settings.contentCacheDisabled = contentCacheDisabled_.load();
  settings.readAttributesLazily = absorbChanges_.load();
  settings.mergeWrites = absorbChanges_.load();
  settings.storeKeepsExtendedAttributes = innerHasFeature(fsp::ExtendedFeature::ExtendedAttributes);
  settings.storeReportsCacheUsage = innerHasFeature(fsp::ExtendedFeature::CacheUsage);
  settings.noteReplayedChange = ReplayEchoes::noteThrough(echoes_);
  settings.journal = journal();
  settings.unavailableRetry = unavailableRetry();
  // Weakly: a stream may outlive the provider and its content cache.
  settings.cacheRoom = [cache = std::weak_ptr<ContentCache>(contentCache_)](std::uint64_t bytes) {
    const auto held = cache.lock();
    return !held || held->grantGrowth(bytes);
  };
  return settings;
}

fsp::ByteStreamPtr OverlayProvider::doOpenStream(const StorageIRI& iri,
                                                 const fsp::ByteStreamOpenOptions& options) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  if (!passThrough_) {
    try {
      return openCachedStream(location, options, false);
    } catch (const CachingErrorException&) {
      fallBackToInnerStore("Caching error when opening stream. Falling back.");
    }
  }
  return forwardingRefusals([&] { return innerItem(location).openStream(options); });
}

fsp::ByteStreamPtr OverlayProvider::doOpenReadOnlyStream(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  if (!passThrough_) {
    try {
      return openCachedStream(location, fsp::ByteStreamOpenOptions::readOnly(), true);
    } catch (const CachingErrorException&) {
      fallBackToInnerStore("Caching error when opening read-only stream. Falling back.");
    }
  }
  return forwardingRefusals([&] { return innerItem(location).openReadOnlyStream(); });
}

fsp::ByteStreamPtr OverlayProvider::openCachedStream(const StorageIRI& location,
                                                     const fsp::ByteStreamOpenOptions& options,
                                                     bool readOnly) const {
  triggerEventLatch();
  const auto held = guard(location);
  bool created = false;
  const auto record = recordForStream(location, options, readOnly, created);
  // The record names the file as the store spells it, so that every spelling of a name on a
  // case-insensitive store shares one working file.
  const auto& key = record->getIRI();
  const auto entry = workingFileFor(record);
  const std::shared_ptr<void> unpin(nullptr, [entry](void*) { entry->unpin(); });
  if (readOnly) {
    return std::make_unique<WorkingFileByteStream>(entry, entry->openReadOnly(), false, false);
  }
  auto openOptions = options;
  openOptions.create = created;
  std::function<void()> onOpened;
  if (created) {
    onOpened = [metadataCache = metadataCache_, key] { metadataCache->confirmFile(key); };
  }
  auto registration = entry->openReadWrite(openOptions, std::move(onOpened));
  if (options.write) followCurrentRecord(location, *entry);
  return std::make_unique<WorkingFileByteStream>(entry, std::move(registration), options.append,
                                                 options.write);
}

std::shared_ptr<WorkingFileEntry> OverlayProvider::workingFileFor(
    const std::shared_ptr<FileMetadata>& record) const {
  const auto& key = record->getIRI();
  std::shared_ptr<WorkingFileEntry> entry;
  try {
    contentCache_->dropIfStale(key, record->getWatermark(), true);
    contentCache_->dropIfOutdated(key, record);
    entry = contentCache_->retrieve(key, record, workingFileSettings());
  } catch (const boost::filesystem::filesystem_error&) {
    // The cache's directory cannot be made or reached: as much a caching error as no space.
    throw CachingErrorException("Caching failed due to an unknown error.");
  }
  // A folder listed again from the store may have replaced the record the entry was made
  // with; the entry keeps the cache's record current from now on, or its writes would not
  // show in listings.
  entry->adoptRecord(record);
  return entry;
}

void OverlayProvider::doTruncateToSize(const StorageIRI& iri, std::uint64_t size) const {
  OVERLAY_OPERATION(iri);
  ensureReady();
  const auto location = resolve(iri);
  if (!passThrough_) {
    try {
      triggerEventLatch();
      const auto held = guard(location);
      bool created = false;
      // The file must exist (NotFound otherwise, also for a folder): nothing is created.
      const auto record =
          recordForStream(location, fsp::ByteStreamOpenOptions::readWrite(), true, created);
      const auto entry = workingFileFor(record);
      const std::shared_ptr<void> unpin(nullptr, [entry](void*) { entry->unpin(); });
      forwardingRefusals([&] { entry->truncate(size); });
      followCurrentRecord(location, *entry);
      return;
    } catch (const CachingErrorException&) {
      fallBackToInnerStore("Caching error when truncating. Falling back.");
    }
  }
  forwardingRefusals([&] {
    const auto item = innerItem(location);
    item.getProvider()->truncateToSize(item.getLocation(), size);
  });
}

std::shared_ptr<FileMetadata> OverlayProvider::recordForStream(
    const StorageIRI& location, const fsp::ByteStreamOpenOptions& options, bool readOnly,
    bool& created) const {
  if (auto record = forwardingRefusals([&] { return metadataCache_->getFileMetadata(location); })) {
    return record;
  }
  if (readOnly || options.mustExist()) throw notFound(location);
  // Created as doCreateFile creates it, but the store learns of it from the stream's own
  // open, queued behind what is already waiting.
  checkName(publicLocation(location));
  if (metadataCache_->getFolderMetadata(location)) {
    throw fsp::Exception(fsp::ErrorCode::AlreadyExists, publicLocation(location));
  }
  if (!metadataCache_->getFolderMetadata(location.getParent())) {
    throw notFound(location.getParent());
  }
  try {
    contentCache_->discardEntry(location, false);
  } catch (const boost::filesystem::filesystem_error&) {
    throw CachingErrorException("Caching failed due to an unknown error.");
  }
  created = true;
  return metadataCache_->createFileMetadata(location);
}

void OverlayProvider::followCurrentRecord(const StorageIRI& location,
                                          WorkingFileEntry& entry) const {
  // The writable stream holds the entry's record frozen, so from now on no listing read
  // again from the store replaces it. One that did between the lookup and the hold left the
  // entry on a record the cache no longer shows: the entry moves to the cache's (and holds
  // that one instead). Each round needs another relisting inside that short window.
  for (int round = 0; round < 3; ++round) {
    const auto current = metadataCache_->getFileMetadata(location);
    if (!current || current == entry.record()) return;
    entry.adoptRecord(current);
  }
}

void OverlayProvider::copyThroughStreams(fsp::ByteStreamPtr source,
                                         fsp::ByteStreamPtr destination) {
  fsp::GenericByteStreamDevice<> in(source);
  fsp::GenericByteStreamDevice<> out(destination);
  std::array<char, 4096> buffer;
  for (;;) {
    std::streamsize count = 0;
    try {
      count = in.read(buffer.data(), buffer.size());
    } catch (...) {
      in.close();
      throw;
    }
    if (count < 1) break;
    try {
      for (std::streamsize done = 0; done < count;) {
        const auto n = out.write(buffer.data() + done, count - done);
        if (n <= 0) break;  // -1 ends the copy; 0 would never progress
        done += n;
      }
    } catch (...) {
      out.close();
      throw;
    }
  }
  in.close();
  out.close();
}

void OverlayProvider::fallBackToInnerStore(const char* message) const {
  OVERLAY_LOG(log::info) << message;
  flushBody();
  passThrough_.store(true);
}

}  // namespace storage::overlayprovider
