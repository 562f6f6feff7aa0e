#include <foundation/storage/provider/instrumented/CallLog.h>

namespace foundation::storage::provider::instrumented {

void CallLog::record(Call call) {
  if (!enabled()) return;
  std::lock_guard lock(mutex_);
  calls_.push_back(std::move(call));
}

std::vector<CallLog::Call> CallLog::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

}  // namespace foundation::storage::provider::instrumented
