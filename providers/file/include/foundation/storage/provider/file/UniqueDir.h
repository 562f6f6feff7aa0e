// UniqueDir: sole owner of one open directory stream (opendir/fdopendir), closed on
// destruction. Not thread-safe; owned by one function at a time.
#pragma once

#include <dirent.h>

#include <memory>

namespace foundation::storage::provider::file {

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

using UniqueDir = std::unique_ptr<DIR, DirCloser>;

}  // namespace foundation::storage::provider::file
