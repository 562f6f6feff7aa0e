#include <foundation/storage/provider/instrumented/Latency.h>

#include <thread>

namespace foundation::storage::provider::instrumented {

void Latency::wait(std::chrono::microseconds delay, std::atomic<std::uint64_t>& applied) {
  if (delay.count() <= 0) return;
  applied.fetch_add(1, std::memory_order_relaxed);
  std::this_thread::sleep_for(delay);
}

}  // namespace foundation::storage::provider::instrumented
