// ICacheSpaceArbitrator: decides whether the content cache may store more bytes locally.
//
// The content cache asks before it lets a body grow on the local disk (hasSpaceFor) and tells
// the arbitrator when it has evicted an entry (releaseSpace), so an arbitrator that keeps its
// own accounts can update them. When nothing can be evicted, canHold says whether a growing
// body may still take its bytes (going over the cache's share) without filling the disk.
//
// Ownership: held by the ContentCache (std::shared_ptr or std::unique_ptr), which calls it.
// Locks and threads: each implementation states its own; callers must not assume any.
#pragma once

#include <cstdint>

namespace storage::overlayprovider {

class ICacheSpaceArbitrator {
 public:
  virtual ~ICacheSpaceArbitrator() = default;

  // Whether `bytes` more bytes may be stored in the cache.
  virtual bool hasSpaceFor(std::uint64_t bytes) = 0;
  // The cache has just evicted an entry.
  virtual void releaseSpace() = 0;
  // Whether the disk could take `bytes` more at all, beyond the cache's share: the last word
  // on a body that grows while nothing can be evicted. By default it always could.
  virtual bool canHold(std::uint64_t bytes) {
    (void)bytes;
    return true;
  }
};

}  // namespace storage::overlayprovider
