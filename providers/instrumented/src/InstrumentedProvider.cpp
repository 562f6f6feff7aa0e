#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>

#include "InstrumentedByteStream.h"

#include <stdexcept>

namespace foundation::storage::provider::instrumented {

InstrumentedProvider::InstrumentedProvider(std::shared_ptr<IProvider> inner)
    : inner_(std::move(inner)), instrumentation_(std::make_shared<Instrumentation>()) {
  if (!inner_) throw std::invalid_argument("InstrumentedProvider needs an inner provider");
}

std::uint64_t InstrumentedProvider::callCount(std::string_view operation) const {
  return instrumentation_->counters.count(operation);
}

std::uint64_t InstrumentedProvider::totalCalls() const {
  return instrumentation_->counters.total();
}

void InstrumentedProvider::resetCounters() { instrumentation_->counters.reset(); }

void InstrumentedProvider::failNext(const std::string& operation, unsigned count, ErrorCode code) {
  instrumentation_->faults.failNext(operation, count, code);
}

void InstrumentedProvider::throwNextUnexpected(const std::string& operation, unsigned count) {
  instrumentation_->faults.throwNextUnexpected(operation, count);
}

void InstrumentedProvider::setCallLatency(std::chrono::microseconds delay) {
  instrumentation_->latency.setCallDelay(delay);
}

void InstrumentedProvider::setStreamLatency(std::chrono::microseconds delay) {
  instrumentation_->latency.setStreamDelay(delay);
}

void InstrumentedProvider::enter(std::string_view operation, const StorageIRI& location) const {
  instrumentation_->enterCall(operation, location);
}

void InstrumentedProvider::enterLocalQuery(std::string_view operation,
                                           const StorageIRI& location) const {
  instrumentation_->enterLocalQuery(operation, location);
}

ByteStreamPtr InstrumentedProvider::wrap(ByteStreamPtr stream, const StorageIRI& iri) const {
  return std::make_unique<InstrumentedByteStream>(std::move(stream), instrumentation_,
                                                  iri.getPath());
}

void InstrumentedProvider::logged(std::string_view operation, const StorageIRI& location,
                                  const std::optional<StorageIRI>& destination) const {
  if (!instrumentation_->log.enabled()) return;
  instrumentation_->log.record({std::string(operation), location.getPath(),
                                destination ? destination->getPath() : std::u16string(), false});
}

// --- creation, existence, removal, moves ---

void InstrumentedProvider::doCreateFile(const StorageIRI& iri) const {
  enter("createFile", iri);
  inner_->createFile(iri);
  logged("createFile", iri);
}

void InstrumentedProvider::doCreateFolder(const StorageIRI& iri) const {
  enter("createFolder", iri);
  inner_->createFolder(iri);
  logged("createFolder", iri);
}

void InstrumentedProvider::doCreateFolderRecursive(const StorageIRI& iri) const {
  enter("createFolderRecursive", iri);
  inner_->createFolderRecursive(iri);
  logged("createFolderRecursive", iri);
}

bool InstrumentedProvider::doFileExists(const StorageIRI& iri) const {
  enter("fileExists", iri);
  return inner_->fileExists(iri);
}

bool InstrumentedProvider::doFolderExists(const StorageIRI& iri) const {
  enter("folderExists", iri);
  return inner_->folderExists(iri);
}

void InstrumentedProvider::doRemoveFile(const StorageIRI& iri) const {
  enter("removeFile", iri);
  inner_->removeFile(iri);
  logged("removeFile", iri);
}

void InstrumentedProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to,
                                      const ReplacementPolicy& policy) const {
  enter("moveFile", from);
  inner_->moveFile(from, to, policy);
  logged("moveFile", from, to);
}

void InstrumentedProvider::doRemoveFolder(const StorageIRI& iri) const {
  enter("removeFolder", iri);
  inner_->removeFolder(iri);
  logged("removeFolder", iri);
}

void InstrumentedProvider::doRemoveFolderRecursively(const StorageIRI& iri) const {
  enter("removeFolderRecursively", iri);
  inner_->removeFolderRecursively(iri);
  logged("removeFolderRecursively", iri);
}

void InstrumentedProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                                        const ReplacementPolicy& policy) const {
  enter("moveFolder", from);
  inner_->moveFolder(from, to, policy);
  logged("moveFolder", from, to);
}

void InstrumentedProvider::doCopyFile(const StorageIRI& from, const StorageIRI& to,
                                      const ReplacementPolicy& policy) const {
  enter("copyFile", from);
  inner_->copyFile(from, to, policy);
  logged("copyFile", from, to);
}

void InstrumentedProvider::doCopyFileAtomic(const StorageIRI& from, const StorageIRI& to,
                                            const ReplacementPolicy& policy,
                                            const InterruptCallback& interrupt) const {
  enter("copyFileAtomic", from);
  inner_->copyFileAtomic(from, to, policy, interrupt);
}

void InstrumentedProvider::doTruncateToSize(const StorageIRI& iri, std::uint64_t size) const {
  enter("truncateToSize", iri);
  inner_->truncateToSize(iri, size);
  logged("truncateToSize", iri);
}

void InstrumentedProvider::doWriteWholeFile(const StorageIRI& iri, std::string_view bytes,
                                            const posix_time::ptime& lastModified) const {
  const auto* whole = dynamic_cast<const extensions::IWholeFileWrites*>(inner_.get());
  if (whole == nullptr) {
    // Through this wrapper's own calls, so that each is counted, delayed and logged.
    extensions::writeWholeFileThroughStream(*this, iri, bytes, lastModified);
    return;
  }
  enter("writeWholeFile", iri);
  whole->writeWholeFile(iri, bytes, lastModified);
  if (instrumentation_->log.enabled()) {
    instrumentation_->log.record({"writeWholeFile", iri.getPath(), std::u16string(), true});
  }
}

bool InstrumentedProvider::doExists(const StorageIRI& iri) const {
  enter("exists", iri);
  return inner_->exists(iri);
}

Existence InstrumentedProvider::doExistsExtended(const StorageIRI& iri) const {
  enter("existsExtended", iri);
  return inner_->existsExtended(iri);
}

// --- attributes ---

FileAttributes InstrumentedProvider::doGetFileAttributes(const StorageIRI& iri) const {
  enter("getFileAttributes", iri);
  return inner_->getFileAttributes(iri);
}

FolderAttributes InstrumentedProvider::doGetFolderAttributes(const StorageIRI& iri) const {
  enter("getFolderAttributes", iri);
  return inner_->getFolderAttributes(iri);
}

void InstrumentedProvider::doSetLastModified(const StorageIRI& iri,
                                             const posix_time::ptime& time) const {
  enter("setLastModified", iri);
  inner_->setLastModified(iri, time);
  logged("setLastModified", iri);
}

void InstrumentedProvider::doSetWritable(const StorageIRI& iri, bool writable) const {
  enter("setWritable", iri);
  inner_->setWritable(iri, writable);
  logged("setWritable", iri);
}

ExtendedAttributes InstrumentedProvider::doGetExtendedAttributes(const StorageIRI& iri) const {
  enter("getExtendedAttributes", iri);
  return inner_->getExtendedAttributes(iri);
}

ProviderStorageInfo InstrumentedProvider::doGetProviderStorageInfo(const StorageIRI& iri) const {
  enter("getProviderStorageInfo", iri);
  return inner_->getProviderStorageInfo(iri);
}

ProviderCacheUsage InstrumentedProvider::doGetProviderCacheUsage(const StorageIRI& iri) const {
  enterLocalQuery("getProviderCacheUsage", iri);
  return inner_->getProviderCacheUsage(iri);
}

// --- streams ---

ByteStreamPtr InstrumentedProvider::doOpenStream(const StorageIRI& iri,
                                                 const ByteStreamOpenOptions& options) const {
  enter("openStream", iri);
  auto stream = wrap(inner_->openStream(iri, options), iri);
  if (options.write)
    instrumentation_->log.record({"openStream", iri.getPath(), {}, options.create});
  return stream;
}

ByteStreamPtr InstrumentedProvider::doOpenReadOnlyStream(const StorageIRI& iri) const {
  enter("openReadOnlyStream", iri);
  return wrap(inner_->openReadOnlyStream(iri), iri);
}

ByteStreamPtr InstrumentedProvider::doOpenTransactionalStream(
    const StorageIRI& iri, const ByteStreamOpenOptions& options) const {
  enter("openTransactionalStream", iri);
  return wrap(inner_->openTransactionalStream(iri, options), iri);
}

ByteStreamPtr InstrumentedProvider::doOpenTransactionalStreamAtScratchLocation(
    const StorageIRI& iri, const StorageIRI& scratch, const ByteStreamOpenOptions& options) const {
  enter("openTransactionalStreamAtScratchLocation", iri);
  return wrap(inner_->openTransactionalStreamAtScratchLocation(iri, scratch, options), iri);
}

// --- listings ---

FolderEntryIteratorPtr InstrumentedProvider::doListAll(const StorageIRI& iri) const {
  enter("listAll", iri);
  return inner_->listAll(iri);
}

FolderEntryIteratorPtr InstrumentedProvider::doListAllWildcards(const StorageIRI& iri,
                                                                std::u16string pattern) const {
  enter("listAll", iri);
  return inner_->listAll(iri, pattern);
}

FolderEntryIteratorPtr InstrumentedProvider::doListFiles(const StorageIRI& iri) const {
  enter("listFiles", iri);
  return inner_->listFiles(iri);
}

FolderEntryIteratorPtr InstrumentedProvider::doListFilesWildcards(const StorageIRI& iri,
                                                                  std::u16string pattern) const {
  enter("listFiles", iri);
  return inner_->listFiles(iri, pattern);
}

FolderEntryIteratorPtr InstrumentedProvider::doListFolders(const StorageIRI& iri) const {
  enter("listFolders", iri);
  return inner_->listFolders(iri);
}

FolderEntryIteratorPtr InstrumentedProvider::doListFoldersWildcards(const StorageIRI& iri,
                                                                    std::u16string pattern) const {
  enter("listFolders", iri);
  return inner_->listFolders(iri, pattern);
}

NameList InstrumentedProvider::doListAllNamesOnly(const StorageIRI& iri) const {
  enter("listAllNamesOnly", iri);
  return inner_->listAllNamesOnly(iri);
}

NameList InstrumentedProvider::doListAllNamesOnlyWildcards(const StorageIRI& iri,
                                                           std::u16string pattern) const {
  enter("listAllNamesOnly", iri);
  return inner_->listAllNamesOnly(iri, pattern);
}

NameList InstrumentedProvider::doListFoldersNamesOnly(const StorageIRI& iri) const {
  enter("listFoldersNamesOnly", iri);
  return inner_->listFoldersNamesOnly(iri);
}

NameList InstrumentedProvider::doListFoldersNamesOnlyWildcards(const StorageIRI& iri,
                                                               std::u16string pattern) const {
  enter("listFoldersNamesOnly", iri);
  return inner_->listFoldersNamesOnly(iri, pattern);
}

NameList InstrumentedProvider::doListFilesNamesOnly(const StorageIRI& iri) const {
  enter("listFilesNamesOnly", iri);
  return inner_->listFilesNamesOnly(iri);
}

NameList InstrumentedProvider::doListFilesNamesOnlyWildcards(const StorageIRI& iri,
                                                             std::u16string pattern) const {
  enter("listFilesNamesOnly", iri);
  return inner_->listFilesNamesOnly(iri, pattern);
}

FolderEntryIteratorPtr InstrumentedProvider::doListAllRecursive(const StorageIRI& iri) const {
  enter("listAllRecursive", iri);
  return inner_->listAllRecursive(iri);
}

FolderEntryIteratorPtr InstrumentedProvider::doListAllRecursiveWildcards(
    const StorageIRI& iri, std::u16string pattern) const {
  enter("listAllRecursive", iri);
  return inner_->listAllRecursive(iri, pattern);
}

NameList InstrumentedProvider::doListAllRecursiveNamesOnly(const StorageIRI& iri) const {
  enter("listAllRecursiveNamesOnly", iri);
  return inner_->listAllRecursiveNamesOnly(iri);
}

NameList InstrumentedProvider::doListAllRecursiveNamesOnlyWildcards(const StorageIRI& iri,
                                                                    std::u16string pattern) const {
  enter("listAllRecursiveNamesOnly", iri);
  return inner_->listAllRecursiveNamesOnly(iri, pattern);
}

// --- events and polling ---

void InstrumentedProvider::doPublishFolderEventsFor(const StorageIRI& iri,
                                                    const EventPublisher& publisher,
                                                    const std::vector<events::Kind>& kinds,
                                                    RecursiveFileWatching recursive) const {
  enter("publishFolderEventsFor", iri);
  inner_->publishFolderEventsFor(iri, publisher, kinds, recursive);
}

void InstrumentedProvider::doPublishFileEventsFor(const StorageIRI& iri,
                                                  const EventPublisher& publisher,
                                                  const std::vector<events::Kind>& kinds) const {
  enter("publishFileEventsFor", iri);
  inner_->publishFileEventsFor(iri, publisher, kinds);
}

void InstrumentedProvider::doStopPublishingEventsFor(const StorageIRI& iri) const {
  enter("stopPublishingEventsFor", iri);
  inner_->stopPublishingEventsFor(iri);
}

void InstrumentedProvider::doStartChangePollingMechanism(const StorageIRI& iri,
                                                         const EventPublisher& publisher,
                                                         const std::vector<events::Kind>& kinds,
                                                         long periodMs,
                                                         RecursiveChangePolling recursive) const {
  enter("startChangePolling", iri);
  inner_->startChangePolling(iri, publisher, kinds, periodMs, recursive);
}

void InstrumentedProvider::doStopChangePollingMechanism(const StorageIRI& iri) const {
  enter("stopChangePolling", iri);
  inner_->stopChangePolling(iri);
}

// --- store properties, configuration, shutdown ---

bool InstrumentedProvider::doHasFeature(const ExtendedFeature& feature) const {
  enterLocalQuery("hasFeature", StorageIRI());
  return inner_->hasFeature(feature);
}

PathComparator InstrumentedProvider::doGetPathComparator(const StorageIRI& iri) const {
  enterLocalQuery("getPathComparator", iri);
  return inner_->getPathComparator(iri);
}

StorageIRI InstrumentedProvider::doGetCanonicalLocation(const StorageIRI& iri) const {
  enterLocalQuery("getCanonicalLocation", iri);
  return inner_->getCanonicalLocation(iri);
}

FilenameSensitivity InstrumentedProvider::doGetFilenameSensitivity(const StorageIRI& iri) const {
  enterLocalQuery("getFilenameSensitivity", iri);
  return inner_->getFilenameSensitivity(iri);
}

void InstrumentedProvider::doConfigure(boost::property_tree::ptree config) {
  enter("configure", StorageIRI());
  if (auto* configurable = dynamic_cast<IConfigurableProvider*>(inner_.get())) {
    configurable->configure(std::move(config));
  }
}

void InstrumentedProvider::doShutdown() {
  instrumentation_->counters.increment("shutdown");
  inner_->shutdown();
}

}  // namespace foundation::storage::provider::instrumented
