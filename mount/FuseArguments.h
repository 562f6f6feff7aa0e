// FuseArguments: the argument vector handed to fuse_new: the command's defaults first, the
// user's -o options after them (so the user's win), and -d for debugging. Owns the fuse_args
// (libfuse's copies of the strings). Made and used on the main thread.
#pragma once

#include "MountOptions.h"

#include <fuse_opt.h>

#include <string>
#include <vector>

namespace storage::mount {

class FuseArguments {
 public:
  explicit FuseArguments(const MountOptions& options);
  ~FuseArguments();
  FuseArguments(const FuseArguments&) = delete;
  FuseArguments& operator=(const FuseArguments&) = delete;

  fuse_args* args() { return &args_; }
  // False when the user turned the kernel's writeback cache off (-o no_writeback_cache).
  bool writebackCacheWanted() const { return writebackCache_; }

 private:
  // The list without [no_]writeback_cache, which sets writebackCache_ (escaped commas are
  // not expected in these lists).
  std::string takeWritebackChoice(const std::string& list);

  fuse_args args_ = FUSE_ARGS_INIT(0, nullptr);
  bool writebackCache_ = true;
};

}  // namespace storage::mount
