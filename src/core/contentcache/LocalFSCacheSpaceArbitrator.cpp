#include "core/contentcache/LocalFSCacheSpaceArbitrator.h"

namespace storage::overlayprovider {

namespace {

// The share of the filesystem still free may fall to 2 %.
constexpr long double kMaxUsedPercent = 98.0L;

boost::filesystem::space_info measureFilesystem(const boost::filesystem::path& directory) {
  return boost::filesystem::space(directory);  // throws when it cannot be measured
}

}  // namespace

LocalFSCacheSpaceArbitrator::LocalFSCacheSpaceArbitrator(boost::filesystem::path cacheDirectory)
    : LocalFSCacheSpaceArbitrator(std::move(cacheDirectory), measureFilesystem) {}

LocalFSCacheSpaceArbitrator::LocalFSCacheSpaceArbitrator(boost::filesystem::path cacheDirectory,
                                                         Measure measure)
    : LocalFSCacheSpaceArbitrator(std::move(cacheDirectory), std::move(measure),
                                  measureFilesystem) {}

LocalFSCacheSpaceArbitrator::LocalFSCacheSpaceArbitrator(boost::filesystem::path cacheDirectory,
                                                         Measure measure, Measure diskMeasure)
    : cacheDirectory_(std::move(cacheDirectory)),
      measure_(std::move(measure)),
      diskMeasure_(std::move(diskMeasure)),
      capacity_(measure_(cacheDirectory_).capacity) {}

bool LocalFSCacheSpaceArbitrator::hasSpaceFor(std::uint64_t bytes) {
  const std::uint64_t available = measure_(cacheDirectory_).available;
  const std::uint64_t remaining = available - bytes;  // wraps when bytes > available
  const long double usedPercent =
      100.0L - static_cast<long double>(remaining) / static_cast<long double>(capacity_) * 100.0L;
  return kMaxUsedPercent >= usedPercent;
}

void LocalFSCacheSpaceArbitrator::releaseSpace() {}

bool LocalFSCacheSpaceArbitrator::canHold(std::uint64_t bytes) {
  return bytes <= diskMeasure_(cacheDirectory_).available;
}

}  // namespace storage::overlayprovider
