// IFlushableFilesystem: a provider that buffers work and can be asked to finish it.
// flushFilesystem() returns when every change accepted before the call has reached the
// provider's backing store.
#pragma once

namespace foundation::storage::provider::extensions {

class IFlushableFilesystem {
 public:
  virtual ~IFlushableFilesystem() = default;
  void flushFilesystem() { doFlushFilesystem(); }

 protected:
  virtual void doFlushFilesystem() = 0;
};

}  // namespace foundation::storage::provider::extensions
