// IProvider: the storage-provider base class that every provider implements.
//
// Hosts call the public operations; each forwards to a protected virtual `do...` slot,
// declared below in slot order. Slots marked [own] must be implemented by every provider.
// Slots marked [framework] have default implementations written on top of the provider's
// own slots, so every provider has them; a provider may override them when it can do better.
//
// Error model: every operation reports a refused or failed request by throwing Exception
// (Exception.h) with an ErrorCode and the location concerned; streams throw the
// ByteStreamFailure kinds. Operations never report failure through their results.
//
// Threads: the public operations may be called from any thread, several at once; every
// provider must be safe for concurrent calls. Change-polling threads (startChangePolling)
// belong to this base and are stopped by shutdown() and by the destructor. Since this base's
// destructor runs after a derived provider's members are gone, a derived provider calls
// shutdown() in its own destructor so that no polling thread can reach those members.
// Ownership: providers are owned through std::shared_ptr (StorageItem holds one).
#pragma once

#include <foundation/storage/provider/Attributes.h>
#include <foundation/storage/provider/ByteStream.h>
#include <foundation/storage/provider/EventPublisher.h>
#include <foundation/storage/provider/FolderEntryIterator.h>
#include <foundation/storage/provider/StorageIRI.h>
#include <foundation/storage/provider/Types.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::storage::provider {

namespace posix_time = boost::posix_time;

using NameList = std::vector<std::u16string>;
// Orders two locations of one provider the way the provider compares names (strict "less").
using PathComparator = std::function<bool(const StorageIRI&, const StorageIRI&)>;
using InterruptCallback = std::function<InterruptSignal()>;

namespace detail {
class ChangePollers;
}

// Providers are owned by std::shared_ptr (factories make them with std::make_shared); what a
// provider hands out that calls it back later (the default transactional streams) shares that
// ownership, so it may outlive every other holder.
class IProvider : public std::enable_shared_from_this<IProvider> {
 public:
  IProvider();
  IProvider(const IProvider&) = delete;
  IProvider& operator=(const IProvider&) = delete;
  virtual ~IProvider();

  // --- public operations (the host's entry points) ---
  void createFile(const StorageIRI& iri) const { doCreateFile(iri); }
  void createFolder(const StorageIRI& iri) const { doCreateFolder(iri); }
  void createFolderRecursive(const StorageIRI& iri) const { doCreateFolderRecursive(iri); }
  bool fileExists(const StorageIRI& iri) const { return doFileExists(iri); }
  bool folderExists(const StorageIRI& iri) const { return doFolderExists(iri); }
  void removeFile(const StorageIRI& iri) const { doRemoveFile(iri); }
  void moveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& p) const {
    doMoveFile(from, to, p);
  }
  void removeFolder(const StorageIRI& iri) const { doRemoveFolder(iri); }
  void removeFolderRecursively(const StorageIRI& iri) const { doRemoveFolderRecursively(iri); }
  void moveFolder(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& p) const {
    doMoveFolder(from, to, p);
  }
  FileAttributes getFileAttributes(const StorageIRI& iri) const { return doGetFileAttributes(iri); }
  FolderAttributes getFolderAttributes(const StorageIRI& iri) const {
    return doGetFolderAttributes(iri);
  }
  ByteStreamPtr openStream(const StorageIRI& iri, const ByteStreamOpenOptions& options) const {
    return doOpenStream(iri, options);
  }
  ByteStreamPtr openReadOnlyStream(const StorageIRI& iri) const {
    return doOpenReadOnlyStream(iri);
  }
  ByteStreamPtr openTransactionalStream(const StorageIRI& iri,
                                        const ByteStreamOpenOptions& options) const {
    return doOpenTransactionalStream(iri, options);
  }
  ByteStreamPtr openTransactionalStreamAtScratchLocation(
      const StorageIRI& iri, const StorageIRI& scratch,
      const ByteStreamOpenOptions& options) const {
    return doOpenTransactionalStreamAtScratchLocation(iri, scratch, options);
  }
  // Listings. An empty pattern lists everything; otherwise names are matched against the
  // glob pattern ("*", "?", "[...]"; "*" matches every name).
  FolderEntryIteratorPtr listAll(const StorageIRI& iri, const std::u16string& pattern = {}) const;
  FolderEntryIteratorPtr listFiles(const StorageIRI& iri, const std::u16string& pattern = {}) const;
  FolderEntryIteratorPtr listFolders(const StorageIRI& iri,
                                     const std::u16string& pattern = {}) const;
  NameList listAllNamesOnly(const StorageIRI& iri, const std::u16string& pattern = {}) const;
  NameList listFoldersNamesOnly(const StorageIRI& iri, const std::u16string& pattern = {}) const;
  NameList listFilesNamesOnly(const StorageIRI& iri, const std::u16string& pattern = {}) const;
  // Everything below the folder, each folder's row before the rows of its contents; row
  // names are paths relative to the listed folder; the pattern matches the last component.
  FolderEntryIteratorPtr listAllRecursive(const StorageIRI& iri,
                                          const std::u16string& pattern = {}) const;
  NameList listAllRecursiveNamesOnly(const StorageIRI& iri,
                                     const std::u16string& pattern = {}) const;
  void copyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& p) const {
    doCopyFile(from, to, p);
  }
  void copyFileAtomic(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& p,
                      const InterruptCallback& interrupt) const {
    doCopyFileAtomic(from, to, p, interrupt);
  }
  void setLastModified(const StorageIRI& iri, const posix_time::ptime& time) const {
    doSetLastModified(iri, time);
  }
  void setWritable(const StorageIRI& iri, bool writable) const { doSetWritable(iri, writable); }
  void publishFolderEventsFor(const StorageIRI& iri, const EventPublisher& publisher,
                              const std::vector<events::Kind>& kinds,
                              RecursiveFileWatching recursive) const {
    doPublishFolderEventsFor(iri, publisher, kinds, recursive);
  }
  void publishFileEventsFor(const StorageIRI& iri, const EventPublisher& publisher,
                            const std::vector<events::Kind>& kinds) const {
    doPublishFileEventsFor(iri, publisher, kinds);
  }
  void stopPublishingEventsFor(const StorageIRI& iri) const { doStopPublishingEventsFor(iri); }
  void startChangePolling(const StorageIRI& iri, const EventPublisher& publisher,
                          const std::vector<events::Kind>& kinds, long periodMs,
                          RecursiveChangePolling recursive) const {
    doStartChangePollingMechanism(iri, publisher, kinds, periodMs, recursive);
  }
  void stopChangePolling(const StorageIRI& iri) const { doStopChangePollingMechanism(iri); }
  bool hasFeature(const ExtendedFeature& feature) const { return doHasFeature(feature); }
  PathComparator getPathComparator(const StorageIRI& iri) const { return doGetPathComparator(iri); }
  StorageIRI getCanonicalLocation(const StorageIRI& iri) const {
    return doGetCanonicalLocation(iri);
  }
  FilenameSensitivity getFilenameSensitivity(const StorageIRI& iri) const {
    return doGetFilenameSensitivity(iri);
  }
  // Stops change polling, then the provider's own background work.
  void shutdown();
  bool exists(const StorageIRI& iri) const { return doExists(iri); }
  Existence existsExtended(const StorageIRI& iri) const { return doExistsExtended(iri); }
  ExtendedAttributes getExtendedAttributes(const StorageIRI& iri) const {
    return doGetExtendedAttributes(iri);
  }
  ProviderStorageInfo getProviderStorageInfo(const StorageIRI& iri) const {
    return doGetProviderStorageInfo(iri);
  }
  void truncateToSize(const StorageIRI& iri, std::uint64_t size) const {
    doTruncateToSize(iri, size);
  }
  ProviderCacheUsage getProviderCacheUsage(const StorageIRI& iri) const {
    return doGetProviderCacheUsage(iri);
  }

 protected:
  // --- slots, in slot order (the destructor pair is slots 1 and 2) ---
  virtual void doCreateFile(const StorageIRI&) const = 0;             // [own]
  virtual void doCreateFolder(const StorageIRI&) const = 0;           // [own]
  virtual void doCreateFolderRecursive(const StorageIRI&) const = 0;  // [own]
  virtual bool doFileExists(const StorageIRI&) const = 0;             // [own]
  virtual bool doFolderExists(const StorageIRI&) const = 0;           // [own]
  virtual void doRemoveFile(const StorageIRI&) const = 0;             // [own]
  virtual void doMoveFile(const StorageIRI& from, const StorageIRI& to,
                          const ReplacementPolicy&) const = 0;          // [own]
  virtual void doRemoveFolder(const StorageIRI&) const = 0;             // [own]
  virtual void doRemoveFolderRecursively(const StorageIRI&) const = 0;  // [own]
  virtual void doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                            const ReplacementPolicy&) const = 0;                // [own]
  virtual FileAttributes doGetFileAttributes(const StorageIRI&) const = 0;      // [own]
  virtual FolderAttributes doGetFolderAttributes(const StorageIRI&) const = 0;  // [own]
  virtual ByteStreamPtr doOpenStream(const StorageIRI&,
                                     const ByteStreamOpenOptions&) const = 0;  // [own]
  virtual ByteStreamPtr doOpenReadOnlyStream(const StorageIRI&) const = 0;     // [own]
  // [framework] Writes go to a scratch file beside the target ("<name>.~tx-<uuid>"), which
  // replaces the target when the stream is closed.
  virtual ByteStreamPtr doOpenTransactionalStream(const StorageIRI&,
                                                  const ByteStreamOpenOptions&) const;
  // [framework] As above with a scratch location of the caller's choice.
  virtual ByteStreamPtr doOpenTransactionalStreamAtScratchLocation(
      const StorageIRI&, const StorageIRI& scratch, const ByteStreamOpenOptions&) const;
  virtual FolderEntryIteratorPtr doListAll(const StorageIRI&) const = 0;  // [own]
  virtual FolderEntryIteratorPtr doListAllWildcards(const StorageIRI&,
                                                    std::u16string pattern) const;
  virtual FolderEntryIteratorPtr doListFiles(const StorageIRI&) const = 0;  // [own]
  virtual FolderEntryIteratorPtr doListFilesWildcards(const StorageIRI&,
                                                      std::u16string pattern) const;
  virtual FolderEntryIteratorPtr doListFolders(const StorageIRI&) const = 0;  // [own]
  virtual FolderEntryIteratorPtr doListFoldersWildcards(const StorageIRI&,
                                                        std::u16string pattern) const;
  virtual NameList doListAllNamesOnly(const StorageIRI&) const;
  virtual NameList doListAllNamesOnlyWildcards(const StorageIRI&, std::u16string pattern) const;
  virtual NameList doListFoldersNamesOnly(const StorageIRI&) const;
  virtual NameList doListFoldersNamesOnlyWildcards(const StorageIRI&, std::u16string pattern) const;
  virtual NameList doListFilesNamesOnly(const StorageIRI&) const;
  virtual NameList doListFilesNamesOnlyWildcards(const StorageIRI&, std::u16string pattern) const;
  virtual FolderEntryIteratorPtr doListAllRecursive(const StorageIRI&) const;
  virtual FolderEntryIteratorPtr doListAllRecursiveWildcards(const StorageIRI&,
                                                             std::u16string pattern) const;
  virtual NameList doListAllRecursiveNamesOnly(const StorageIRI&) const;
  virtual NameList doListAllRecursiveNamesOnlyWildcards(const StorageIRI&,
                                                        std::u16string pattern) const;
  virtual void doCopyFile(const StorageIRI& from, const StorageIRI& to,
                          const ReplacementPolicy&) const = 0;  // [own]
  // [framework] Copies to a scratch file beside the destination, asking `interrupt` between
  // chunks (Interrupted when it says so), then moves the scratch file onto the destination.
  virtual void doCopyFileAtomic(const StorageIRI& from, const StorageIRI& to,
                                const ReplacementPolicy&, const InterruptCallback&) const;
  virtual void doSetLastModified(const StorageIRI&, const posix_time::ptime&) const = 0;  // [own]
  virtual void doSetWritable(const StorageIRI&, bool) const = 0;                          // [own]
  virtual void doPublishFolderEventsFor(const StorageIRI&, const EventPublisher&,
                                        const std::vector<events::Kind>&,
                                        RecursiveFileWatching) const = 0;  // [own]
  virtual void doPublishFileEventsFor(const StorageIRI&, const EventPublisher&,
                                      const std::vector<events::Kind>&) const = 0;  // [own]
  virtual void doStopPublishingEventsFor(const StorageIRI&) const = 0;              // [own]
  // [framework] A thread lists the location every period and publishes the differences
  // (Appeared, Disappeared, Changed) between consecutive listings.
  virtual void doStartChangePollingMechanism(const StorageIRI&, const EventPublisher&,
                                             const std::vector<events::Kind>&, long periodMs,
                                             RecursiveChangePolling) const;
  virtual void doStopChangePollingMechanism(const StorageIRI&) const;
  virtual bool doHasFeature(const ExtendedFeature&) const = 0;  // [own]
  // [framework] Compares paths component by component, folding case with ICU when the
  // provider's names are case-insensitive.
  virtual PathComparator doGetPathComparator(const StorageIRI&) const;
  // [framework] The resolved location.
  virtual StorageIRI doGetCanonicalLocation(const StorageIRI&) const;
  // [framework] Case-sensitive.
  virtual FilenameSensitivity doGetFilenameSensitivity(const StorageIRI&) const;
  virtual void doShutdown() = 0;  // [own]
  // [framework] fileExists || folderExists.
  virtual bool doExists(const StorageIRI&) const;
  virtual Existence doExistsExtended(const StorageIRI&) const;
  virtual ExtendedAttributes doGetExtendedAttributes(const StorageIRI&) const = 0;    // [own]
  virtual ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI&) const = 0;  // [own]
  // [framework] Rewrites the file through a transactional stream, keeping the first `size`
  // bytes and padding with zero bytes when the file is shorter.
  virtual void doTruncateToSize(const StorageIRI&, std::uint64_t size) const;
  // [framework] No local cache: all the space the store reports as free.
  virtual ProviderCacheUsage doGetProviderCacheUsage(const StorageIRI&) const;

 private:
  void stopAllPolling() const;

  mutable std::mutex pollersMutex_;
  mutable std::unique_ptr<detail::ChangePollers> pollers_;
};

}  // namespace foundation::storage::provider
