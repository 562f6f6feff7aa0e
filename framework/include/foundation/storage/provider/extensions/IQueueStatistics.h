// IQueueStatistics: a provider that queues work for its store and can report, on request,
// what is waiting. Hosts find it with dynamic_cast on the provider (as IFlushableFilesystem)
// to show a user how far write-behind has drained.
// queueStatistics() may be called from any thread at any time; it returns a compact JSON
// object (an empty object "{}" when nothing queues). The snapshot is consistent in itself but
// only a sample of a moving queue.
#pragma once

#include <string>

namespace foundation::storage::provider::extensions {

class IQueueStatistics {
 public:
  virtual ~IQueueStatistics() = default;
  std::string queueStatistics() { return doQueueStatistics(); }

 protected:
  virtual std::string doQueueStatistics() = 0;
};

}  // namespace foundation::storage::provider::extensions
