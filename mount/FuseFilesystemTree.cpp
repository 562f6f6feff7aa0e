// FuseFilesystem: changes to the tree and to attributes (mkdir, rmdir, unlink, rename,
// utimens, chmod, chown, extended attributes).
#include "FuseFilesystem.h"

#include "FuseFilesystemSupport.h"
#include "StatConversion.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

namespace storage::mount {

namespace fsp = foundation::storage::provider;

int FuseFilesystem::unlink(const char* path) {
  return guarded("unlink", [&] {
    auto& fs = self();
    // The last close of a file removed while open: its copy goes.
    if (fs.hidden_.remove(path)) return 0;
    fs.item(path).removeFile();
    fs.changeTimes_.removed(path);
    return 0;
  });
}

int FuseFilesystem::mkdir(const char* path, mode_t) {
  return guarded("mkdir", [&] {
    auto& fs = self();
    fs.item(path).createFolder();
    fs.changeTimes_.added(path);
    return 0;
  });
}

int FuseFilesystem::rmdir(const char* path) {
  return guarded("rmdir", [&] {
    auto& fs = self();
    fs.item(path).removeFolder();
    fs.changeTimes_.removed(path);
    return 0;
  });
}

void FuseFilesystem::hide(const char* from, const std::string& hiddenName) {
  const auto source = item(from);
  auto files = handles_.at(source.getLocation());
  // Every handle of the file is held still from the copy until it is switched over, so that
  // no write lands between them. Address order: the only place that holds several.
  std::sort(files.begin(), files.end());
  std::vector<std::unique_lock<std::mutex>> held;
  for (const auto& file : files) held.push_back(file->lock());
  const auto attributes = source.getFileAttributes();
  auto stream = source.openReadOnlyStream();
  auto orphan =
      OrphanFile::copyOf(*stream, scratchDirectory_, toTimespec(attributes.getLastModified()),
                         attributes.isWritable());
  stream->close();
  // The streams close before the removal, so that what their closing sends the store (the
  // last-modified time) reaches it while the file is still there.
  for (const auto& file : files) file->becomeOrphanLocked(orphan);
  try {
    source.removeFile();
  } catch (...) {
    for (const auto& file : files) file->leaveOrphanLocked();
    throw;
  }
  hidden_.add(hiddenName, std::move(orphan));
  changeTimes_.removed(from);
}

int FuseFilesystem::rename(const char* from, const char* to, unsigned int flags) {
  return guarded("rename", [&] {
    if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) return -EINVAL;
    auto& fs = self();
    if (const auto hiddenName = HiddenFiles::hiddenName(to); hiddenName && flags == 0) {
      fs.hide(from, *hiddenName);
      return 0;
    }
    // A removed file cannot be given a name again.
    if (fs.hidden_.find(from)) return -ENOENT;
    const auto source = fs.item(from);
    const auto destination = fs.item(to).getLocation();
    const auto policy = (flags & RENAME_NOREPLACE) != 0 ? fsp::ReplacementPolicy::Fail
                                                        : fsp::ReplacementPolicy::Overwrite;
    if (source.folderExists()) {
      source.moveFolder(destination, policy);
    } else {
      source.moveFile(destination, policy);
    }
    for (const auto& file : fs.handles_.all()) file->moved(source.getLocation(), destination);
    fs.changeTimes_.moved(from, to);
    return 0;
  });
}

int FuseFilesystem::utimens(const char* path, const struct timespec tv[2], fuse_file_info* fi) {
  return guarded("utimens", [&] {
    auto& fs = self();
    const auto target = fs.target(path, fi);
    if (target.orphan) {
      target.orphan->setTimes(tv);
      return 0;
    }
    if (tv != nullptr && tv[0].tv_nsec == UTIME_OMIT && tv[1].tv_nsec == UTIME_OMIT) return 0;
    // An access time alone is not kept, but it is a change all the same.
    if (tv == nullptr || tv[1].tv_nsec != UTIME_OMIT) {
      timespec now{};
      if (tv == nullptr || tv[1].tv_nsec == UTIME_NOW) clock_gettime(CLOCK_REALTIME, &now);
      const timespec& mtime = (tv == nullptr || tv[1].tv_nsec == UTIME_NOW) ? now : tv[1];
      target.item->setLastModified(fromTimespec(mtime));
    }
    fs.changeTimes_.changed(target.path);
    return 0;
  });
}

int FuseFilesystem::chmod(const char* path, mode_t mode, fuse_file_info* fi) {
  return guarded("chmod", [&] {
    auto& fs = self();
    const auto target = fs.target(path, fi);
    if (target.orphan) {
      target.orphan->setMode(mode);
      return 0;
    }
    target.item->setWritable((mode & 0222) != 0);
    fs.changeTimes_.changed(target.path);
    return 0;
  });
}

int FuseFilesystem::chown(const char* path, uid_t, gid_t, fuse_file_info* fi) {
  return guarded("chown", [&] {
    // The store keeps no owners; the name must still exist.
    const auto target = self().target(path, fi);
    if (target.orphan) return 0;
    const auto& item = *target.item;
    return item.getProvider()->exists(item.getLocation()) ? 0 : -ENOENT;
  });
}

int FuseFilesystem::getxattr(const char* path, const char* name, char* value, size_t size) {
  return guarded("getxattr", [&] {
    auto& fs = self();
    if (fs.hidden_.find(path)) return -ENODATA;
    const auto attributes = fs.item(path).getExtendedAttributes();
    if (!attributes.hasAttribute(name)) return -ENODATA;
    const std::string text = attributes.getAttribute(name);
    if (size == 0) return static_cast<int>(text.size());
    if (size < text.size()) return -ERANGE;
    std::memcpy(value, text.data(), text.size());
    return static_cast<int>(text.size());
  });
}

int FuseFilesystem::listxattr(const char* path, char* list, size_t size) {
  return guarded("listxattr", [&] {
    auto& fs = self();
    if (fs.hidden_.find(path)) return 0;
    const auto attributes = fs.item(path).getExtendedAttributes();
    std::string names;
    for (const auto& [name, text] : attributes.all()) {
      names.append(name).push_back('\0');
    }
    if (size == 0) return static_cast<int>(names.size());
    if (size < names.size()) return -ERANGE;
    std::memcpy(list, names.data(), names.size());
    return static_cast<int>(names.size());
  });
}

int FuseFilesystem::setxattr(const char*, const char*, const char*, size_t, int) {
  return -EOPNOTSUPP;
}

int FuseFilesystem::removexattr(const char*, const char*) { return -EOPNOTSUPP; }

}  // namespace storage::mount
