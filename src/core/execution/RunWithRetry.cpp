#include "core/execution/RunWithRetry.h"

#include "core/execution/CurrentReplay.h"
#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>
#include <boost/exception/diagnostic_information.hpp>

namespace storage::overlayprovider {

namespace {

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
    // The queued change's serial ties the failure to the queue's other records of it.
    const auto serial = CurrentReplay::serial();
    OVERLAY_LOG(foundation::log::error)
        << "Unexpected exception in " << operationName << " (attempt " << retriesSoFar << ")"
        << (serial ? ", queued change #" + std::to_string(serial) : std::string());
  } catch (...) {
  }
  logCaughtException();
}

void noteWaiting(const std::string& operationName) noexcept {
  try {
    OVERLAY_LOG(foundation::log::warning)
        << "The store is unavailable; " << operationName << " is tried again until it answers";
  } catch (...) {
  }
}

ReplayOutcome givenUpOrInterrupted(const std::string& operationName,
                                   const UnavailableRetry& retry) noexcept {
  if (retry.stopped()) return ReplayOutcome::Interrupted;
  try {
    if (retry.isPatient()) {
      OVERLAY_LOG(foundation::log::error)
          << operationName << " was given up: the store stayed unavailable too long";
    }
  } catch (...) {
  }
  return ReplayOutcome::GivenUp;
}

}  // namespace

void runWithRetry(std::function<void()> body, const std::string& operationName) {
  runWithRetry(std::move(body), operationName, UnavailableRetry());
}

ReplayOutcome runWithRetry(std::function<void()> body, const std::string& operationName,
                           const UnavailableRetry& retry) {
  using foundation::storage::provider::ErrorCode;
  const auto since = UnavailableRetry::Clock::now();
  int unexpected = 0;
  bool waiting = false;
  for (int attempt = 1;; ++attempt) {
    try {
      body();
      return ReplayOutcome::Done;
    } catch (const foundation::storage::provider::Exception& e) {
      logCaughtException();
      if (e.getErrorCode() != ErrorCode::Unavailable) return ReplayOutcome::GivenUp;
      if (!waiting && retry.isPatient()) noteWaiting(operationName);
      waiting = true;
      if (!retry.again(attempt, since)) return givenUpOrInterrupted(operationName, retry);
    } catch (...) {
      logUnexpectedException(operationName, attempt - 1);
      // Not the store being away: with patience these alone are counted, three at most.
      const int tries = retry.isPatient() ? ++unexpected : attempt;
      if (tries >= UnavailableRetry::kImmediateAttempts) return ReplayOutcome::GivenUp;
    }
  }
}

}  // namespace storage::overlayprovider
