// LocalFSCacheSpaceArbitrator: grants cache space while the filesystem that holds the cache
// directory would stay at most 98 % full.
//
// The filesystem's capacity is measured once, at construction; the free space is measured
// again on every hasSpaceFor, so bodies written by anyone (not only the cache) count. There
// are no accounts of its own, so releaseSpace() has nothing to do.
//
// canHold measures the file system itself (boost::filesystem::space) unless a disk measure is
// given: it answers whether the disk could take a growing body's bytes at all once nothing can
// be evicted, and figures given to shape the cache's share (tests) must not make it refuse.
//
// Arithmetic, kept on purpose: remaining = available - bytes is computed in unsigned 64-bit
// and wraps around when bytes > available, which makes the used share negative and grants
// the request. The cache thus never refuses a body merely for being larger than the whole
// free space; the write itself fails and is handled as any failed local write.
//
// Ownership: held by the ContentCache. Locks: none; the fields are fixed at construction, so
// any thread may call it at any time (as long as the measuring function is thread-safe, as
// boost::filesystem::space is).
// Failures: a directory whose space cannot be measured makes the constructor and
// hasSpaceFor throw (boost::filesystem::filesystem_error from the default measure).
#pragma once

#include "core/contentcache/ICacheSpaceArbitrator.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <functional>

namespace storage::overlayprovider {

class LocalFSCacheSpaceArbitrator : public ICacheSpaceArbitrator {
 public:
  using Measure = std::function<boost::filesystem::space_info(const boost::filesystem::path&)>;

  // Measures with boost::filesystem::space.
  explicit LocalFSCacheSpaceArbitrator(boost::filesystem::path cacheDirectory);
  // Measures with `measure` (tests give fixed figures).
  LocalFSCacheSpaceArbitrator(boost::filesystem::path cacheDirectory, Measure measure);

  // Measures the cache's share with `measure` and the disk's real room with `diskMeasure`.
  LocalFSCacheSpaceArbitrator(boost::filesystem::path cacheDirectory, Measure measure,
                              Measure diskMeasure);

  bool hasSpaceFor(std::uint64_t bytes) override;
  void releaseSpace() override;
  // Whether `bytes` fit in what the disk has available, measured with the disk measure (the
  // real file system unless one is given; figures given for the share do not bound it), with
  // no wrap-around: this is the hard limit.
  bool canHold(std::uint64_t bytes) override;

 private:
  boost::filesystem::path cacheDirectory_;
  Measure measure_;
  Measure diskMeasure_;
  std::uint64_t capacity_;
};

}  // namespace storage::overlayprovider
