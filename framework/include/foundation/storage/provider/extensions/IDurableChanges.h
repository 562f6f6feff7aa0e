// IDurableChanges: a provider that keeps the changes it has accepted in a local journal before
// they reach its backing store, and can be asked to make them durable there: when
// syncChanges() returns, every change accepted before the call survives a crash of the
// process or of the machine and reaches the store after a restart. A host calls it where a
// program asks for fsync and the store need not hold the change yet; flushFilesystem
// (IFlushableFilesystem) is the stronger promise. Hosts find it with dynamic_cast on the
// provider. A provider that keeps no journal answers by flushing instead.
#pragma once

namespace foundation::storage::provider::extensions {

class IDurableChanges {
 public:
  virtual ~IDurableChanges() = default;
  void syncChanges() { doSyncChanges(); }

 protected:
  virtual void doSyncChanges() = 0;
};

}  // namespace foundation::storage::provider::extensions
