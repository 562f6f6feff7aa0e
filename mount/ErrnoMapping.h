// ErrnoMapping: turns a refusal of the provider (or any other exception) into the errno a
// POSIX program expects from the same call on a local file system. Stateless functions,
// callable from any thread.
//
//   ErrorCode            errno       why
//   NotFound             ENOENT      location or its parent missing
//   AlreadyExists        EEXIST      O_EXCL creation, mkdir, RENAME_NOREPLACE onto a name
//   FolderNotEmpty       ENOTEMPTY   rmdir, or a rename onto a folder that has children
//   ResourceBusy         EBUSY       a file the store holds open
//   CacheSpaceExhausted  ENOSPC      the content cache's disk is full
//   QuotaExceeded        EDQUOT      the store's quota
//   InvalidName          EINVAL      a name the store cannot hold (ENAMETOOLONG is found
//                                    before the store is asked: a component over 255 bytes)
//   InvalidLocation      EINVAL      a path outside the store
//   AccessDenied         EACCES      a read-only file opened for writing, store permissions
//   OperationRefused     EPERM       the store refuses although the request is valid
//   NotSupported         EOPNOTSUPP  the store lacks the operation
//   Unavailable          EAGAIN      the store cannot answer now; a retry may succeed
//   IOError              EIO         the store's medium failed
//   Interrupted          EINTR       a long operation was interrupted
//   std::bad_alloc       ENOMEM
//   anything else        EIO         (logged: it is a fault, not a refusal)
#pragma once

#include <foundation/storage/provider/ErrorCode.h>

namespace storage::mount {

int errnoFor(foundation::storage::provider::ErrorCode code) noexcept;

// Call inside a catch block: the errno for the exception being handled. Exceptions that are
// not refusals are logged under `operation`.
int errnoForCurrentException(const char* operation) noexcept;

}  // namespace storage::mount
