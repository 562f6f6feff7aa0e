#include <foundation/storage/provider/instrumented/CallCounters.h>

namespace foundation::storage::provider::instrumented {

void CallCounters::increment(std::string_view operation) {
  std::lock_guard lock(mutex_);
  auto it = counts_.find(operation);
  if (it == counts_.end()) it = counts_.emplace(std::string(operation), 0).first;
  ++it->second;
}

std::uint64_t CallCounters::count(std::string_view operation) const {
  std::lock_guard lock(mutex_);
  auto it = counts_.find(operation);
  return it == counts_.end() ? 0 : it->second;
}

std::uint64_t CallCounters::total() const {
  std::lock_guard lock(mutex_);
  std::uint64_t sum = 0;
  for (const auto& [name, count] : counts_) sum += count;
  return sum;
}

std::map<std::string, std::uint64_t, std::less<>> CallCounters::snapshot() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

void CallCounters::reset() {
  std::lock_guard lock(mutex_);
  counts_.clear();
}

}  // namespace foundation::storage::provider::instrumented
