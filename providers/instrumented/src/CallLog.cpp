#include <foundation/storage/provider/instrumented/CallLog.h>

namespace foundation::storage::provider::instrumented {

void CallLog::record(Call call) {
  if (!enabled()) return;
  std::lock_guard lock(mutex_);
  if (tagger_) call.tag = tagger_();
  calls_.push_back(std::move(call));
}

void CallLog::setTagger(std::function<std::uint64_t()> tagger) {
  std::lock_guard lock(mutex_);
  tagger_ = std::move(tagger);
}

std::vector<CallLog::Call> CallLog::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

}  // namespace foundation::storage::provider::instrumented
