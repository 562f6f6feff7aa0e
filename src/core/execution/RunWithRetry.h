// runWithRetry: runs one inner-store operation of the overlay's background replay, retrying
// while the store says it is unavailable, and reporting every failure in the log.
//
// Used inside the tasks given to the executors, on the worker's (or submitter's) thread.
// It never throws: the change has already been applied locally and there is nobody to report
// to, so a failure is logged and given up. Takes no lock.
#pragma once

#include "core/execution/UnavailableRetry.h"

#include <functional>
#include <string>

namespace storage::overlayprovider {

// Calls `body` up to three times, at once, with no pause:
// - it returns normally: done;
// - it throws foundation::storage::provider::Exception with ErrorCode::Unavailable: the
//   store may answer next time, so retried (records at exception and debug severity);
// - it throws that Exception with another code: the store refused for good; logged, given up;
// - it throws anything else (an empty body included): logged at error as
//   "Unexpected exception in <operationName> (attempt <n>)" counting from 0, then retried.
void runWithRetry(std::function<void()> body, const std::string& operationName);

enum class ReplayOutcome {
  Done,
  GivenUp,      // refused for good, failed unexpectedly three times, or the patience spent
  Interrupted,  // the provider shut down while the store was away: the change is still due
};

// As above, with `retry` deciding how long a store that answers Unavailable is waited for
// (see UnavailableRetry); says how it ended. Never throws either.
ReplayOutcome runWithRetry(std::function<void()> body, const std::string& operationName,
                           const UnavailableRetry& retry);

}  // namespace storage::overlayprovider
