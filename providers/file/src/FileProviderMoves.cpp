#include <foundation/storage/provider/file/ErrnoTranslation.h>
#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/file/UniqueFd.h>
#include <foundation/text/Unicode.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace foundation::storage::provider::file {

namespace {

constexpr std::size_t kCopyChunk = 1 << 20;

// Renames `from` onto `to`; with noReplace an existing `to` is refused atomically
// (AlreadyExists). False when the two lie on different file systems (EXDEV).
bool renameEntry(const std::string& from, const std::string& to, bool noReplace,
                 const StorageIRI& fromLocation, const StorageIRI& toLocation) {
  int result = noReplace
                   ? ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE)
                   : ::rename(from.c_str(), to.c_str());
  if (result != 0 && noReplace && (errno == EINVAL || errno == ENOSYS)) {
    // The file system cannot refuse atomically; the caller has checked `to` just before.
    result = ::rename(from.c_str(), to.c_str());
  }
  if (result == 0) return true;
  if (errno == EXDEV) return false;
  throw errnoException(errno, errno == ENOENT ? fromLocation : toLocation, "rename",
                       from + " -> " + to);
}

// lstat kind: a link counts as a file, so merging never writes through one.
EntryKind linkKind(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return EntryKind::None;
  return S_ISDIR(status.st_mode) ? EntryKind::Folder : EntryKind::File;
}

bool isEmptyFolder(const std::string& path, const StorageIRI& location) {
  return entryNames(path, location).empty();
}

// Copies with copy_file_range; false when the kernel cannot do it for these two files.
bool copyInKernel(int in, int out, const StorageIRI& location, const std::string& path) {
  for (bool first = true;; first = false) {
    const ssize_t copied = ::copy_file_range(in, nullptr, out, nullptr, kCopyChunk, 0);
    if (copied == 0) return true;
    if (copied > 0) continue;
    if (first && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
      return false;
    }
    throw errnoException(errno, location, "copy_file_range", path);
  }
}

void copyInProcess(int in, int out, const StorageIRI& location, const std::string& path) {
  std::vector<char> buffer(64 * 1024);
  for (;;) {
    const ssize_t got = ::read(in, buffer.data(), buffer.size());
    if (got == 0) return;
    if (got < 0) {
      if (errno == EINTR) continue;
      throw errnoException(errno, location, "read", path);
    }
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = ::write(out, buffer.data() + done, static_cast<std::size_t>(got - done));
      if (put < 0 && errno != EINTR) throw errnoException(errno, location, "write", path);
      if (put > 0) done += put;
    }
  }
}

}  // namespace

void FileProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to,
                              const ReplacementPolicy& policy) const {
  const std::string source = root_.resolve(from);
  const std::string target = root_.resolve(to);
  if (kindOf(source, from) != EntryKind::File) throw Exception(ErrorCode::NotFound, from);
  if (from.getPath() == to.getPath()) return;
  requireParentFolder(to);
  const EntryKind existing = kindOf(target, to);
  if (existing == EntryKind::Folder) throw Exception(ErrorCode::AlreadyExists, to, "a folder");
  const bool replace = allowsReplacing(policy);
  if (existing == EntryKind::File && !replace) throw Exception(ErrorCode::AlreadyExists, to);
  if (!renameEntry(source, target, !replace, from, to)) {
    copyBytes(source, target, replace, from, to);  // another file system inside the root
    if (::unlink(source.c_str()) != 0) throw errnoException(errno, from, "unlink", source);
  }
}

void FileProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                                const ReplacementPolicy& policy) const {
  const std::string source = root_.resolve(from);
  const std::string target = root_.resolve(to);
  if (!from.hasParent()) throw Exception(ErrorCode::OperationRefused, from, "the root");
  if (kindOf(source, from) != EntryKind::Folder) throw Exception(ErrorCode::NotFound, from);
  if (from.getPath() == to.getPath()) return;
  if (from.isAncestorOf(to)) {
    throw Exception(ErrorCode::OperationRefused, to, "the destination lies inside the source");
  }
  requireParentFolder(to);
  const EntryKind existing = kindOf(target, to);
  if (existing == EntryKind::File) throw Exception(ErrorCode::AlreadyExists, to, "a file");
  bool noReplace = true;
  if (existing == EntryKind::Folder) {
    if (!allowsReplacing(policy)) throw Exception(ErrorCode::AlreadyExists, to);
    if (policy == ReplacementPolicy::Merge) {
      if (to.isAncestorOf(from)) {
        throw Exception(ErrorCode::OperationRefused, to, "cannot merge into an ancestor");
      }
      checkMergeable(source, target, to);
      mergeFolder(source, target, to);
      return;
    }
    if (!isEmptyFolder(target, to)) throw Exception(ErrorCode::AlreadyExists, to, "not empty");
    noReplace = false;  // rename(2) replaces an empty folder atomically
  }
  if (!renameEntry(source, target, noReplace, from, to)) {
    throw Exception(ErrorCode::IOError, to, "cannot move a folder across file systems");
  }
}

void FileProvider::checkMergeable(const std::string& from, const std::string& to,
                                  const StorageIRI& toLocation) const {
  for (const std::string& name : entryNames(from, toLocation)) {
    const StorageIRI child(toLocation, text::toUtf16(name));
    const EntryKind source = linkKind(from + "/" + name);
    const EntryKind target = linkKind(to + "/" + name);
    if (target == EntryKind::None) continue;
    if (source != target) {
      throw Exception(ErrorCode::AlreadyExists, child, "a file and a folder meet in the merge");
    }
    if (source == EntryKind::Folder) checkMergeable(from + "/" + name, to + "/" + name, child);
  }
}

void FileProvider::mergeFolder(const std::string& from, const std::string& to,
                               const StorageIRI& toLocation) const {
  for (const std::string& name : entryNames(from, toLocation)) {
    const StorageIRI child(toLocation, text::toUtf16(name));
    const std::string source = from + "/" + name;
    const std::string target = to + "/" + name;
    if (linkKind(source) == EntryKind::Folder && linkKind(target) == EntryKind::Folder) {
      mergeFolder(source, target, child);
    } else if (!renameEntry(source, target, false, child, child)) {
      throw Exception(ErrorCode::IOError, child, "cannot merge across file systems");
    }
  }
  if (::rmdir(from.c_str()) != 0) throw errnoException(errno, toLocation, "rmdir", from);
}

void FileProvider::doCopyFile(const StorageIRI& from, const StorageIRI& to,
                              const ReplacementPolicy& policy) const {
  const std::string source = root_.resolve(from);
  const std::string target = root_.resolve(to);
  if (kindOf(source, from) != EntryKind::File) throw Exception(ErrorCode::NotFound, from);
  requireParentFolder(to);
  const EntryKind existing = kindOf(target, to);
  if (existing == EntryKind::Folder) throw Exception(ErrorCode::AlreadyExists, to, "a folder");
  const bool replace = allowsReplacing(policy);
  if (existing == EntryKind::File && !replace) throw Exception(ErrorCode::AlreadyExists, to);
  if (from.getPath() == to.getPath()) return;  // the file already holds its own bytes
  copyBytes(source, target, replace, from, to);
}

void FileProvider::copyBytes(const std::string& from, const std::string& to, bool replace,
                             const StorageIRI& fromLocation, const StorageIRI& toLocation) const {
  UniqueFd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!in.valid()) throw errnoException(errno, fromLocation, "open", from);
  struct stat source {
  }, target{};
  if (::fstat(in.get(), &source) == 0 && ::stat(to.c_str(), &target) == 0 &&
      source.st_dev == target.st_dev && source.st_ino == target.st_ino) {
    return;  // two names of one file: truncating the target would empty the source
  }
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | (replace ? 0 : O_EXCL);
  UniqueFd out(::open(to.c_str(), flags, 0666));
  if (!out.valid()) throw errnoException(errno, toLocation, "open", to);
  if (!copyInKernel(in.get(), out.get(), toLocation, to)) {
    copyInProcess(in.get(), out.get(), toLocation, to);
  }
  if (::close(out.release()) != 0 && errno != EINTR) {
    throw errnoException(errno, toLocation, "close", to);
  }
}

}  // namespace foundation::storage::provider::file
