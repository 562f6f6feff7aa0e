// OpenFile: one file opened through the mount, held as a provider byte stream. FUSE hands
// the kernel a number for it (HandleTable); every read and write of that open file comes
// back here with an explicit offset. When the file is removed (or replaced by a rename)
// while open, its stream gives way to the local copy of its bytes (OrphanFile), which serves
// it from then on.
//
// Ownership: shared (std::shared_ptr) between the handle table and each callback that is
// using it, so a release racing a read cannot destroy the stream under the reader; the
// stream and the file's StorageItem share ownership of the provider. Locks: its own mutex,
// held across seek and read/write because a provider stream has one position and serves one
// thread at a time; no other lock of ours is taken under it, except that
// FuseFilesystem holds the mutexes of every open file of one name (lock()) while it turns
// them into orphans. Threads: any FUSE worker thread.
#pragma once

#include "OrphanFile.h"

#include <foundation/storage/provider/ByteStream.h>
#include <foundation/storage/provider/StorageItem.h>
#include <foundation/storage/provider/extensions/ILocalReads.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace storage::mount {

class OpenFile {
 public:
  // appendOnly: every write goes to the end of the file whatever offset it names (O_APPEND
  // without the kernel's writeback cache, which otherwise resolves the offset itself).
  OpenFile(foundation::storage::provider::StorageItem file,
           foundation::storage::provider::ByteStreamPtr stream, bool appendOnly);
  // A file opened again after its removal (through /proc/PID/fd): served by its copy alone.
  OpenFile(foundation::storage::provider::StorageItem file, std::shared_ptr<OrphanFile> orphan,
           bool appendOnly);
  ~OpenFile();
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  // Up to `size` bytes from `offset`; fewer only at the end of the file.
  std::size_t read(std::uint64_t offset, char* buffer, std::size_t size);
  // Where the `size` bytes from `offset` (fewer only at the end of the file) lie in a local
  // file, when the stream can say (ILocalReads); empty otherwise, and then read() serves
  // them. The descriptor stays open until this file is destroyed: the caller's reply is sent
  // after it returns, and FUSE releases a file only once its reads are answered.
  std::optional<foundation::storage::provider::extensions::LocalBytes> readLocally(
      std::uint64_t offset, std::size_t size);
  void write(std::uint64_t offset, const char* data, std::size_t size);
  // Closes the stream, reporting its failure (the destructor only logs one).
  void close();
  bool isAt(const foundation::storage::provider::StorageIRI& location);
  // The local copy serving the file since it was removed; null while it has a name.
  std::shared_ptr<OrphanFile> orphan();
  // The file as it is now: the store's attributes, or the orphan's.
  foundation::storage::provider::StorageItem item();

  // For turning the file into an orphan: the caller holds lock() across its copy and removal,
  // so that no write slips between them, and then hands the copy over.
  std::unique_lock<std::mutex> lock() { return std::unique_lock(mutex_); }
  void becomeOrphanLocked(std::shared_ptr<OrphanFile> orphan);
  // The removal failed after all: the file is served from the store again.
  void leaveOrphanLocked();
  // The file was renamed (or a folder above it): item() and isAt() follow it.
  void moved(const foundation::storage::provider::StorageIRI& from,
             const foundation::storage::provider::StorageIRI& to);

 private:
  std::mutex mutex_;
  foundation::storage::provider::StorageItem file_;
  foundation::storage::provider::ByteStreamPtr stream_;
  std::shared_ptr<OrphanFile> orphan_;
  // What keeps open the descriptors readLocally handed out (one each, as a body is
  // replaced only when the file's cache entry goes).
  std::vector<std::shared_ptr<const void>> keptOpen_;
  bool appendOnly_;
};

}  // namespace storage::mount
