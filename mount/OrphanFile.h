// OrphanFile: the bytes of a file that was removed (or replaced by a rename) while programs
// still had it open. On a local file system such a file lives on without a name until its
// last close; the store cannot hold a file without a name, and a file parked under a hidden
// name would reach the store (and other machines) as a file nobody made. So the mount copies
// the file's bytes into an unnamed local file (O_TMPFILE) before it removes the name from
// the store, and serves the open handles from that copy: reads, writes, fstat (link count 0),
// ftruncate, futimens, fchmod and fsync act on it, and nothing of it ever reaches the store.
// Its space is given back when the last holder lets go (the descriptor closes).
//
// Holes stay holes: blocks of zeros are not written into the copy.
//
// Ownership: shared (std::shared_ptr) by every OpenFile that served the removed file and by
// the HiddenFiles table, which holds it under the name libfuse gave it. Locks: its own mutex,
// only to keep an append's size and write together; positioned reads and writes need none.
// Threads: any FUSE worker thread.
#pragma once

#include "StatConversion.h"

#include <foundation/storage/provider/ByteStream.h>

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace storage::mount {

class OrphanFile {
 public:
  // Copies what `source` reads from its current position to its end into a new unnamed file
  // in `scratchDirectory`, which carries `lastModified` and the write bits of `writable`.
  // Throws std::system_error when the local file cannot be made or written.
  static std::shared_ptr<OrphanFile> copyOf(foundation::storage::provider::ByteStream& source,
                                            const std::string& scratchDirectory,
                                            const timespec& lastModified, bool writable);
  explicit OrphanFile(int descriptor) : fd_(descriptor) {}
  ~OrphanFile();
  OrphanFile(const OrphanFile&) = delete;
  OrphanFile& operator=(const OrphanFile&) = delete;

  std::size_t read(std::uint64_t offset, char* buffer, std::size_t size) const;
  void write(std::uint64_t offset, const char* data, std::size_t size);
  void append(const char* data, std::size_t size);
  void truncate(std::uint64_t size);
  // tv as utimensat(2) takes it (null: both now; UTIME_NOW, UTIME_OMIT honoured).
  void setTimes(const timespec tv[2]);
  void setMode(mode_t mode);
  void sync(bool dataOnly);
  // The file as fstat(2) sees it, link count 0, owned by `owner`.
  void fillStat(Owner owner, struct stat& st) const;

 private:
  const int fd_;
  std::mutex appendMutex_;
};

}  // namespace storage::mount
