// The one place where the file provider turns a C library error number into the framework's
// error model. Every failed system call of the provider goes through these functions, so
// that one errno always means one ErrorCode:
//   ENOENT, ENOTDIR  -> NotFound         EEXIST          -> AlreadyExists
//   ENOTEMPTY        -> FolderNotEmpty   EACCES, EPERM   -> AccessDenied
//   ENOSPC, EDQUOT   -> QuotaExceeded    anything else   -> IOError
// Free functions without state; callable from any thread.
#pragma once

#include <foundation/storage/provider/ErrorCode.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/StorageIRI.h>

#include <string>
#include <string_view>

namespace foundation::storage::provider::file {

ErrorCode errorCodeFromErrno(int error);

// An Exception for `error` at `location`; the detail names the operation, the local path and
// the system's message ("open '/srv/a.txt': No such file or directory").
Exception errnoException(int error, const StorageIRI& location, std::string_view operation,
                         const std::string& localPath);

}  // namespace foundation::storage::provider::file
