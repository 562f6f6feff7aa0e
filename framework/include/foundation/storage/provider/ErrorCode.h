// ErrorCode: why a storage operation was refused or failed.
//
// The numeric values are part of the contract between providers and hosts: never renumber.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

namespace foundation::storage::provider {

enum class ErrorCode : std::uint32_t {
  // A non-recursive folder removal met a folder that still has children.
  FolderNotEmpty = 0,
  // A name holds a character that names may not hold (control characters, "/", "." or "..").
  InvalidName = 1,
  // The store refuses the operation although source and destination are valid
  // (for instance a move into a folder that is not writable).
  OperationRefused = 2,
  // Something already exists at the location to be created, or at a destination that may
  // not be replaced.
  AlreadyExists = 3,
  // The location (or, for a creation or a move, its parent folder) does not exist, or it is
  // not of the kind the operation needs (a file operation on a folder and vice versa).
  NotFound = 4,
  // A write would exceed the space that the store's cache has available.
  CacheSpaceExhausted = 5,
  // The location is in use (a file held open) and cannot be removed or moved now.
  ResourceBusy = 6,
  // The store denies access to the location (permissions, read-only entries).
  AccessDenied = 7,
  // A write would exceed the store's quota.
  QuotaExceeded = 8,
  // The store cannot answer now (quota information unavailable, backend unreachable);
  // the same request may succeed when retried.
  Unavailable = 9,
  // A location that does not belong to the store (escapes its root, wrong scheme, bad text).
  InvalidLocation = 10,
  // The operation is not supported by this store.
  NotSupported = 11,
  // An input/output error of the store's medium.
  IOError = 12,
  // The caller interrupted a long operation.
  Interrupted = 13,
};

// The enumerator's name ("NotFound"), or "ErrorCode(<n>)" for a value outside the set.
std::string_view toString(ErrorCode code);
std::ostream& operator<<(std::ostream& out, ErrorCode code);

}  // namespace foundation::storage::provider
