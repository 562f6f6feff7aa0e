// FuseFilesystem: construction, the operations table, init and the queries (getattr,
// readdir, statfs).
#include "FuseFilesystem.h"

#include "FuseFilesystemSupport.h"
#include "MountLog.h"
#include "StatConversion.h"

#include <foundation/text/Unicode.h>

#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

namespace storage::mount {

namespace fsp = foundation::storage::provider;

namespace {

// What the kernel may cache: a name is the longest a POSIX program expects.
constexpr std::size_t kNameMax = 255;

void checkComponentLengths(std::string_view path) {
  std::size_t start = 0;
  while (start <= path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (end - start > kNameMax) throw std::system_error(ENAMETOOLONG, std::generic_category());
    start = end + 1;
  }
}

}  // namespace

FuseFilesystem::FuseFilesystem(bool userWritebackCache)
    : root_(fsp::StorageIRI()),
      userWritebackCache_(userWritebackCache),
      uid_(getuid()),
      gid_(getgid()) {}

void FuseFilesystem::attach(const StoreStack& stores) {
  stores_ = &stores;
  root_ = stores.root();
}

fuse_operations FuseFilesystem::operations() {
  fuse_operations ops{};
  ops.init = &FuseFilesystem::init;
  ops.getattr = &FuseFilesystem::getattr;
  ops.readdir = &FuseFilesystem::readdir;
  ops.statfs = &FuseFilesystem::statfs;
  ops.open = &FuseFilesystem::open;
  ops.create = &FuseFilesystem::create;
  ops.read = &FuseFilesystem::read;
  ops.write = &FuseFilesystem::write;
  ops.truncate = &FuseFilesystem::truncate;
  ops.flush = &FuseFilesystem::flush;
  ops.release = &FuseFilesystem::release;
  ops.fsync = &FuseFilesystem::fsync;
  ops.unlink = &FuseFilesystem::unlink;
  ops.mkdir = &FuseFilesystem::mkdir;
  ops.rmdir = &FuseFilesystem::rmdir;
  ops.rename = &FuseFilesystem::rename;
  ops.utimens = &FuseFilesystem::utimens;
  ops.chmod = &FuseFilesystem::chmod;
  ops.chown = &FuseFilesystem::chown;
  ops.getxattr = &FuseFilesystem::getxattr;
  ops.listxattr = &FuseFilesystem::listxattr;
  ops.setxattr = &FuseFilesystem::setxattr;
  ops.removexattr = &FuseFilesystem::removexattr;
  return ops;
}

FuseFilesystem& FuseFilesystem::self() {
  return *static_cast<FuseFilesystem*>(fuse_get_context()->private_data);
}

fsp::StorageItem FuseFilesystem::item(const char* path) const {
  checkComponentLengths(path);
  return fsp::StorageItem(root_, foundation::text::toUtf16(path));
}

void* FuseFilesystem::init(fuse_conn_info* conn, fuse_config* cfg) {
  auto* fs = static_cast<FuseFilesystem*>(fuse_get_context()->private_data);
  try {
    // A removed file is gone at once, never renamed to .fuse_hidden* while open.
    cfg->hard_remove = 1;
    cfg->use_ino = 0;
    cfg->nullpath_ok = 0;
    // The overlay is the only writer through the mount, so the kernel may keep written pages
    // and file sizes; it then also sends writes with the offsets O_APPEND resolves to.
    if (fs->userWritebackCache_ && (conn->capable & FUSE_CAP_WRITEBACK_CACHE) != 0) {
      conn->want |= FUSE_CAP_WRITEBACK_CACHE;
    }
    fs->writebackCache_ = (conn->want & FUSE_CAP_WRITEBACK_CACHE) != 0;
    MOUNT_LOG(foundation::log::notice)
        << "FUSE session: writeback cache " << (fs->writebackCache_ ? "on" : "off")
        << ", max_write " << conn->max_write << ", max_readahead " << conn->max_readahead;
  } catch (...) {
    logCaughtException("init");
  }
  return fs;
}

int FuseFilesystem::getattr(const char* path, struct stat* st, fuse_file_info*) {
  return guarded("getattr", [&] {
    auto& fs = self();
    const auto target = fs.item(path);
    const Owner owner{fs.uid_, fs.gid_};
    switch (target.getProvider()->existsExtended(target.getLocation())) {
      case fsp::Existence::File:
        fillFileStat(target.getFileAttributes(), owner, *st);
        return 0;
      case fsp::Existence::Folder:
        fillFolderStat(target.getFolderAttributes(), owner, *st);
        return 0;
      default:
        return -ENOENT;
    }
  });
}

int FuseFilesystem::readdir(const char* path, void* buf, fuse_fill_dir_t filler, off_t,
                            fuse_file_info*, fuse_readdir_flags flags) {
  return guarded("readdir", [&] {
    auto& fs = self();
    const auto rows = fsp::collectRows(*fs.item(path).listAll());
    const Owner owner{fs.uid_, fs.gid_};
    const auto plus =
        (flags & FUSE_READDIR_PLUS) != 0 ? FUSE_FILL_DIR_PLUS : static_cast<fuse_fill_dir_flags>(0);
    filler(buf, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    filler(buf, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    for (const auto& row : rows) {
      struct stat st;
      if (row.isFile()) {
        fillFileStat(row.getFileAttributes(), owner, st);
      } else {
        fillFolderStat(row.getFolderAttributes(), owner, st);
      }
      const std::string name = foundation::text::toUtf8(row.getName());
      if (filler(buf, name.c_str(), &st, 0, plus) != 0) return -ENOMEM;
    }
    return 0;
  });
}

int FuseFilesystem::statfs(const char* path, struct statvfs* st) {
  return guarded("statfs", [&] {
    const auto info = self().item(path).getProviderStorageInfo();
    constexpr std::uint64_t kBlock = 4096;
    const std::uint64_t capacity = info.getStorageCapacity();
    const std::uint64_t used = std::min(info.getSpaceOccupied(), capacity);
    std::memset(st, 0, sizeof *st);
    st->f_bsize = kBlock;
    st->f_frsize = kBlock;
    st->f_blocks = capacity / kBlock;
    st->f_bfree = (capacity - used) / kBlock;
    st->f_bavail = st->f_bfree;
    st->f_files = 1u << 30;
    st->f_ffree = 1u << 30;
    st->f_namemax = kNameMax;
    return 0;
  });
}

}  // namespace storage::mount
