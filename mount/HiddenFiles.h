// HiddenFiles: the files removed while open, by the name libfuse gives them meanwhile.
//
// When a program removes a file (or renames another file over it) while it is open, libfuse
// keeps the kernel's handle alive by renaming the file to ".fuse_hidden" and 16 hex digits in
// its folder, and removes that name at the last close. The mount carries the rename out as a
// removal from the store (the bytes move to an OrphanFile) and answers every later call on
// the hidden name from this table, so that the removed file never reaches the store under
// any name. Only the base name is kept: libfuse's name is unique in the session, and a
// folder above it may be renamed meanwhile.
//
// Ownership: a value of FuseFilesystem. Locks: its own mutex, only around the map. Threads:
// any FUSE worker thread.
#pragma once

#include "OrphanFile.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace storage::mount {

class HiddenFiles {
 public:
  // The base name when `path` ends in a name of libfuse's hidden form; empty otherwise.
  static std::optional<std::string> hiddenName(const char* path);

  void add(const std::string& name, std::shared_ptr<OrphanFile> orphan);
  // Null when `path` is not a hidden file of this table.
  std::shared_ptr<OrphanFile> find(const char* path) const;
  // Whether `path` was a hidden file of this table (it is gone from it now).
  bool remove(const char* path);

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<OrphanFile>> files_;
};

}  // namespace storage::mount
