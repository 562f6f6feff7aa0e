// OverlayProvider: the provider that the factory hands to the host for the scheme "overlay".
// It wraps an inner provider (a slow or remote store, reached through its root StorageItem)
// and serves the host's operations on it.
//
// Locations: the overlay's own locations are "overlay" IRIs whose path is the path in the
// inner store below the inner root. resolve() accepts
//   - an IRI whose scheme is exactly "overlay": rebased onto the provider's root by its path;
//   - a composed IRI ("overlay+<inner>"): the inner location is the text after the last "+",
//     taken relative to the inner root;
//   - an IRI of the inner provider's own scheme: taken relative to the inner root;
// and refuses anything else with InvalidLocation (10). With "overlay.backslashToForwardSlash"
// set, backslashes in paths are read as separators.
//
// What it does: queries and listings are answered from the metadata cache (one inner listing
// per folder, shared by concurrent callers) and storage information from the quota
// accountant. File bodies are read from and written to working files of the content cache.
// Mutations are checked and applied to both caches on the caller's thread, under the path
// guard of their location(s), and replayed on the inner store in order by the executor
// (write-behind), which then confirms them in the metadata cache. The event listener keeps
// both caches true when someone else changes the store; the event latch holds it back while
// the overlay's own work reaches the store.
//
// Lifecycle: built (constructor) -> configured (doConfigure, any time) -> initialised (the
// first operation runs lazyInitialize once; a failure rolls back and the next operation tries
// again) -> recovered (with "overlay.journal", what an earlier process left pending is
// re-applied before the first operation is answered) -> shut down (doShutdown; also run by
// the destructor).
//
// Threads and locks: the host calls any operation from any thread. Lock order: path guard
// table, then the initialisation mutex (executor creation only), then the metadata cache
// (which orders its own locks: cache, folder entry, record). No lock of the overlay is
// held while the inner provider is called, except the path guards, which are held for the
// whole operation on purpose (they serialise related operations).
// Ownership: the framework owns the provider through a std::shared_ptr made by the factory;
// the provider shares ownership of the inner root item and the executor.
#pragma once

#include "core/contentcache/ContentCache.h"
#include "core/events/EventListener.h"
#include "core/events/ReplayEchoes.h"
#include "core/execution/ExecutorSlot.h"
#include "core/execution/TimedLatch.h"
#include "core/execution/UnavailableRetry.h"
#include "core/metadata/MetadataCache.h"
#include "core/provider/PathGuardTable.h"
#include "core/quota/IQuotaAccountant.h"
#include "core/workingfiles/WorkingFileSettings.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/IConfigurableProvider.h>
#include <foundation/storage/provider/StorageItem.h>
#include <foundation/storage/provider/extensions/IDurableChanges.h>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.h>
#include <foundation/storage/provider/extensions/IInvalidatable.h>
#include <foundation/storage/provider/extensions/IQueueStatistics.h>

#include <array>
#include <atomic>
#include <boost/thread/once.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class JournalReceipt;

class OverlayProvider : public fsp::IConfigurableProvider,
                        public fsp::extensions::IFlushableFilesystem,
                        public fsp::extensions::IDurableChanges,
                        public fsp::extensions::IInvalidatable,
                        public fsp::extensions::IQueueStatistics {
 public:
  explicit OverlayProvider(fsp::StorageItem innerRoot);
  // The same provider with its content cache, metadata cache and executor supplied by the
  // caller (lazy initialisation then makes no executor when one is given).
  OverlayProvider(fsp::StorageItem innerRoot, std::unique_ptr<ContentCache> contentCache,
                  std::unique_ptr<MetadataCache> metadataCache,
                  std::shared_ptr<IExecutor> executor);
  ~OverlayProvider() override;

  // The executor now in use (empty before initialisation unless configured or supplied).
  std::shared_ptr<IExecutor> executor() const { return executor_->load(); }
  double maxQueueWeight() const { return maxQueueWeight_.load(); }
  double minQueueItemWeight() const { return minQueueItemWeight_.load(); }
  std::uint64_t maxReadPayloadSize() const { return maxReadPayloadSize_.load(); }
  std::uint64_t maxWritePayloadSize() const { return maxWritePayloadSize_.load(); }
  bool isSynchronous() const { return synchronous_.load(); }
  bool isContentCacheDisabled() const { return contentCacheDisabled_.load(); }
  bool isPassThrough() const { return passThrough_.load(); }
  const std::shared_ptr<ReplayEchoes>& replayEchoes() const { return echoes_; }
  const std::shared_ptr<MetadataCache>& metadataCache() const { return metadataCache_; }
  // Empty before initialisation.
  std::shared_ptr<IQuotaAccountant> quotaAccountant() const;
  // Empty before initialisation.
  std::shared_ptr<EventListener> eventListener() const;
  std::shared_ptr<TimedLatch> eventLatch() const;
  // The listener's quiet period: QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT in milliseconds
  // (strtol, base 10: text that is no number reads as 0), 3000 when unset.
  static std::int64_t eventRobustnessTimeoutMs();
  ContentCache& contentCache() const { return *contentCache_; }
  // The content cache's root and persistence, as configured.
  std::string configuredCacheRoot() const { return contentCache_->cacheRoot().string(); }
  bool persistContentCache() const { return contentCache_->mode() == CacheMode::PERSISTENT; }

  // The overlay form of a host location (see the header comment).
  fsp::StorageIRI resolve(const fsp::StorageIRI& iri) const;
  // The form in which the overlay names a location to the host (in refusals): the root
  // location that the factory gives, with the location's path.
  fsp::StorageIRI publicLocation(const fsp::StorageIRI& resolved) const;

 protected:
  void doCreateFile(const fsp::StorageIRI&) const override;
  void doCreateFolder(const fsp::StorageIRI&) const override;
  void doCreateFolderRecursive(const fsp::StorageIRI&) const override;
  bool doFileExists(const fsp::StorageIRI&) const override;
  bool doFolderExists(const fsp::StorageIRI&) const override;
  void doRemoveFile(const fsp::StorageIRI&) const override;
  void doMoveFile(const fsp::StorageIRI& from, const fsp::StorageIRI& to,
                  const fsp::ReplacementPolicy&) const override;
  void doRemoveFolder(const fsp::StorageIRI&) const override;
  void doRemoveFolderRecursively(const fsp::StorageIRI&) const override;
  void doMoveFolder(const fsp::StorageIRI& from, const fsp::StorageIRI& to,
                    const fsp::ReplacementPolicy&) const override;
  fsp::FileAttributes doGetFileAttributes(const fsp::StorageIRI&) const override;
  fsp::FolderAttributes doGetFolderAttributes(const fsp::StorageIRI&) const override;
  fsp::ByteStreamPtr doOpenStream(const fsp::StorageIRI&,
                                  const fsp::ByteStreamOpenOptions&) const override;
  fsp::ByteStreamPtr doOpenReadOnlyStream(const fsp::StorageIRI&) const override;
  fsp::FolderEntryIteratorPtr doListAll(const fsp::StorageIRI&) const override;
  fsp::FolderEntryIteratorPtr doListFiles(const fsp::StorageIRI&) const override;
  fsp::FolderEntryIteratorPtr doListFolders(const fsp::StorageIRI&) const override;
  void doCopyFile(const fsp::StorageIRI& from, const fsp::StorageIRI& to,
                  const fsp::ReplacementPolicy&) const override;
  void doSetLastModified(const fsp::StorageIRI&, const fsp::posix_time::ptime&) const override;
  void doSetWritable(const fsp::StorageIRI&, bool) const override;
  // In place, through the file's working file (see WorkingFileEntry::truncate): never a copy,
  // never written zeros; one truncateToSize reaches the store, in order with the writes.
  void doTruncateToSize(const fsp::StorageIRI&, std::uint64_t size) const override;
  void doPublishFolderEventsFor(const fsp::StorageIRI&, const fsp::EventPublisher&,
                                const std::vector<foundation::storage::events::Kind>&,
                                fsp::RecursiveFileWatching) const override;
  void doPublishFileEventsFor(const fsp::StorageIRI&, const fsp::EventPublisher&,
                              const std::vector<foundation::storage::events::Kind>&) const override;
  void doStopPublishingEventsFor(const fsp::StorageIRI&) const override;
  bool doHasFeature(const fsp::ExtendedFeature&) const override;
  // The inner store's, as asked once at construction: the overlay compares names as it does.
  fsp::FilenameSensitivity doGetFilenameSensitivity(const fsp::StorageIRI&) const override;
  void doShutdown() override;
  fsp::ExtendedAttributes doGetExtendedAttributes(const fsp::StorageIRI&) const override;
  fsp::ProviderStorageInfo doGetProviderStorageInfo(const fsp::StorageIRI&) const override;
  void doConfigure(boost::property_tree::ptree config) override;
  void doFlushFilesystem() override;
  // The journal's sync (the changes' records and the bodies they refer to); without a journal,
  // the flush.
  void doSyncChanges() override;
  void doInvalidate(const fsp::StorageIRI&) override;
  // The executor's snapshot; "{}" before initialisation.
  std::string doQueueStatistics() override;

 private:
  void ensureInitialized() const;
  void lazyInitialize() const;
  // Makes the event listener over the inner store and the latch that pauses it.
  void startListening(const std::shared_ptr<IQuotaAccountant>& accountant) const;
  std::shared_ptr<IExecutor> makeSynchronousExecutor() const;
  void installExecutor(std::shared_ptr<IExecutor> executor) const;
  void applyMaxQueueWeight() const;
  void readConfiguration(const boost::property_tree::ptree& config);
  // The inner provider's item for an overlay location.
  fsp::StorageItem innerItem(const fsp::StorageIRI& location) const;
  // Runs an inner-provider call; a refusal keeps its code and names the overlay location
  // that corresponds to the inner one.
  template <class Call>
  decltype(auto) forwardingRefusals(Call&& call) const;
  fsp::Exception refusalForHost(const fsp::Exception& inner) const;
  PathGuardTable::Guard guard(const fsp::StorageIRI& location) const;
  PathGuardTable::Guard guard(const fsp::StorageIRI& a, const fsp::StorageIRI& b) const;
  // What the executors call when work arrives at an idle queue. It holds the content cache
  // weakly: a stream may outlive this provider and still submit through its executor.
  std::function<void()> backendActivityHook() const;
  // The opening steps of the cached operations: initialised, metadata tree prepared.
  void ensureReady() const;
  // Mutations (OverlayProviderMutations.cpp). Queues the store's half of a mutation, described
  // by `change`: `innerCall` on the inner root (through runWithRetry under the action's name),
  // then `confirm`; nothing once shut down, neither at submission nor when the task comes to
  // run. `echoes` are what the call does to which locations, noted in echoes_ just before it
  // is made.
  using ReplayedChanges = std::vector<std::pair<fsp::StorageIRI, ReplayedChange>>;
  // `recorded`: the change's journal records when recordBeforeApplying made them already.
  // `innerCall` is given the change as the executor holds it when it runs (see ReplayTask).
  void replay(const ReplayChange& change,
              std::function<void(const fsp::StorageItem& innerRoot, const ReplayChange& replayed)>
                  innerCall,
              std::function<void(MetadataCache&)> confirm, ReplayedChanges echoes = {},
              std::shared_ptr<JournalReceipt> recorded = nullptr) const;
  // Records `change` (none: nothing to record) in the journal, then runs `apply`, the change's
  // local half; a failing `apply` takes the record back.
  std::shared_ptr<JournalReceipt> recordBeforeApplying(const std::optional<ReplayChange>& change,
                                                       const std::function<void()>& apply) const;
  void triggerEventLatch() const;
  // The journal (OverlayProviderJournal.cpp). journal(): empty unless "overlay.journal" is on
  // and initialisation opened it. journalReceipt(): records `change` and returns what confirms
  // it; empty without a journal. openJournal(): opens it over the persistent cache root
  // (OperationRefused over a temporary cache). ensureRecovered(): re-applies what an earlier
  // process left pending, once, before anything else is answered; calls made by that
  // re-application itself pass through.
  std::shared_ptr<ChangeJournal> journal() const;
  std::shared_ptr<JournalReceipt> journalReceipt(const ReplayChange& change) const;
  void openJournal() const;
  void ensureRecovered() const;
  void recoverJournal() const;
  bool existsInCache(const fsp::StorageIRI& location) const;
  // Refusals shared by the mutations: AlreadyExists (3), NotFound (4) naming the parent,
  // OperationRefused (2) for a parent that must be writable and is not.
  void requireNothingAt(const fsp::StorageIRI& location) const;
  void requireParentFolder(const fsp::StorageIRI& location) const;
  void requireWritableParent(const fsp::StorageIRI& location) const;
  // The folder as the store spells it; NotFound when unknown, OperationRefused for the root.
  fsp::StorageIRI requireFolder(const fsp::StorageIRI& location) const;
  // Both caches forget the folder at once; the store's removal (`removal` on its item) and
  // its confirmation are queued.
  void removeFolderBehind(const ReplayChange& change,
                          std::function<void(const fsp::StorageItem&)> removal) const;
  // Returns the file the move would replace, if any.
  std::shared_ptr<FileMetadata> checkFileDestination(const fsp::StorageIRI& source,
                                                     const fsp::StorageIRI& destination,
                                                     fsp::ReplacementPolicy policy) const;
  void checkFolderDestination(const fsp::StorageIRI& destination,
                              fsp::ReplacementPolicy policy) const;
  // The shape of setLastModified and setWritable: the record changed in the cache, the inner
  // call replayed.
  // With absorption: whether the file or folder at `iri` already has that writable flag (as
  // the store will once the queue has drained), so that setting it again costs nothing. Tools
  // that restore modes (tar x, cp -p) set it on everything they make.
  bool alreadyWritableAs(const fsp::StorageIRI& iri, bool writable) const;
  void setAttribute(const fsp::StorageIRI& iri, ReplayChange change,
                    std::function<void(const fsp::StorageItem&)> innerCall,
                    const std::function<void(FileMetadata&)>& updateFile,
                    const std::function<void(FolderMetadata&)>& updateFolder) const;
  // Changes the record of a file (true) or folder (false) at `location`; NotFound if none.
  bool updateRecord(const fsp::StorageIRI& location,
                    const std::function<void(FileMetadata&)>& updateFile,
                    const std::function<void(FolderMetadata&)>& updateFolder) const;
  // After a folder move: the working files below `moved` adopt their new cache records.
  void keepWorkingFilesOnTheirRecords(const fsp::StorageIRI& moved) const;
  // Refuses (ResourceBusy) to remove or move a file that a stream has open, unless the inner
  // store allows it.
  void refuseWhileOpen(const fsp::StorageIRI& key) const;
  // Copies a source stream into a destination stream in 4096-byte steps and closes both.
  static void copyThroughStreams(fsp::ByteStreamPtr source, fsp::ByteStreamPtr destination);
  // Streams (OverlayProviderStreams.cpp).
  WorkingFileSettings workingFileSettings() const;
  // How long a replayed call waits for a store that is away ("overlay.retryUnavailableMs").
  UnavailableRetry unavailableRetry() const;
  fsp::ByteStreamPtr openCachedStream(const fsp::StorageIRI& location,
                                      const fsp::ByteStreamOpenOptions& options,
                                      bool readOnly) const;
  // The file's record for a stream; made (as a creation makes it, `created` then set) when
  // the options allow.
  std::shared_ptr<FileMetadata> recordForStream(const fsp::StorageIRI& location,
                                                const fsp::ByteStreamOpenOptions& options,
                                                bool readOnly, bool& created) const;
  // The working file of an existing file, got from the content cache as an open gets it; it
  // comes pinned (WorkingFileEntry::pin).
  std::shared_ptr<WorkingFileEntry> workingFileFor(
      const std::shared_ptr<FileMetadata>& record) const;
  // After a writable open: keeps the working file on the record the metadata cache shows.
  void followCurrentRecord(const fsp::StorageIRI& location, WorkingFileEntry& entry) const;
  // A caching error while opening: flush, then forward everything for good.
  void fallBackToInnerStore(const char* message) const;
  void flushBody() const;
  // The inner provider's capability, asked once and kept (capabilities do not change).
  bool innerHasFeature(fsp::ExtendedFeature feature) const;
  fsp::Exception notFound(const fsp::StorageIRI& location) const;
  template <class Pred>
  fsp::FolderEntryIteratorPtr doListingOperation(const fsp::StorageIRI& iri) const;

  std::shared_ptr<fsp::StorageItem> inner_;
  // Declared here so that it goes after the executor and the metadata cache, before the
  // inner item: no transaction may run while its entries are released.
  std::shared_ptr<ContentCache> contentCache_;
  fsp::StorageIRI publicRoot_;
  std::shared_ptr<MetadataCache> metadataCache_;
  // The store's echoes of the replay ("overlay.suppressEchoes", off unless configured): shared
  // with the listener, the queued replay tasks and the working files.
  const std::shared_ptr<ReplayEchoes> echoes_ = std::make_shared<ReplayEchoes>();
  // Shared with the working files, which look the executor up at each submission.
  const std::shared_ptr<ExecutorSlot> executor_ = std::make_shared<ExecutorSlot>();
  std::atomic<double> maxQueueWeight_{0.0};
  // "overlay.replayWorkers": how many workers replay unrelated changes at once (1: strictly in
  // order). Read when the write-behind executor is made, at lazy initialisation.
  std::atomic<int> replayWorkers_{1};
  // "overlay.absorbChanges": queued changes that later ones make moot never reach the store.
  // Read, like replayWorkers_, when the write-behind executor is made.
  std::atomic<bool> absorbChanges_{false};
  // How long a change waits in the queue before its replay when absorbing (0: not at all).
  std::atomic<long> absorbWindowMs_{0};
  std::atomic<double> minQueueItemWeight_{0.0};
  std::atomic<std::uint64_t> maxReadPayloadSize_{4194304};
  std::atomic<std::uint64_t> maxWritePayloadSize_{4194304};
  std::atomic<bool> synchronous_{false};
  // Made by lazy initialisation while shutdown and accessors may read it on other threads:
  // guarded by initMutex_ (see quotaAccountant()).
  mutable std::shared_ptr<IQuotaAccountant> quotaAccountant_;
  mutable PathGuardTable pathGuards_;
  // Made by lazy initialisation, read by shutdown and the operations: guarded by initMutex_.
  mutable std::shared_ptr<EventListener> eventListener_;
  mutable std::shared_ptr<TimedLatch> eventLatch_;
  mutable std::atomic<bool> passThrough_{false};
  std::atomic<bool> contentCacheDisabled_{false};
  std::atomic<bool> backslashToForwardSlash_{false};
  // "overlay.journal" and "overlay.journalSyncMs", read when the journal opens (lazy
  // initialisation).
  std::atomic<bool> journalEnabled_{false};
  std::atomic<long> journalSyncMs_{1000};
  // "overlay.retryUnavailableMs": how long a replayed call waits for a store that answers
  // Unavailable (0: three attempts at once; below 0: until the provider shuts down).
  std::atomic<long> retryUnavailableMs_{0};
  // How many changes the journal held from an earlier run (reported in the statistics).
  mutable std::atomic<std::uint64_t> recoveredChanges_{0};
  // Opened by lazy initialisation, read by the mutations and the working files: guarded by
  // initMutex_ (see journal()). Empty without "overlay.journal".
  mutable std::shared_ptr<ChangeJournal> journal_;
  mutable boost::once_flag initFlag_ = BOOST_ONCE_INIT;
  // Re-applying what the journal recovered happens once, after initialisation, before any
  // operation is answered.
  mutable boost::once_flag recoveryFlag_ = BOOST_ONCE_INIT;
  mutable std::mutex initMutex_;
  // Shared with the queued transactions, which do nothing once it is set.
  const std::shared_ptr<std::atomic<bool>> shutDown_ = std::make_shared<std::atomic<bool>>(false);
  // Per ExtendedFeature value: 0 not asked yet, 1 lacking, 2 present.
  mutable std::array<std::atomic<int>, 16> innerFeatures_;
};

template <class Call>
decltype(auto) OverlayProvider::forwardingRefusals(Call&& call) const {
  try {
    return call();
  } catch (const fsp::Exception& refusal) {
    throw refusalForHost(refusal);
  }
}

}  // namespace storage::overlayprovider
