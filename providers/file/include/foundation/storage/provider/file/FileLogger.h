// The file provider's logging channel, "storage::fileprovider". Made on first use; safe to
// use from any thread.
#pragma once

#include <foundation/log/DiagnosticLogger.h>

namespace foundation::storage::provider::file {

const log::diagnostic_logger& fileLogger();

}  // namespace foundation::storage::provider::file
