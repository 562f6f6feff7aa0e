#include <foundation/storage/provider/instrumented/Latency.h>

#include <thread>

namespace foundation::storage::provider::instrumented {

void Latency::wait(std::chrono::microseconds delay) {
  if (delay.count() > 0) std::this_thread::sleep_for(delay);
}

}  // namespace foundation::storage::provider::instrumented
