#include <foundation/storage/provider/file/ErrnoTranslation.h>
#include <foundation/storage/provider/file/FileLogger.h>
#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/file/UniqueDir.h>
#include <foundation/storage/provider/file/UniqueFd.h>
#include <foundation/text/Unicode.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <memory>

namespace foundation::storage::provider::file {

const log::diagnostic_logger& fileLogger() {
  static const log::diagnostic_logger logger("storage::fileprovider");
  return logger;
}

namespace {

// Removes the entry `name` of the open folder `parentFd` and, for a folder, everything in
// it. Links are removed, never followed.
void removeTree(int parentFd, const std::string& name, const std::string& localPath,
                const StorageIRI& location) {
  struct stat status {};
  if (::fstatat(parentFd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    throw errnoException(errno, location, "lstat", localPath);
  }
  if (!S_ISDIR(status.st_mode)) {
    if (::unlinkat(parentFd, name.c_str(), 0) != 0) {
      throw errnoException(errno, location, "unlink", localPath);
    }
    return;
  }
  UniqueFd fd(::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid()) throw errnoException(errno, location, "open", localPath);
  DIR* dir = ::fdopendir(fd.get());
  if (!dir) throw errnoException(errno, location, "fdopendir", localPath);
  const int dirFd = fd.release();  // now owned by the DIR
  UniqueDir owner(dir);
  while (const dirent* entry = ::readdir(dir)) {
    const std::string child = entry->d_name;
    if (child == "." || child == "..") continue;
    removeTree(dirFd, child, localPath + "/" + child, location);
  }
  if (::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) != 0) {
    throw errnoException(errno, location, "rmdir", localPath);
  }
}

}  // namespace

FileProvider::FileProvider(const std::filesystem::path& root)
    : root_(root), watcher_(std::make_unique<InotifyWatcher>(root_, subscriptions_)) {}

FileProvider::~FileProvider() {
  try {
    // Polling threads call this provider's slots: stop them while the members still exist
    // (the base destructor would only do it after they are gone).
    shutdown();
  } catch (const std::exception& e) {
    FOUNDATION_LOG(fileLogger(), log::error)
        << "Stopping the background threads failed: " << e.what();
  }
}

void FileProvider::requireParentFolder(const StorageIRI& location) const {
  const StorageIRI parent = location.getParent();
  if (kindOf(root_.localPathOf(parent), parent) != EntryKind::Folder) {
    throw Exception(ErrorCode::NotFound, parent, "the parent folder does not exist");
  }
}

std::string FileProvider::prepareCreation(const StorageIRI& location) const {
  const std::string local = root_.resolve(location);
  if (!location.hasParent() || kindOf(local, location) != EntryKind::None) {
    throw Exception(ErrorCode::AlreadyExists, location);
  }
  requireParentFolder(location);
  return local;
}

void FileProvider::doCreateFile(const StorageIRI& location) const {
  const std::string local = prepareCreation(location);
  UniqueFd fd(::open(local.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!fd.valid()) throw errnoException(errno, location, "create", local);
}

void FileProvider::doCreateFolder(const StorageIRI& location) const {
  const std::string local = prepareCreation(location);
  if (::mkdir(local.c_str(), 0777) != 0) throw errnoException(errno, location, "mkdir", local);
}

void FileProvider::doCreateFolderRecursive(const StorageIRI& location) const {
  const std::string local = root_.resolve(location);
  if (!location.hasParent() || kindOf(local, location) != EntryKind::None) {
    throw Exception(ErrorCode::AlreadyExists, location);
  }
  StorageIRI current = rootLocation();
  for (const auto& component : location.getPathView()) {
    current = StorageIRI(current, component);
    const std::string path = root_.localPathOf(current);
    const EntryKind kind = kindOf(path, current);
    if (kind == EntryKind::File) {
      throw Exception(ErrorCode::AlreadyExists, current, "an ancestor is a file");
    }
    if (kind == EntryKind::None && ::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
      throw errnoException(errno, current, "mkdir", path);
    }
  }
}

bool FileProvider::doFileExists(const StorageIRI& location) const {
  return kindOf(root_.resolve(location), location) == EntryKind::File;
}

bool FileProvider::doFolderExists(const StorageIRI& location) const {
  return kindOf(root_.resolve(location), location) == EntryKind::Folder;
}

void FileProvider::doRemoveFile(const StorageIRI& location) const {
  const std::string local = root_.resolve(location);
  if (kindOf(local, location) != EntryKind::File) throw Exception(ErrorCode::NotFound, location);
  if (::unlink(local.c_str()) != 0) throw errnoException(errno, location, "unlink", local);
}

void FileProvider::doRemoveFolder(const StorageIRI& location) const {
  const std::string local = root_.resolve(location);
  if (!location.hasParent()) throw Exception(ErrorCode::OperationRefused, location, "the root");
  if (kindOf(local, location) != EntryKind::Folder) throw Exception(ErrorCode::NotFound, location);
  const bool link = isLink(local);
  if ((link ? ::unlink(local.c_str()) : ::rmdir(local.c_str())) != 0) {
    throw errnoException(errno, location, link ? "unlink" : "rmdir", local);
  }
}

void FileProvider::doRemoveFolderRecursively(const StorageIRI& location) const {
  const std::string local = root_.resolve(location);
  if (!location.hasParent()) throw Exception(ErrorCode::OperationRefused, location, "the root");
  if (kindOf(local, location) != EntryKind::Folder) throw Exception(ErrorCode::NotFound, location);
  const std::string parent = root_.localPathOf(location.getParent());
  UniqueFd parentFd(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parentFd.valid()) throw errnoException(errno, location, "open", parent);
  removeTree(parentFd.get(), text::toUtf8(location.getName()), local, location);
}

FileAttributes FileProvider::doGetFileAttributes(const StorageIRI& location) const {
  const LocalStatus entry = statEntry(root_.resolve(location), location);
  if (entry.kind != EntryKind::File) throw Exception(ErrorCode::NotFound, location);
  return fileAttributesOf(entry.status);
}

FolderAttributes FileProvider::doGetFolderAttributes(const StorageIRI& location) const {
  const LocalStatus entry = statEntry(root_.resolve(location), location);
  if (entry.kind != EntryKind::Folder) throw Exception(ErrorCode::NotFound, location);
  return folderAttributesOf(entry.status);
}

void FileProvider::doSetLastModified(const StorageIRI& location,
                                     const posix_time::ptime& time) const {
  const std::string local = root_.resolve(location);
  if (kindOf(local, location) == EntryKind::None) throw Exception(ErrorCode::NotFound, location);
  struct timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;  // leave the access time alone
  times[1] = toTimespec(time, location);
  if (::utimensat(AT_FDCWD, local.c_str(), times, 0) != 0) {
    throw errnoException(errno, location, "utimensat", local);
  }
}

// truncate(2) in place: an extension is a hole (nothing written, no space taken), a shrink
// frees the blocks; the watcher reports it as it reports a write (IN_MODIFY).
void FileProvider::doTruncateToSize(const StorageIRI& location, std::uint64_t size) const {
  const std::string local = root_.resolve(location);
  if (kindOf(local, location) != EntryKind::File) throw Exception(ErrorCode::NotFound, location);
  if (size > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
    throw errnoException(EFBIG, location, "truncate", local);
  }
  if (::truncate(local.c_str(), static_cast<off_t>(size)) != 0) {
    throw errnoException(errno, location, "truncate", local);
  }
}

void FileProvider::doWriteWholeFile(const StorageIRI& location, std::string_view bytes,
                                    const posix_time::ptime& lastModified) const {
  extensions::writeWholeFileThroughStream(*this, location, bytes, lastModified);
}

void FileProvider::doSetWritable(const StorageIRI& location, bool writable) const {
  const std::string local = root_.resolve(location);
  const LocalStatus entry = statEntry(local, location);
  if (entry.kind == EntryKind::None) throw Exception(ErrorCode::NotFound, location);
  mode_t mode = entry.status.st_mode & 07777;
  mode = writable ? (mode | S_IWUSR) : (mode & ~(S_IWUSR | S_IWGRP | S_IWOTH));
  if (::chmod(local.c_str(), mode) != 0) throw errnoException(errno, location, "chmod", local);
}

ExtendedAttributes FileProvider::doGetExtendedAttributes(const StorageIRI& location) const {
  const std::string local = root_.resolve(location);
  if (kindOf(local, location) == EntryKind::None) throw Exception(ErrorCode::NotFound, location);
  return readExtendedAttributes(local, location);
}

ProviderStorageInfo FileProvider::doGetProviderStorageInfo(const StorageIRI& location) const {
  root_.resolve(location);  // refuses foreign and escaping locations
  struct statvfs info {};
  if (::statvfs(root_.path().c_str(), &info) != 0) {
    throw errnoException(errno, location, "statvfs", root_.path());
  }
  const std::uint64_t block = info.f_frsize;
  return ProviderStorageInfo()
      .withStorageCapacity(std::uint64_t{info.f_blocks} * block)
      .withSpaceOccupied(std::uint64_t{info.f_blocks - info.f_bfree} * block);
}

bool FileProvider::doHasFeature(const ExtendedFeature& feature) const {
  switch (feature) {
    case ExtendedFeature::ReadWrite:
    case ExtendedFeature::RecursiveListing:
    case ExtendedFeature::ExtendedAttributes:
    case ExtendedFeature::ChangeEvents:
    case ExtendedFeature::SettableLastModified:
    case ExtendedFeature::RemoveWhileOpen:
      return true;
    default:
      return false;
  }
}

FilenameSensitivity FileProvider::doGetFilenameSensitivity(const StorageIRI&) const {
  return FilenameSensitivity::CaseSensitive;
}

void FileProvider::doShutdown() { watcher_->stop(); }

}  // namespace foundation::storage::provider::file
