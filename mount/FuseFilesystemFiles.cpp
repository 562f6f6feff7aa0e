// FuseFilesystem: open files (create, open, read, write, truncate, flush, release, fsync).
#include "FuseFilesystem.h"

#include "FuseFilesystemSupport.h"
#include "MountLog.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
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
  const bool appendOnly = (fi->flags & O_APPEND) != 0 && !writebackCache_;
  if (auto orphan = hidden_.find(path)) {
    // Opened again after its removal (through /proc/PID/fd): its copy serves it.
    if (writing && (fi->flags & O_TRUNC) != 0) orphan->truncate(0);
    fi->fh = handles_.add(std::make_shared<OpenFile>(target, std::move(orphan), appendOnly));
    return 0;
  }
  if (create && (fi->flags & O_EXCL) != 0) target.createFile();
  fsp::ByteStreamOpenOptions options;
  // Always readable: with the writeback cache the kernel reads pages of files opened
  // write-only to fill partly written ones.
  options.read = true;
  options.write = writing || create;
  options.create = create;
  options.truncate = writing && (fi->flags & O_TRUNC) != 0;
  auto file = std::make_shared<OpenFile>(target, target.openStream(options), appendOnly);
  fi->fh = handles_.add(std::move(file));
  return 0;
}

int FuseFilesystem::open(const char* path, fuse_file_info* fi) {
  return guarded("open", [&] { return self().openStream(path, fi, false); });
}

int FuseFilesystem::create(const char* path, mode_t, fuse_file_info* fi) {
  return guarded("create", [&] {
    auto& fs = self();
    fs.openStream(path, fi, true);
    fs.changeTimes_.added(path);
    return 0;
  });
}

int FuseFilesystem::readBuf(const char*, fuse_bufvec** out, size_t size, off_t offset,
                            fuse_file_info* fi) {
  return guarded("read", [&] {
    if (offset < 0) return -EINVAL;
    const auto file = self().openFile(fi);
    // libfuse frees the vector, and the memory of a buffer that is not a descriptor.
    auto vector = std::unique_ptr<fuse_bufvec, decltype(&std::free)>(
        static_cast<fuse_bufvec*>(std::malloc(sizeof(fuse_bufvec))), &std::free);
    if (!vector) return -ENOMEM;
    *vector = FUSE_BUFVEC_INIT(0);
    const auto local = file->readLocally(static_cast<std::uint64_t>(offset), size);
    if (local && local->count > 0) {
      vector->buf[0].size = static_cast<std::size_t>(local->count);
      vector->buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
      vector->buf[0].fd = local->descriptor;
      vector->buf[0].pos = local->offset;
    } else if (!local) {
      auto memory = std::unique_ptr<char, decltype(&std::free)>(
          static_cast<char*>(std::malloc(std::max<size_t>(size, 1))), &std::free);
      if (!memory) return -ENOMEM;
      vector->buf[0].size = file->read(static_cast<std::uint64_t>(offset), memory.get(), size);
      vector->buf[0].mem = memory.release();
    }
    *out = vector.release();
    return 0;
  });
}

int FuseFilesystem::write(const char*, const char* data, size_t size, off_t offset,
                          fuse_file_info* fi) {
  return guarded("write", [&] {
    if (offset < 0) return -EINVAL;
    const auto& fs = self();
    fs.checkFileSize(static_cast<std::uint64_t>(offset) + size, false);
    fs.openFile(fi)->write(static_cast<std::uint64_t>(offset), data, size);
    return static_cast<int>(size);
  });
}

int FuseFilesystem::truncate(const char* path, off_t size, fuse_file_info* fi) {
  return guarded("truncate", [&] {
    if (size < 0) return -EINVAL;
    auto& fs = self();
    const auto target = fs.target(path, fi);
    const auto length = static_cast<std::uint64_t>(size);
    if (target.orphan) {
      target.orphan->truncate(length);
      return 0;
    }
    const auto& file = *target.item;
    fs.checkFileSize(length, true);
    // Every store the mount serves truncates in place, so open streams stay on the file.
    file.getProvider()->truncateToSize(file.getLocation(), length);
    fs.changeTimes_.changed(target.path);
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

int FuseFilesystem::fsync(const char*, int datasync, fuse_file_info* fi) {
  return guarded("fsync", [&] {
    const auto& fs = self();
    if (const auto orphan = fs.openFile(fi)->orphan()) {
      orphan->sync(datasync != 0);
      return 0;
    }
    fs.stores_->sync();
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
