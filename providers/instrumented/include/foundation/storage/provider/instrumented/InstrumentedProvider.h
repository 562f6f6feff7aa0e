// InstrumentedProvider: wraps any provider and forwards every call to the inner provider's
// public operation, adding call counters, delays and injected failures (see Instrumentation).
// Used to make the in-memory store behave like a slow or flaky remote one, and to check
// how often the code above it reaches the store.
//
// Every slot is overridden, the framework's too, so each public operation is counted,
// delayed and failed exactly once under its own name ("listAllRecursive" is one call, not
// one per folder). The pattern and plain variants of a listing share its name ("listAll").
// Whole-file writes (IWholeFileWrites) are offered always, passed on as one call where the
// inner provider has them. Streams it opens are wrapped so their calls are counted ("streamRead",
// "streamWrite", "streamSeek", "streamClose") and delayed with the stream delay. When its call log
// is enabled, every change the inner store has applied (creations, removals, moves, copies,
// truncations, attribute changes, write opens and stream writes) is recorded once the inner call
// has returned, in that order (see CallLog). The delays stand for the network only. A real remote
// provider answers some queries from what it holds in memory, so these are counted and can be
// failed but are never delayed: hasFeature, getFilenameSensitivity, getPathComparator and
// getCanonicalLocation (fixed capabilities and name rules, or computed from the location alone) and
// getProviderCacheUsage (its own local cache). Every other call but shutdown, configure
// included, is delayed with the call delay.
// shutdown is counted but never delayed or failed, so that the inner provider's threads
// always stop; it forwards to the inner provider. The destructor does not shut the inner
// provider down (others may share it).
//
// Ownership: holds the inner provider (shared) and the Instrumentation (shared with its
// streams). Locks: none of its own; see Instrumentation. Threads: any thread, like the
// inner provider; subscriptions are forwarded unchanged, so events arrive on the inner
// provider's threads with the inner provider's locations.
#pragma once

#include <foundation/storage/provider/ErrorCode.h>
#include <foundation/storage/provider/IConfigurableProvider.h>
#include <foundation/storage/provider/extensions/IWholeFileWrites.h>
#include <foundation/storage/provider/instrumented/Instrumentation.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace foundation::storage::provider::instrumented {

class InstrumentedProvider final : public IConfigurableProvider,
                                   public extensions::IWholeFileWrites {
 public:
  // Throws std::invalid_argument when `inner` is null.
  explicit InstrumentedProvider(std::shared_ptr<IProvider> inner);

  const std::shared_ptr<IProvider>& inner() const { return inner_; }
  Instrumentation& instrumentation() const { return *instrumentation_; }

  std::uint64_t callCount(std::string_view operation) const;
  std::uint64_t totalCalls() const;
  void resetCounters();
  void failNext(const std::string& operation, unsigned count, ErrorCode code);
  void throwNextUnexpected(const std::string& operation, unsigned count);
  void setCallLatency(std::chrono::microseconds delay);
  void setStreamLatency(std::chrono::microseconds delay);

 protected:
  void doCreateFile(const StorageIRI&) const override;
  void doCreateFolder(const StorageIRI&) const override;
  void doCreateFolderRecursive(const StorageIRI&) const override;
  bool doFileExists(const StorageIRI&) const override;
  bool doFolderExists(const StorageIRI&) const override;
  void doRemoveFile(const StorageIRI&) const override;
  void doMoveFile(const StorageIRI& from, const StorageIRI& to,
                  const ReplacementPolicy&) const override;
  void doRemoveFolder(const StorageIRI&) const override;
  void doRemoveFolderRecursively(const StorageIRI&) const override;
  void doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                    const ReplacementPolicy&) const override;
  FileAttributes doGetFileAttributes(const StorageIRI&) const override;
  FolderAttributes doGetFolderAttributes(const StorageIRI&) const override;
  ByteStreamPtr doOpenStream(const StorageIRI&, const ByteStreamOpenOptions&) const override;
  ByteStreamPtr doOpenReadOnlyStream(const StorageIRI&) const override;
  ByteStreamPtr doOpenTransactionalStream(const StorageIRI&,
                                          const ByteStreamOpenOptions&) const override;
  ByteStreamPtr doOpenTransactionalStreamAtScratchLocation(
      const StorageIRI&, const StorageIRI& scratch, const ByteStreamOpenOptions&) const override;
  FolderEntryIteratorPtr doListAll(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListAllWildcards(const StorageIRI&,
                                            std::u16string pattern) const override;
  FolderEntryIteratorPtr doListFiles(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListFilesWildcards(const StorageIRI&,
                                              std::u16string pattern) const override;
  FolderEntryIteratorPtr doListFolders(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListFoldersWildcards(const StorageIRI&,
                                                std::u16string pattern) const override;
  NameList doListAllNamesOnly(const StorageIRI&) const override;
  NameList doListAllNamesOnlyWildcards(const StorageIRI&, std::u16string pattern) const override;
  NameList doListFoldersNamesOnly(const StorageIRI&) const override;
  NameList doListFoldersNamesOnlyWildcards(const StorageIRI&,
                                           std::u16string pattern) const override;
  NameList doListFilesNamesOnly(const StorageIRI&) const override;
  NameList doListFilesNamesOnlyWildcards(const StorageIRI&, std::u16string pattern) const override;
  FolderEntryIteratorPtr doListAllRecursive(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListAllRecursiveWildcards(const StorageIRI&,
                                                     std::u16string pattern) const override;
  NameList doListAllRecursiveNamesOnly(const StorageIRI&) const override;
  NameList doListAllRecursiveNamesOnlyWildcards(const StorageIRI&,
                                                std::u16string pattern) const override;
  void doCopyFile(const StorageIRI& from, const StorageIRI& to,
                  const ReplacementPolicy&) const override;
  void doCopyFileAtomic(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy&,
                        const InterruptCallback&) const override;
  void doSetLastModified(const StorageIRI&, const posix_time::ptime&) const override;
  void doSetWritable(const StorageIRI&, bool) const override;
  void doPublishFolderEventsFor(const StorageIRI&, const EventPublisher&,
                                const std::vector<events::Kind>&,
                                RecursiveFileWatching) const override;
  void doPublishFileEventsFor(const StorageIRI&, const EventPublisher&,
                              const std::vector<events::Kind>&) const override;
  void doStopPublishingEventsFor(const StorageIRI&) const override;
  void doStartChangePollingMechanism(const StorageIRI&, const EventPublisher&,
                                     const std::vector<events::Kind>&, long periodMs,
                                     RecursiveChangePolling) const override;
  void doStopChangePollingMechanism(const StorageIRI&) const override;
  bool doHasFeature(const ExtendedFeature&) const override;
  PathComparator doGetPathComparator(const StorageIRI&) const override;
  StorageIRI doGetCanonicalLocation(const StorageIRI&) const override;
  FilenameSensitivity doGetFilenameSensitivity(const StorageIRI&) const override;
  void doShutdown() override;
  bool doExists(const StorageIRI&) const override;
  Existence doExistsExtended(const StorageIRI&) const override;
  ExtendedAttributes doGetExtendedAttributes(const StorageIRI&) const override;
  ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI&) const override;
  void doTruncateToSize(const StorageIRI&, std::uint64_t size) const override;
  // One call ("writeWholeFile", logged as a creation) where the inner provider offers it;
  // otherwise the stream and the time stamp it stands for, each counted under its own name.
  void doWriteWholeFile(const StorageIRI&, std::string_view bytes,
                        const posix_time::ptime& lastModified) const override;
  ProviderCacheUsage doGetProviderCacheUsage(const StorageIRI&) const override;
  // Passes the configuration on when the inner provider is configurable; otherwise ignored.
  void doConfigure(boost::property_tree::ptree config) override;

 private:
  // A call that would cross the network: counted, delayed, failed.
  void enter(std::string_view operation, const StorageIRI& location) const;
  // A query a remote store answers locally: counted and failed, not delayed.
  void enterLocalQuery(std::string_view operation, const StorageIRI& location) const;
  ByteStreamPtr wrap(ByteStreamPtr stream, const StorageIRI& iri) const;
  // Records a change the store has just applied in the call log (when it is enabled).
  void logged(std::string_view operation, const StorageIRI& location,
              const std::optional<StorageIRI>& destination = std::nullopt) const;

  std::shared_ptr<IProvider> inner_;
  std::shared_ptr<Instrumentation> instrumentation_;
};

}  // namespace foundation::storage::provider::instrumented
