// FileProvider: one directory of the local file system served as a store, with the root
// location "file:/". Every location names an entry below that directory.
//
// Confinement: no location reaches outside the directory; see LocalRoot.h for the rules
// (lexical ".." never climbs above "/", symbolic links leading outside or nowhere are refused
// with InvalidLocation, links that stay inside are followed, and the accepted race). Listings
// and recursive walks leave out entries that are links leading outside the root. A recursive
// walk lists a link to a folder but does not enter it (links pointing sideways could make the
// walk exponential); that row carries the extended attribute "initiallyInvalid", so that a
// cache filled from the walk lists the folder on its own.
// Removing a file or folder that is a symbolic link removes the link, not what it leads to.
//
// Errors: every failed system call is translated by errnoException (ErrnoTranslation.h);
// the contract's own checks (kinds, parents, policies) come first so that their locations
// are the ones the contract names.
//
// Attributes: from stat (following links); last-modified with microseconds, UTC; writable is
// the owner write bit. setWritable(true) adds the owner write bit; setWritable(false) clears
// all three write bits. Extended attributes are the "user." xattrs, prefix removed; a file
// system without xattrs gives none. Times before 1970 and after 2038 are kept as given.
//
// Moves: renameat2(RENAME_NOREPLACE) where a destination must not be replaced, so a
// concurrent creation is not overwritten; a file moved across file systems inside the root is
// copied and then removed. Merge moves a folder's entries one by one (files replace files);
// it first checks the whole tree for a folder meeting a file, and refuses with AlreadyExists
// before changing anything.
//
// Events: InotifyWatcher (on the provider's own event thread), started on the first
// subscription; subscriptions live in an EventSubscriptions table.
//
// Threads: all operations may run concurrently from any thread. The provider has no lock of
// its own over the file system (the kernel orders the calls); the watcher and the
// subscription table each take only their own mutex. doShutdown stops the event thread
// (idempotent); the destructor calls shutdown(), which stops change polling first, so no
// polling thread runs on a half-destroyed provider.
// Ownership: owned through std::shared_ptr like every provider; owns its watcher.
#pragma once

#include <foundation/storage/provider/EventSubscriptions.h>
#include <foundation/storage/provider/IProvider.h>
#include <foundation/storage/provider/extensions/IWholeFileWrites.h>
#include <foundation/storage/provider/file/InotifyWatcher.h>
#include <foundation/storage/provider/file/LocalEntries.h>
#include <foundation/storage/provider/file/LocalRoot.h>

#include <filesystem>
#include <memory>

namespace foundation::storage::provider::file {

class FileProvider : public IProvider, public extensions::IWholeFileWrites {
 public:
  // `root` must be an existing directory (Exception(NotFound) naming it otherwise).
  explicit FileProvider(const std::filesystem::path& root);
  ~FileProvider() override;

  static StorageIRI rootLocation() { return StorageIRI(u"file", u"/"); }
  // The canonical local path of the root directory.
  const std::string& localRoot() const { return root_.path(); }

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
  // truncate(2) in place (sparse); a size the file system cannot hold is QuotaExceeded.
  void doTruncateToSize(const StorageIRI&, std::uint64_t size) const override;
  // The stream and the time stamp it stands for, one after the other: a local disk has no
  // round trips to save, but a host (or a wrapper that delays calls) sees one call.
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
  enum class RowFilter { All, Files, Folders };

  // The local path of a location whose parent must be an existing folder (NotFound with the
  // parent's location otherwise) and where nothing may exist yet (AlreadyExists).
  std::string prepareCreation(const StorageIRI& location) const;
  void requireParentFolder(const StorageIRI& location) const;
  FolderEntryIteratorPtr listDirect(const StorageIRI& folder, RowFilter filter) const;
  // Merge helpers (FileProviderMoves.cpp).
  void checkMergeable(const std::string& from, const std::string& to,
                      const StorageIRI& toLocation) const;
  void mergeFolder(const std::string& from, const std::string& to,
                   const StorageIRI& toLocation) const;
  void copyBytes(const std::string& from, const std::string& to, bool replace,
                 const StorageIRI& fromLocation, const StorageIRI& toLocation) const;

  LocalRoot root_;
  mutable EventSubscriptions subscriptions_;
  std::unique_ptr<InotifyWatcher> watcher_;  // declared after subscriptions_: stops first
};

}  // namespace foundation::storage::provider::file
