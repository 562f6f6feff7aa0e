// MemProvider: a storage provider whose whole tree lives in memory. It stands in for a
// remote store in tests and benchmarks: same contract as any provider, change events
// delivered asynchronously on its own thread, and a capacity that writes can run out of.
// Root location: mem:/ (rootLocation()).
//
// Ownership: held by std::shared_ptr like every provider. The tree, its mutex and the event
// thread live in a MemStore shared with the streams the provider opened, so streams may
// outlive the provider.
// Locks: one mutex over the whole tree (MemStore::mutex), taken for the whole of each call
// and each stream call; no other lock is held while calling into the tree. Events are
// queued while that mutex is held (dispatcher queue mutex second) and delivered without it.
// Threads: every operation may be called from any thread. Subscribers are called on the
// provider's event thread (started at construction), never on the caller's. shutdown() and
// the destructor stop that thread; the tree stays usable after shutdown, but no more events
// are delivered.
//
// Events: Appeared / Disappeared / Changed for files and folders, with mem: locations
// spelled as the entries were created; a move (a rename to another case included) is
// Disappeared at the source then Appeared at the destination, each naming the other end.
// Closing a stream that wrote, truncateToSize, setLastModified, setWritable and the extended
// attribute test API publish Changed, as a store reporting content and attribute changes
// would. Its event queue is unbounded, so it never needs to publish Rescan.
#pragma once

#include <foundation/storage/provider/IProvider.h>
#include <foundation/storage/provider/extensions/IWholeFileWrites.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>

namespace foundation::storage::provider::mem {

struct MemStore;

class MemProvider final : public IProvider, public extensions::IWholeFileWrites {
 public:
  struct Options {
    // CaseInsensitive: names compare by their ICU lower-case form, keep their case for display.
    FilenameSensitivity sensitivity = FilenameSensitivity::CaseSensitive;
    // Bytes of file content the store accepts; writes beyond it fail with QuotaExceeded.
    std::uint64_t capacityBytes = std::uint64_t{1} << 30;
    // What hasFeature answers true for.
    std::set<ExtendedFeature> features = {
        ExtendedFeature::ReadWrite, ExtendedFeature::RecursiveListing,
        ExtendedFeature::ExtendedAttributes, ExtendedFeature::ChangeEvents,
        ExtendedFeature::SettableLastModified};
  };

  MemProvider();
  explicit MemProvider(Options options);
  ~MemProvider() override;

  static StorageIRI rootLocation();

  // Test API: the extended attributes that a remote store would keep behind the provider.
  // The location must be a file or a folder (NotFound otherwise). Both publish Changed.
  void setExtendedAttribute(const StorageIRI& iri, const std::string& name, std::string value);
  // Removing a name that is not set is not an error.
  void removeExtendedAttribute(const StorageIRI& iri, const std::string& name);
  // Blocks until every event of a change made before the call has been delivered. Returns at
  // once after shutdown, or when called from a subscriber (on the event thread).
  void waitForEventsDelivered() const;

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
  FolderEntryIteratorPtr doListAll(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListFiles(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListFolders(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListAllRecursive(const StorageIRI&) const override;
  void doCopyFile(const StorageIRI& from, const StorageIRI& to,
                  const ReplacementPolicy&) const override;
  void doSetLastModified(const StorageIRI&, const posix_time::ptime&) const override;
  void doSetWritable(const StorageIRI&, bool) const override;
  // Resizes the file's node (growth reads as zeros); QuotaExceeded beyond the capacity.
  void doTruncateToSize(const StorageIRI&, std::uint64_t size) const override;
  // One change of the tree: created or emptied, filled and stamped at once (one event).
  void doWriteWholeFile(const StorageIRI&, std::string_view bytes,
                        const posix_time::ptime& lastModified) const override;
  void doPublishFolderEventsFor(const StorageIRI&, const EventPublisher&,
                                const std::vector<events::Kind>&,
                                RecursiveFileWatching) const override;
  void doPublishFileEventsFor(const StorageIRI&, const EventPublisher&,
                              const std::vector<events::Kind>&) const override;
  void doStopPublishingEventsFor(const StorageIRI&) const override;
  bool doHasFeature(const ExtendedFeature&) const override;
  FilenameSensitivity doGetFilenameSensitivity(const StorageIRI&) const override;
  void doShutdown() override;
  ExtendedAttributes doGetExtendedAttributes(const StorageIRI&) const override;
  ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI&) const override;

 private:
  // InvalidLocation unless the location is a plain mem: location.
  static void checkLocation(const StorageIRI& iri);
  // The location spelled as the entry was created (events carry that spelling), so that a
  // subscription made as "/Docs" hears about "/docs" in a case-insensitive store.
  StorageIRI canonical(const StorageIRI& iri) const;
  FolderEntryIteratorPtr listing(const StorageIRI& iri, bool files, bool folders) const;

  Options options_;
  std::shared_ptr<MemStore> store_;
};

}  // namespace foundation::storage::provider::mem
