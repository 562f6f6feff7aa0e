// The overlay's diagnostic logger: one channel, "storage::overlayprovider", made once on
// first use and shared by every class of the overlay. Safe to use from any thread.
#pragma once

#include <foundation/log/DiagnosticLogger.h>

namespace storage::overlayprovider {

const foundation::log::diagnostic_logger& overlayLogger();

// For a catch block: writes `message` at error severity (unless it is null), then
// "Exception caught: " with the caught exception's diagnostic text at the exception-detail
// severity. Never throws, so it may be used in destructors and thread bodies.
void logCaughtException(const char* message) noexcept;

}  // namespace storage::overlayprovider

// Shorthands for the overlay's records: OVERLAY_LOG(foundation::log::error) << "...";
#define OVERLAY_LOG(severity) FOUNDATION_LOG(::storage::overlayprovider::overlayLogger(), severity)
