// The mem provider's diagnostic logger ("storage::memprovider"), made once on first use.
// Safe to use from any thread.
#pragma once

#include <foundation/log/DiagnosticLogger.h>

namespace foundation::storage::provider::mem {

const log::diagnostic_logger& memLogger();

}  // namespace foundation::storage::provider::mem
