#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/instrumented/Instrumentation.h>

#include <stdexcept>

namespace foundation::storage::provider::instrumented {

namespace {

[[noreturn]] void throwUnexpected() { throw std::runtime_error("injected failure"); }

[[noreturn]] void throwStreamFailure(std::string_view operation, ErrorCode code) {
  if (operation == "streamRead") throw ByteStreamReadFailure(code);
  if (operation == "streamWrite") throw ByteStreamWriteFailure(code);
  if (operation == "streamSeek") throw ByteStreamSeekFailure(code);
  throw ByteStreamCloseFailure(code);
}

void throwArmedCallFailure(FaultInjector& faults, std::string_view operation,
                           const StorageIRI& location) {
  if (auto fault = faults.take(operation)) {
    if (fault->unexpected) throwUnexpected();
    throw Exception(fault->code, location, "injected failure");
  }
}

}  // namespace

void Instrumentation::enterCall(std::string_view operation, const StorageIRI& location) {
  counters.increment(operation);
  latency.beforeCall();
  throwArmedCallFailure(faults, operation, location);
}

void Instrumentation::enterLocalQuery(std::string_view operation, const StorageIRI& location) {
  counters.increment(operation);
  throwArmedCallFailure(faults, operation, location);
}

void Instrumentation::enterStreamCall(std::string_view operation) {
  counters.increment(operation);
  latency.beforeStreamCall();
  if (auto fault = faults.take(operation)) {
    if (fault->unexpected) throwUnexpected();
    throwStreamFailure(operation, fault->code);
  }
}

}  // namespace foundation::storage::provider::instrumented
