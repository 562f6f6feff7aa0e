#include <foundation/storage/provider/file/ErrnoTranslation.h>
#include <foundation/storage/provider/file/FileByteStream.h>
#include <foundation/storage/provider/file/FileProvider.h>

#include <fcntl.h>

#include <cerrno>

namespace foundation::storage::provider::file {

namespace {

int openFlags(const ByteStreamOpenOptions& options) {
  // Truncating or appending needs write access even when the caller did not ask for it.
  const bool write = options.write || options.truncate || options.append;
  int flags = O_CLOEXEC;
  flags |= write ? (options.read ? O_RDWR : O_WRONLY) : O_RDONLY;
  if (options.create) flags |= O_CREAT;
  if (options.truncate) flags |= O_TRUNC;
  if (options.append) flags |= O_APPEND;
  return flags;
}

}  // namespace

ByteStreamPtr FileProvider::doOpenStream(const StorageIRI& location,
                                         const ByteStreamOpenOptions& options) const {
  const std::string local = root_.resolve(location);
  const EntryKind kind = kindOf(local, location);
  if (kind == EntryKind::Folder) throw Exception(ErrorCode::NotFound, location, "a folder");
  if (kind == EntryKind::None) {
    if (options.mustExist()) throw Exception(ErrorCode::NotFound, location);
    requireParentFolder(location);
  }
  const int fd = ::open(local.c_str(), openFlags(options), 0666);
  if (fd < 0) throw errnoException(errno, location, "open", local);
  return std::make_unique<FileByteStream>(fd, local);
}

ByteStreamPtr FileProvider::doOpenReadOnlyStream(const StorageIRI& location) const {
  const std::string local = root_.resolve(location);
  if (kindOf(local, location) != EntryKind::File) throw Exception(ErrorCode::NotFound, location);
  const int fd = ::open(local.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw errnoException(errno, location, "open", local);
  return std::make_unique<FileByteStream>(fd, local);
}

}  // namespace foundation::storage::provider::file
