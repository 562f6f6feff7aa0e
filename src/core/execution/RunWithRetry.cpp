#include "core/execution/RunWithRetry.h"

#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>
#include <boost/exception/diagnostic_information.hpp>

namespace storage::overlayprovider {

namespace {

constexpr int kMaxAttempts = 3;

// Both helpers must be called from inside a catch block: they describe the exception being
// handled. A failure to log is dropped, since runWithRetry must not throw and there is no
// other place left to report it.
void logCaughtException() noexcept {
  try {
    const std::string detail = boost::current_exception_diagnostic_information(true);
    OVERLAY_LOG(foundation::log::exception) << "Exception caught: " << detail;
    OVERLAY_LOG(foundation::log::debug) << detail;
  } catch (...) {
  }
}

void logUnexpectedException(const std::string& operationName, int retriesSoFar) noexcept {
  try {
    OVERLAY_LOG(foundation::log::error)
        << "Unexpected exception in " << operationName << " (attempt " << retriesSoFar << ")";
  } catch (...) {
  }
  logCaughtException();
}

}  // namespace

void runWithRetry(std::function<void()> body, const std::string& operationName) {
  using foundation::storage::provider::ErrorCode;
  for (int attempt = 1;; ++attempt) {
    if (attempt > kMaxAttempts) {
      return;
    }
    try {
      body();
      return;
    } catch (const foundation::storage::provider::Exception& e) {
      logCaughtException();
      if (e.getErrorCode() != ErrorCode::Unavailable) {
        return;
      }
    } catch (...) {
      logUnexpectedException(operationName, attempt - 1);
    }
  }
}

}  // namespace storage::overlayprovider
