// NOOPCacheResource: the cache resource of a file whose body is not cached.
//
// Used when content caching is disabled: it stores nothing, queryRange answers
// CACHING_DISABLED so that every read goes to the inner store, and hasFailed() is always true
// so that no caller ever reads from it.
//
// Ownership: made and held (std::shared_ptr<CacheResource>) by the file's WorkingFileEntry.
// Locks and threads: it has no state, so any thread may call it at any time.
// Failures: none; nothing throws (seek answers -1).
#pragma once

#include "core/cacheresources/CacheResource.h"

namespace storage::overlayprovider {

class NOOPCacheResource : public CacheResource {
 public:
  void move(const foundation::storage::provider::StorageIRI& newIri) override;
  bool exists() const override;
  // The current LOCAL time, to the second. (The filesystem resource answers UTC with
  // microseconds for a missing body; the two differ on purpose and callers of each rely on
  // their own kind's answer.)
  boost::posix_time::ptime lastModified() const override;
  void doRemove() override;
  boost::filesystem::path path() const override;
  RangeQuery queryRange(std::int64_t position, std::int64_t length) const override;
  std::int64_t read(std::int64_t position, char* buffer, std::int64_t count) override;
  void write(std::int64_t position, const char* data, std::int64_t count) override;
  std::int64_t seek(std::int64_t offset, std::ios_base::seekdir direction) override;
  void close() override;
  void sync(boost::posix_time::ptime lastModified) override;
  bool hasFailed() const override;
};

}  // namespace storage::overlayprovider
