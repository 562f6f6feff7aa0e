// FuseFilesystem: open files (create, open, read, write, truncate, flush, release, fsync).
#include "FuseFilesystem.h"

#include "FuseFilesystemSupport.h"
#include "MountLog.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>

namespace storage::mount {

namespace fsp = foundation::storage::provider;

std::shared_ptr<OpenFile> FuseFilesystem::openFile(const fuse_file_info* fi) const {
  auto file = fi == nullptr ? nullptr : handles_.find(fi->fh);
  if (!file) throw std::system_error(EBADF, std::generic_category());
  return file;
}

int FuseFilesystem::openStream(const char* path, fuse_file_info* fi, bool create) {
  const auto target = item(path);
  const bool writing = (fi->flags & O_ACCMODE) != O_RDONLY;
  if (create && (fi->flags & O_EXCL) != 0) target.createFile();
  fsp::ByteStreamOpenOptions options;
  // Always readable: with the writeback cache the kernel reads pages of files opened
  // write-only to fill partly written ones.
  options.read = true;
  options.write = writing || create;
  options.create = create;
  options.truncate = writing && (fi->flags & O_TRUNC) != 0;
  const bool appendOnly = (fi->flags & O_APPEND) != 0 && !writebackCache_;
  auto file = std::make_shared<OpenFile>(target, target.openStream(options), appendOnly);
  fi->fh = handles_.add(std::move(file));
  return 0;
}

int FuseFilesystem::open(const char* path, fuse_file_info* fi) {
  return guarded("open", [&] { return self().openStream(path, fi, false); });
}

int FuseFilesystem::create(const char* path, mode_t, fuse_file_info* fi) {
  return guarded("create", [&] { return self().openStream(path, fi, true); });
}

int FuseFilesystem::read(const char*, char* buf, size_t size, off_t offset, fuse_file_info* fi) {
  return guarded("read", [&] {
    if (offset < 0) return -EINVAL;
    return static_cast<int>(
        self().openFile(fi)->read(static_cast<std::uint64_t>(offset), buf, size));
  });
}

int FuseFilesystem::write(const char*, const char* data, size_t size, off_t offset,
                          fuse_file_info* fi) {
  return guarded("write", [&] {
    if (offset < 0) return -EINVAL;
    self().openFile(fi)->write(static_cast<std::uint64_t>(offset), data, size);
    return static_cast<int>(size);
  });
}

int FuseFilesystem::truncate(const char* path, off_t size, fuse_file_info*) {
  return guarded("truncate", [&] {
    if (size < 0) return -EINVAL;
    auto& fs = self();
    const auto target = fs.item(path);
    target.getProvider()->truncateToSize(target.getLocation(), static_cast<std::uint64_t>(size));
    for (const auto& file : fs.handles_.at(target.getLocation())) file->reopen();
    return 0;
  });
}

int FuseFilesystem::flush(const char*, fuse_file_info*) { return 0; }

int FuseFilesystem::release(const char*, fuse_file_info* fi) {
  return guarded("release", [&] {
    if (const auto file = self().handles_.take(fi->fh)) file->close();
    return 0;
  });
}

int FuseFilesystem::fsync(const char*, int, fuse_file_info*) {
  return guarded("fsync", [&] {
    self().stores_->flush();
    return 0;
  });
}

void FuseFilesystem::detach() noexcept {
  try {
    for (const auto& file : handles_.takeAll()) {
      try {
        file->close();
      } catch (...) {
        logCaughtException("closing a file left open at unmount");
      }
    }
    root_ = fsp::StorageItem(fsp::StorageIRI());
    stores_ = nullptr;
  } catch (...) {
    logCaughtException("closing the files left open");
  }
}

}  // namespace storage::mount
