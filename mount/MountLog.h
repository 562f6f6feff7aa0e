// The mount command's diagnostic logger: one channel, "storage::mount", made on first use and
// shared by every class of the command. Safe to use from any thread.
#pragma once

#include <foundation/log/DiagnosticLogger.h>

namespace storage::mount {

const foundation::log::diagnostic_logger& mountLogger();

// For a catch block: writes "<what> failed" at error severity with the caught exception's
// text. Never throws, so thread bodies, FUSE callbacks and destructors may call it.
void logCaughtException(const char* what) noexcept;

}  // namespace storage::mount

#define MOUNT_LOG(severity) FOUNDATION_LOG(::storage::mount::mountLogger(), severity)
