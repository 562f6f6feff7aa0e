// Instrumentation: the counters, faults and delays of one InstrumentedProvider, shared with
// the streams it opened (which may outlive it). Each call passes through one of the three
// gates below, in this order: count the call, wait the delay (not for a local query), throw
// an armed failure. A failed call is still counted (it reached the store's front door).
//
// Ownership: std::shared_ptr, held by the provider and by each of its streams.
// Locks: those of its parts (each its own; never two at once). Thread safety: any thread.
#pragma once

#include <foundation/storage/provider/StorageIRI.h>
#include <foundation/storage/provider/instrumented/CallCounters.h>
#include <foundation/storage/provider/instrumented/CallLog.h>
#include <foundation/storage/provider/instrumented/FaultInjector.h>
#include <foundation/storage/provider/instrumented/Latency.h>

#include <string_view>

namespace foundation::storage::provider::instrumented {

struct Instrumentation {
  // Gate of a provider call: an armed failure is thrown as Exception(code, location).
  void enterCall(std::string_view operation, const StorageIRI& location);
  // Gate of a provider call that a remote store answers from what it holds in memory
  // (capabilities, name rules, its own cache): counted and failed like enterCall, never
  // delayed, since the delay stands for the network.
  void enterLocalQuery(std::string_view operation, const StorageIRI& location);
  // Gate of a stream call: an armed failure is thrown as the ByteStream failure kind of the
  // operation ("streamRead" -> ByteStreamReadFailure, ...), since that is what streams throw.
  void enterStreamCall(std::string_view operation);

  CallCounters counters;
  CallLog log;
  FaultInjector faults;
  Latency latency;
};

}  // namespace foundation::storage::provider::instrumented
