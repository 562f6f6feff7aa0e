// How SFTP status codes map to the framework's ErrorCode (the table is in the provider's
// README). Pure functions; any thread.
#pragma once

#include <foundation/storage/provider/ErrorCode.h>

#include <cstdint>

namespace foundation::storage::provider::sftp {

namespace status {
constexpr std::uint32_t kOk = 0, kEof = 1, kNoSuchFile = 2, kPermissionDenied = 3, kFailure = 4,
                        kBadMessage = 5, kNoConnection = 6, kConnectionLost = 7, kOpUnsupported = 8;
}

// The code for a status without context. FAILURE is IOError here; the provider looks at the
// entry first where FAILURE means an existing entry or a folder that is not empty.
ErrorCode errorCodeOf(std::uint32_t status);

}  // namespace foundation::storage::provider::sftp
