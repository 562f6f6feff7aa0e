// FuseFilesystem: construction, the operations table, init and the queries (getattr,
// readdir, statfs).
#include "FuseFilesystem.h"

#include "FuseFilesystemSupport.h"
#include "MountLog.h"
#include "StatConversion.h"

#include <foundation/text/Unicode.h>

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
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

// The largest size an unnamed file in `directory` can be truncated to (a sparse file: the
// probe writes nothing). ext4 stops at 16 TiB, XFS and btrfs at 8 EiB.
std::uint64_t largestFileIn(const std::string& directory) {
  const int fd = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0) return std::numeric_limits<off_t>::max();
  std::uint64_t fits = 0;
  for (std::uint64_t bit = std::uint64_t{1} << 62; bit != 0; bit >>= 1) {
    if (::ftruncate(fd, static_cast<off_t>(fits | bit)) == 0) fits |= bit;
  }
  ::close(fd);
  return fits;
}

std::string childPath(const char* folder, const std::string& name) {
  const std::string_view parent(folder);
  return parent == "/" ? "/" + name : std::string(parent) + "/" + name;
}

}  // namespace

FuseFilesystem::FuseFilesystem(bool userWritebackCache, std::string scratchDirectory,
                               std::size_t storePathPrefix)
    : root_(fsp::StorageIRI()),
      userWritebackCache_(userWritebackCache),
      uid_(getuid()),
      gid_(getgid()),
      scratchDirectory_(std::move(scratchDirectory)),
      longestPath_(PATH_MAX - 1 - std::min<std::size_t>(storePathPrefix, PATH_MAX - 1)),
      largestLocalFile_(largestFileIn(scratchDirectory_)) {}

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
  ops.read_buf = &FuseFilesystem::readBuf;
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
  auto& fs = *static_cast<FuseFilesystem*>(fuse_get_context()->private_data);
  if (!fs.served_.load(std::memory_order_relaxed) && !fs.served_.exchange(true) &&
      fs.firstRequestHook_) {
    try {
      fs.firstRequestHook_();
    } catch (...) {
      logCaughtException("the mount's first request");
    }
  }
  return fs;
}

fsp::StorageItem FuseFilesystem::item(const char* path) const {
  checkComponentLengths(path);
  if (std::strlen(path) > longestPath_) {
    throw std::system_error(ENAMETOOLONG, std::generic_category());
  }
  return fsp::StorageItem(root_, foundation::text::toUtf16(path));
}

FuseFilesystem::Target FuseFilesystem::target(const char* path, const fuse_file_info* fi) const {
  if (path != nullptr) {
    if (auto orphan = hidden_.find(path)) return {std::move(orphan), std::nullopt, path};
    return {nullptr, item(path), path};
  }
  const auto file = openFile(fi);
  if (auto orphan = file->orphan()) return {std::move(orphan), std::nullopt, {}};
  return {nullptr, file->item(), {}};
}

void FuseFilesystem::checkFileSize(std::uint64_t size, bool askStore) const {
  if (size > largestLocalFile_) throw std::system_error(EFBIG, std::generic_category());
  if (!askStore) return;
  // The store's capacity does not change under a mount: asked once, at the first truncation.
  std::call_once(storeCapacityKnown_,
                 [&] { storeCapacity_ = root_.getProviderStorageInfo().getStorageCapacity(); });
  if (storeCapacity_ > 0 && size > storeCapacity_) {
    throw std::system_error(EFBIG, std::generic_category());
  }
}

void* FuseFilesystem::init(fuse_conn_info* conn, fuse_config* cfg) {
  auto* fs = static_cast<FuseFilesystem*>(fuse_get_context()->private_data);
  try {
    // A file removed while open is renamed to a hidden name, which the mount serves from a
    // local copy (HiddenFiles): with hard_remove libfuse would lose its path, and fstat,
    // which the kernel sends without a handle, would fail with ESTALE.
    cfg->hard_remove = 0;
    cfg->use_ino = 0;
    cfg->nullpath_ok = 0;
    // The overlay is the only writer through the mount, so the kernel may keep written pages
    // and file sizes; it then also sends writes with the offsets O_APPEND resolves to.
    if (fs->userWritebackCache_ && (conn->capable & FUSE_CAP_WRITEBACK_CACHE) != 0) {
      conn->want |= FUSE_CAP_WRITEBACK_CACHE;
    }
    fs->writebackCache_ = (conn->want & FUSE_CAP_WRITEBACK_CACHE) != 0;
    // Reads answered from a cached body's descriptor are spliced, not copied (readBuf).
    if ((conn->capable & FUSE_CAP_SPLICE_WRITE) != 0) conn->want |= FUSE_CAP_SPLICE_WRITE;
    MOUNT_LOG(foundation::log::notice)
        << "FUSE session: writeback cache " << (fs->writebackCache_ ? "on" : "off")
        << ", max_write " << conn->max_write << ", max_readahead " << conn->max_readahead;
  } catch (...) {
    logCaughtException("init");
  }
  return fs;
}

int FuseFilesystem::getattr(const char* path, struct stat* st, fuse_file_info* fi) {
  return guarded("getattr", [&] {
    auto& fs = self();
    const auto target = fs.target(path, fi);
    const Owner owner{fs.uid_, fs.gid_};
    if (target.orphan) {
      target.orphan->fillStat(owner, *st);
      return 0;
    }
    const auto& item = *target.item;
    switch (item.getProvider()->existsExtended(item.getLocation())) {
      case fsp::Existence::File:
        fillFileStat(item.getFileAttributes(), owner, *st);
        break;
      case fsp::Existence::Folder:
        fillFolderStat(item.getFolderAttributes(), owner, *st);
        break;
      default:
        return -ENOENT;
    }
    fs.changeTimes_.apply(target.path, *st);
    return 0;
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
      fs.changeTimes_.apply(childPath(path, name), st);
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
