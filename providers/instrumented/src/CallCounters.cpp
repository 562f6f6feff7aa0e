#include <foundation/storage/provider/instrumented/CallCounters.h>

namespace foundation::storage::provider::instrumented {

namespace {

void add(CallCounters::Counts& counts, std::string_view operation, std::uint64_t n) {
  auto it = counts.find(operation);
  if (it == counts.end()) it = counts.emplace(std::string(operation), 0).first;
  it->second += n;
}

}  // namespace

void CallCounters::increment(std::string_view operation) {
  const auto thread = std::this_thread::get_id();
  std::lock_guard lock(mutex_);
  add(counts_, operation, 1);
  add(byThread_[thread], operation, 1);
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

CallCounters::Counts CallCounters::snapshot() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

CallCounters::Counts CallCounters::snapshotOn(std::thread::id thread) const {
  std::lock_guard lock(mutex_);
  const auto it = byThread_.find(thread);
  return it == byThread_.end() ? Counts() : it->second;
}

CallCounters::Counts CallCounters::snapshotExcept(std::thread::id thread) const {
  std::lock_guard lock(mutex_);
  Counts others;
  for (const auto& [id, counts] : byThread_) {
    if (id == thread) continue;
    for (const auto& [operation, count] : counts) add(others, operation, count);
  }
  return others;
}

void CallCounters::reset() {
  std::lock_guard lock(mutex_);
  counts_.clear();
  byThread_.clear();
}

}  // namespace foundation::storage::provider::instrumented
