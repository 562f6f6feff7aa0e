// FaultInjector: failures armed for the next calls of named operations, so that tests can
// make a store fail at an exact point and then recover.
//
// failNext(op, n, code) makes the next n calls of `op` fail with `code`;
// throwNextUnexpected(op, n) makes them throw an exception foreign to the framework. Arming
// an operation replaces what was still armed for it. take() is asked once per call and
// consumes one armed failure; taken() counts them.
//
// Ownership: held by Instrumentation, shared by the provider and its streams.
// Locks: one mutex of its own, held only inside each call. Thread safety: any thread; with
// n failures armed, exactly n of any number of concurrent calls get one.
#pragma once

#include <foundation/storage/provider/ErrorCode.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace foundation::storage::provider::instrumented {

class FaultInjector {
 public:
  struct Fault {
    // True: a std::runtime_error("injected failure"); false: a failure with `code`.
    bool unexpected = false;
    ErrorCode code = ErrorCode::IOError;
  };

  void failNext(const std::string& operation, unsigned count, ErrorCode code);
  void throwNextUnexpected(const std::string& operation, unsigned count);
  // Disarms every operation.
  void clear();
  // The failure armed for this call of `operation`, if any (consumed).
  std::optional<Fault> take(std::string_view operation);
  // How many armed failures calls have met since construction.
  std::uint64_t taken() const;

 private:
  struct Armed {
    unsigned remaining;
    Fault fault;
  };
  void arm(const std::string& operation, unsigned count, Fault fault);

  mutable std::mutex mutex_;
  std::map<std::string, Armed, std::less<>> armed_;
  std::uint64_t taken_ = 0;
};

}  // namespace foundation::storage::provider::instrumented
