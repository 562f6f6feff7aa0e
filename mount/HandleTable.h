// HandleTable: the files open through the mount, by the number FUSE gives the kernel
// (fuse_file_info::fh). Owned by the FuseFilesystem. Locks: its own mutex, held only to look
// up, insert or remove (never across a stream call). Threads: any FUSE worker thread, and the
// main thread (FuseFilesystem::detach) after the session loop has ended.
#pragma once

#include "OpenFile.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace storage::mount {

class HandleTable {
 public:
  std::uint64_t add(std::shared_ptr<OpenFile> file);
  // Empty when the number is not (or no longer) open.
  std::shared_ptr<OpenFile> find(std::uint64_t handle) const;
  // Removes and returns the file; empty when it was not open.
  std::shared_ptr<OpenFile> take(std::uint64_t handle);
  // Removes every file (the caller closes them outside the lock).
  std::vector<std::shared_ptr<OpenFile>> takeAll();
  std::size_t size() const;
  // The open files at a location (copied out, so the caller works on them without the lock).
  std::vector<std::shared_ptr<OpenFile>> at(
      const foundation::storage::provider::StorageIRI& location) const;
  std::vector<std::shared_ptr<OpenFile>> all() const;

 private:
  mutable std::mutex mutex_;
  std::uint64_t next_ = 1;
  std::unordered_map<std::uint64_t, std::shared_ptr<OpenFile>> files_;
};

}  // namespace storage::mount
