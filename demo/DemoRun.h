// DemoRun: one run of the workload against a fresh in-memory store made slow by the
// instrumented wrapper (a stand-in for a remote store), either directly or through an
// "overlay" provider obtained from the registry. Afterwards it checks that the in-memory
// store holds exactly what the workload wrote, and keeps what it measured.
//
// Runs on the caller's thread; owns its stores for the length of run().
#pragma once

#include "OperationTimings.h"

#include <foundation/storage/provider/ProviderRegistry.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace overlaydemo {

struct RunResult {
  // The workload's operations, as its caller waited for them.
  OperationTimings timings;
  // From the workload's end until the store held all of it: the overlay's flush (zero for the
  // direct run, whose calls are done when they return).
  std::chrono::nanoseconds drain{0};
  // Calls that reached the slow store, by operation name (instrumented counters), in all and
  // by the time the workload returned (the rest were still queued behind it).
  std::map<std::string, std::uint64_t, std::less<>> innerCalls;
  std::uint64_t innerTotal = 0;
  std::uint64_t innerTotalWhenCallerDone = 0;
  // Wrong answers during the workload and differences found in the store afterwards.
  std::vector<std::string> problems;
};

// The workload straight against the slow store.
RunResult runDirect(std::chrono::microseconds latency);
// The workload through registry.open(u"overlay", <slow store root>), then a flush.
RunResult runThroughOverlay(const foundation::storage::provider::ProviderRegistry& registry,
                            std::chrono::microseconds latency);

}  // namespace overlaydemo
