#include "ErrnoMapping.h"

#include "MountLog.h"

#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>

#include <array>
#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

namespace storage::mount {

namespace fsp = foundation::storage::provider;

int errnoFor(fsp::ErrorCode code) noexcept {
  using E = fsp::ErrorCode;
  static constexpr std::array<std::pair<E, int>, 14> kTable{{
      {E::FolderNotEmpty, ENOTEMPTY},
      {E::InvalidName, EINVAL},
      {E::OperationRefused, EPERM},
      {E::AlreadyExists, EEXIST},
      {E::NotFound, ENOENT},
      {E::CacheSpaceExhausted, ENOSPC},
      {E::ResourceBusy, EBUSY},
      {E::AccessDenied, EACCES},
      {E::QuotaExceeded, EDQUOT},
      {E::Unavailable, EAGAIN},
      {E::InvalidLocation, EINVAL},
      {E::NotSupported, EOPNOTSUPP},
      {E::IOError, EIO},
      {E::Interrupted, EINTR},
  }};
  for (const auto& [known, number] : kTable) {
    if (known == code) return number;
  }
  return EIO;
}

int errnoForCurrentException(const char* operation) noexcept {
  try {
    throw;
  } catch (const fsp::Exception& refusal) {
    MOUNT_LOG(foundation::log::debug) << operation << ": " << refusal.what();
    return errnoFor(refusal.getErrorCode());
  } catch (const fsp::ByteStreamFailure& failure) {
    MOUNT_LOG(foundation::log::debug) << operation << ": stream failure " << failure.getErrorCode();
    return errnoFor(failure.getErrorCode());
  } catch (const std::system_error& error) {
    // Ours (a name too long, an unknown handle) or the system's: already an errno.
    return error.code().value() != 0 ? error.code().value() : EIO;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  } catch (...) {
    logCaughtException(operation);
    return EIO;
  }
}

}  // namespace storage::mount
