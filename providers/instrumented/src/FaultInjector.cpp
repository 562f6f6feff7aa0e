#include <foundation/storage/provider/instrumented/FaultInjector.h>

namespace foundation::storage::provider::instrumented {

void FaultInjector::failNext(const std::string& operation, unsigned count, ErrorCode code) {
  arm(operation, count, Fault{false, code});
}

void FaultInjector::throwNextUnexpected(const std::string& operation, unsigned count) {
  arm(operation, count, Fault{true, ErrorCode::IOError});
}

void FaultInjector::arm(const std::string& operation, unsigned count, Fault fault) {
  std::lock_guard lock(mutex_);
  if (count == 0) {
    armed_.erase(operation);
  } else {
    armed_[operation] = Armed{count, fault};
  }
}

void FaultInjector::clear() {
  std::lock_guard lock(mutex_);
  armed_.clear();
}

std::optional<FaultInjector::Fault> FaultInjector::take(std::string_view operation) {
  std::lock_guard lock(mutex_);
  auto it = armed_.find(operation);
  if (it == armed_.end()) return std::nullopt;
  Fault fault = it->second.fault;
  if (--it->second.remaining == 0) armed_.erase(it);
  ++taken_;
  return fault;
}

std::uint64_t FaultInjector::taken() const {
  std::lock_guard lock(mutex_);
  return taken_;
}

}  // namespace foundation::storage::provider::instrumented
