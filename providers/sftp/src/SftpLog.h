// The sftp provider's diagnostic logger ("storage::sftpprovider"), made once on first use.
// Safe to use from any thread.
#pragma once

#include <foundation/log/DiagnosticLogger.h>

namespace foundation::storage::provider::sftp {

const log::diagnostic_logger& sftpLogger();

}  // namespace foundation::storage::provider::sftp
