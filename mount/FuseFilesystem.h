// FuseFilesystem: the FUSE 3 high-level (path-based) file system over one provider root.
// Each callback maps one file-system operation onto the provider's operations on the
// StorageItem of its path; every refusal becomes an errno through ErrnoMapping.
//
//   lookup/getattr   existsExtended, then file or folder attributes; writable -> w bits
//   readdir          listAll (attributes handed to the kernel with readdirplus)
//   create, open     openStream (O_CREAT|O_EXCL: createFile first, so an existing name is
//                    EEXIST); O_TRUNC and O_APPEND as stream options
//   read, write      the open file's stream at the request's offset (OpenFile); cached bytes
//                    are read as the body's descriptor, which libfuse splices (read_buf)
//   truncate         truncateToSize (in place: open streams stay on the file); a size beyond
//                    what the local file system or the store can hold is EFBIG before
//                    anything is written
//   flush            nothing: the stream's writes are the overlay's once written
//   release          closes the stream
//   fsync            StoreStack::sync: with the journal, every change made before it is
//                    durable on the local disk when it returns; without it (or with
//                    --fsync=store), the overlay's flushFilesystem: every change queued before
//                    it, the file's writes included, has reached the store (nothing more to
//                    do in a pass-through, whose calls reach the store as they run)
//   unlink, rmdir    removeFile, removeFolder
//   removed while open  libfuse renames a removed open file to a hidden name (hard_remove
//                    off, so the kernel's handle keeps a path): the mount copies its bytes to
//                    an OrphanFile, removes it from the store and serves the hidden name and
//                    its handles from the copy (HiddenFiles) until libfuse removes that name
//                    at the last close; a null path (a folder above it removed) is served
//                    from the handle
//   mkdir            createFolder
//   rename           moveFile / moveFolder; replaces a destination unless RENAME_NOREPLACE
//                    (then EEXIST); RENAME_EXCHANGE is EINVAL. Open files follow the move.
//   utimens          setLastModified (the access time is not kept)
//   chmod            setWritable from the mode's write bits (other bits are not kept)
//   change times     kept by the mount for what the store has no time for (ChangeTimes)
//   link counts      a file 1, a folder 1 (the store cannot say how many sub-folders a folder
//                    has without listing it; 1 tells `find` not to count on it)
//   chown            accepted and ignored: the store keeps no owners, files show as the
//                    mounting user's (so `tar` as root extracts without errors)
//   statfs           getProviderStorageInfo of the root (capacity, occupied)
//   getxattr etc.    the store's extended attributes, read-only (setxattr: EOPNOTSUPP)
//
// Ownership: made by MountSession, which keeps it (and the StoreStack attached to it) alive
// for the whole session; FUSE calls it through fuse_get_context()->private_data. It owns the
// handle table; each callback copies what it needs (StorageItem, shared OpenFile), so a
// release racing a read cannot free what the read uses.
// Threads: any FUSE worker thread calls any callback, several at once. Locks: the handle
// table's mutex, then an open file's mutex, never both at once; none of ours is held while a
// provider call runs except the open file's own around its stream.
#pragma once

#include "ChangeTimes.h"
#include "HandleTable.h"
#include "HiddenFiles.h"
#include "StoreStack.h"

#include <foundation/storage/provider/StorageItem.h>

#include <fuse.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace storage::mount {

class FuseFilesystem {
 public:
  // userWritebackCache: false when the user asked for no_writeback_cache. scratchDirectory:
  // where the bytes of files removed while open are kept (unnamed) until their last close.
  // storePathPrefix: how long the store's own path is before a mount path (a folder store's
  // directory), which counts towards the longest path the store can reach.
  FuseFilesystem(bool userWritebackCache, std::string scratchDirectory,
                 std::size_t storePathPrefix);

  // The stores to serve; called once, before the session loop starts (no callback comes
  // earlier). The stores must outlive the loop.
  void attach(const StoreStack& stores);
  // Runs `hook` once, on the FUSE thread that takes the first request after the session's
  // start (the kernel has then applied what the session offered). Set before the loop starts.
  void onFirstRequest(std::function<void()> hook) { firstRequestHook_ = std::move(hook); }
  // The callbacks; private_data must be this object.
  static fuse_operations operations();
  // After the session loop has ended: closes what the kernel left open and lets go of the
  // provider, which must be gone before the stores unload the bundle that holds its code.
  void detach() noexcept;
  std::size_t openFiles() const { return handles_.size(); }

 private:
  // What a callback acts on: the copy of a file removed while open, or the store's file or
  // folder. `path` is empty when FUSE named the file by its handle only.
  struct Target {
    std::shared_ptr<OrphanFile> orphan;
    std::optional<foundation::storage::provider::StorageItem> item;
    std::string path;
  };

  static FuseFilesystem& self();
  foundation::storage::provider::StorageItem item(const char* path) const;
  Target target(const char* path, const fuse_file_info* fi) const;
  // libfuse hides `from`, open, under `hiddenName`: its bytes move to an OrphanFile.
  void hide(const char* from, const std::string& hiddenName);
  // EFBIG for a size this mount cannot hold.
  void checkFileSize(std::uint64_t size, bool askStore) const;
  std::shared_ptr<OpenFile> openFile(const fuse_file_info* fi) const;
  int openStream(const char* path, fuse_file_info* fi, bool create);

  static void* init(fuse_conn_info* conn, fuse_config* cfg);
  static int getattr(const char* path, struct stat* st, fuse_file_info* fi);
  static int readdir(const char* path, void* buf, fuse_fill_dir_t filler, off_t offset,
                     fuse_file_info* fi, fuse_readdir_flags flags);
  static int statfs(const char* path, struct statvfs* st);
  static int open(const char* path, fuse_file_info* fi);
  static int create(const char* path, mode_t mode, fuse_file_info* fi);
  // Bytes the overlay holds in a cached body are answered as that body's descriptor, which
  // libfuse splices into the kernel without copying them through this process; the rest are
  // read into a buffer (libfuse calls this instead of a plain read).
  static int readBuf(const char* path, fuse_bufvec** out, size_t size, off_t offset,
                     fuse_file_info* fi);
  static int write(const char* path, const char* data, size_t size, off_t offset,
                   fuse_file_info* fi);
  static int truncate(const char* path, off_t size, fuse_file_info* fi);
  static int flush(const char* path, fuse_file_info* fi);
  static int release(const char* path, fuse_file_info* fi);
  static int fsync(const char* path, int datasync, fuse_file_info* fi);
  static int unlink(const char* path);
  static int mkdir(const char* path, mode_t mode);
  static int rmdir(const char* path);
  static int rename(const char* from, const char* to, unsigned int flags);
  static int utimens(const char* path, const struct timespec tv[2], fuse_file_info* fi);
  static int chmod(const char* path, mode_t mode, fuse_file_info* fi);
  static int chown(const char* path, uid_t uid, gid_t gid, fuse_file_info* fi);
  static int getxattr(const char* path, const char* name, char* value, size_t size);
  static int listxattr(const char* path, char* list, size_t size);
  static int setxattr(const char* path, const char* name, const char* value, size_t size,
                      int flags);
  static int removexattr(const char* path, const char* name);

  const StoreStack* stores_ = nullptr;
  foundation::storage::provider::StorageItem root_;
  const bool userWritebackCache_;
  // Set by init: whether the kernel caches writes (it then resolves O_APPEND offsets).
  std::atomic<bool> writebackCache_{false};
  std::function<void()> firstRequestHook_;
  std::atomic<bool> served_{false};  // a request has come
  const uid_t uid_;
  const gid_t gid_;
  const std::string scratchDirectory_;
  // The longest mount path whose store path stays within PATH_MAX: a longer one would be
  // accepted here and then never reach the store.
  const std::size_t longestPath_;
  // The largest file the scratch directory's file system takes (the content cache's, when
  // it has a root): a larger one could not be cached either.
  const std::uint64_t largestLocalFile_;
  mutable std::once_flag storeCapacityKnown_;
  mutable std::uint64_t storeCapacity_ = 0;  // 0: the store gives none
  HandleTable handles_;
  HiddenFiles hidden_;
  ChangeTimes changeTimes_;
};

}  // namespace storage::mount
