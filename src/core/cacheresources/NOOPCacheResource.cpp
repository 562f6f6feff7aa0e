#include "core/cacheresources/NOOPCacheResource.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace storage::overlayprovider {

void NOOPCacheResource::move(const foundation::storage::provider::StorageIRI&) {}

bool NOOPCacheResource::exists() const { return false; }

boost::posix_time::ptime NOOPCacheResource::lastModified() const {
  return boost::posix_time::second_clock::local_time();
}

void NOOPCacheResource::doRemove() {}

boost::filesystem::path NOOPCacheResource::path() const { return {}; }

RangeQuery NOOPCacheResource::queryRange(std::int64_t, std::int64_t) const {
  return {RangeStatus::CACHING_DISABLED, std::nullopt};
}

std::int64_t NOOPCacheResource::read(std::int64_t, char*, std::int64_t) { return 0; }

void NOOPCacheResource::write(std::int64_t, const char*, std::int64_t) {}

std::int64_t NOOPCacheResource::seek(std::int64_t, std::ios_base::seekdir) { return -1; }

void NOOPCacheResource::close() {}

void NOOPCacheResource::sync(boost::posix_time::ptime) {}

bool NOOPCacheResource::hasFailed() const { return true; }

}  // namespace storage::overlayprovider
