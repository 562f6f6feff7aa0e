// CacheResource: the local copy of the body of one overlay file.
//
// Every byte that the overlay reads from or writes to a file's cached body goes through the
// file's resource. Two kinds exist: FilesystemCacheResource keeps the body in one local file
// (its checkout path) with the byte ranges known to hold valid data, so a body can be cached
// sparsely as callers read it; NOOPCacheResource stores nothing and is used when content
// caching is disabled, so that every read goes to the inner store.
//
// Ownership: held through std::shared_ptr<CacheResource> by the file's WorkingFileEntry,
// which chooses the kind when it is made.
// Locks and threads: a resource has no lock of its own. Its owner serialises every call on
// one resource (under the entry's mutex); different resources may be used concurrently.
// Failures: no operation lets an exception escape except seek(), which throws
// std::runtime_error("Bad file descriptor") when the local file cannot be opened.
#pragma once

#include "core/cacheresources/RangeQuery.h"

#include <foundation/storage/provider/StorageIRI.h>
#include <foundation/storage/provider/extensions/ILocalReads.h>

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <ios>
#include <optional>

namespace storage::overlayprovider {

class CacheResource {
 public:
  virtual ~CacheResource() = default;

  // Renames the local body to the name of `newIri`, replacing a body already there.
  virtual void move(const foundation::storage::provider::StorageIRI& newIri) = 0;
  // Whether the local body file exists.
  virtual bool exists() const = 0;
  // The local body's modification time (see the kinds for the time when there is none).
  virtual boost::posix_time::ptime lastModified() const = 0;
  // Deletes the local body and forgets every cached range.
  virtual void doRemove() = 0;
  // The local body's path (empty when nothing is stored).
  virtual boost::filesystem::path path() const = 0;
  // Which part of [position, position + length) is cached.
  virtual RangeQuery queryRange(std::int64_t position, std::int64_t length) const = 0;
  // Reads up to `count` bytes at `position` into `buffer`; 0 when nothing can be read.
  // Does not consult the cached ranges: callers ask queryRange first.
  virtual std::int64_t read(std::int64_t position, char* buffer, std::int64_t count) = 0;
  // Where the `count` bytes at `position` lie in a local file that a reader may read itself,
  // when the resource keeps one; like read(), it does not consult the cached ranges.
  virtual std::optional<foundation::storage::provider::extensions::LocalBytes> localBytes(
      std::int64_t /*position*/, std::int64_t /*count*/) {
    return std::nullopt;
  }
  // Writes `count` bytes at `position` and records the range as cached.
  virtual void write(std::int64_t position, const char* data, std::int64_t count) = 0;
  // Moves the local file's position; returns the new position, or -1.
  virtual std::int64_t seek(std::int64_t offset, std::ios_base::seekdir direction) = 0;
  // Closes the local file; the next operation that needs it opens it again.
  virtual void close() = 0;
  // Flushes the local body to disk and stamps its access and modification times.
  virtual void sync(boost::posix_time::ptime lastModified) = 0;
  // Whether a write has failed (then every later read returns 0).
  virtual bool hasFailed() const = 0;
};

}  // namespace storage::overlayprovider
