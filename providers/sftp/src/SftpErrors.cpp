#include "SftpErrors.h"

namespace foundation::storage::provider::sftp {

ErrorCode errorCodeOf(std::uint32_t status) {
  switch (status) {
    case 2:   // NO_SUCH_FILE
    case 10:  // NO_SUCH_PATH (version 5 and later, like the codes below)
    case 19:  // NOT_A_DIRECTORY
    case 21:  // LINK_LOOP
      return ErrorCode::NotFound;
    case 3:   // PERMISSION_DENIED
    case 12:  // WRITE_PROTECT
    case 16:  // UNKNOWN_PRINCIPAL
      return ErrorCode::AccessDenied;
    case 5:   // BAD_MESSAGE: OpenSSH's answer to EINVAL and ENAMETOOLONG
    case 20:  // INVALID_FILENAME
      return ErrorCode::InvalidName;
    case 6:   // NO_CONNECTION
    case 7:   // CONNECTION_LOST
    case 13:  // NO_MEDIA
      return ErrorCode::Unavailable;
    case 8:  // OP_UNSUPPORTED
      return ErrorCode::NotSupported;
    case 11:  // FILE_ALREADY_EXISTS
      return ErrorCode::AlreadyExists;
    case 14:  // NO_SPACE_ON_FILESYSTEM
    case 15:  // QUOTA_EXCEEDED
      return ErrorCode::QuotaExceeded;
    case 17:  // LOCK_CONFLICT
    case 22:  // CANNOT_DELETE
      return ErrorCode::ResourceBusy;
    case 18:  // DIR_NOT_EMPTY
      return ErrorCode::FolderNotEmpty;
    default:  // FAILURE, EOF where data was due, INVALID_HANDLE, unknown codes
      return ErrorCode::IOError;
  }
}

}  // namespace foundation::storage::provider::sftp
