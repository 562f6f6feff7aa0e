#include "core/support/ThreadName.h"

#include <pthread.h>

#include <cstring>

namespace storage::overlayprovider {

void nameThisThread(const char* name) noexcept {
  // The kernel refuses names of 16 bytes or more (the terminating zero counts).
  char kept[16] = {};
  std::strncpy(kept, name, sizeof kept - 1);
  ::pthread_setname_np(::pthread_self(), kept);
}

}  // namespace storage::overlayprovider
