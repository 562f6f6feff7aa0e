// FuseFilesystem: changes to the tree and to attributes (mkdir, rmdir, unlink, rename,
// utimens, chmod, chown, extended attributes).
#include "FuseFilesystem.h"

#include "FuseFilesystemSupport.h"
#include "StatConversion.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace storage::mount {

namespace fsp = foundation::storage::provider;

int FuseFilesystem::unlink(const char* path) {
  return guarded("unlink", [&] {
    self().item(path).removeFile();
    return 0;
  });
}

int FuseFilesystem::mkdir(const char* path, mode_t) {
  return guarded("mkdir", [&] {
    self().item(path).createFolder();
    return 0;
  });
}

int FuseFilesystem::rmdir(const char* path) {
  return guarded("rmdir", [&] {
    self().item(path).removeFolder();
    return 0;
  });
}

int FuseFilesystem::rename(const char* from, const char* to, unsigned int flags) {
  return guarded("rename", [&] {
    if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) return -EINVAL;
    const auto& fs = self();
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
    return 0;
  });
}

int FuseFilesystem::utimens(const char* path, const struct timespec tv[2], fuse_file_info*) {
  return guarded("utimens", [&] {
    if (tv != nullptr && tv[1].tv_nsec == UTIME_OMIT) return 0;
    timespec now{};
    if (tv == nullptr || tv[1].tv_nsec == UTIME_NOW) clock_gettime(CLOCK_REALTIME, &now);
    const timespec& mtime = (tv == nullptr || tv[1].tv_nsec == UTIME_NOW) ? now : tv[1];
    self().item(path).setLastModified(fromTimespec(mtime));
    return 0;
  });
}

int FuseFilesystem::chmod(const char* path, mode_t mode, fuse_file_info*) {
  return guarded("chmod", [&] {
    self().item(path).setWritable((mode & 0222) != 0);
    return 0;
  });
}

int FuseFilesystem::chown(const char* path, uid_t, gid_t, fuse_file_info*) {
  return guarded("chown", [&] {
    // The store keeps no owners; the name must still exist.
    const auto target = self().item(path);
    return target.getProvider()->exists(target.getLocation()) ? 0 : -ENOENT;
  });
}

int FuseFilesystem::getxattr(const char* path, const char* name, char* value, size_t size) {
  return guarded("getxattr", [&] {
    const auto attributes = self().item(path).getExtendedAttributes();
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
    const auto attributes = self().item(path).getExtendedAttributes();
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
