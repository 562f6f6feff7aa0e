#include <foundation/storage/provider/file/ErrnoTranslation.h>

#include <cerrno>
#include <system_error>

namespace foundation::storage::provider::file {

ErrorCode errorCodeFromErrno(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return ErrorCode::NotFound;
    case EEXIST:
      return ErrorCode::AlreadyExists;
    case ENOTEMPTY:
      return ErrorCode::FolderNotEmpty;
    case EACCES:
    case EPERM:
      return ErrorCode::AccessDenied;
    case ENOSPC:
    case EDQUOT:
    // A file larger than the file system can hold: as for a full disk, the store has no room.
    case EFBIG:
      return ErrorCode::QuotaExceeded;
    default:
      return ErrorCode::IOError;
  }
}

Exception errnoException(int error, const StorageIRI& location, std::string_view operation,
                         const std::string& localPath) {
  std::string detail(operation);
  detail += " '" + localPath + "': ";
  // std::strerror may share a static buffer between threads; the category does not.
  detail += std::generic_category().message(error);
  return Exception(errorCodeFromErrno(error), location, detail);
}

}  // namespace foundation::storage::provider::file
