// FilesystemCacheResource: a file's body cached in one local file, with the byte ranges of
// that file known to hold valid data.
//
// The local file (the checkout path) is <cache directory>/cacheFileName(iri). It may be
// sparse: bytes are written as callers fetch them from the inner store, and only the ranges
// recorded here are trusted; queryRange tells a caller which part of a request it can read
// locally and where the first missing stretch is. A local file left by an earlier run is
// trusted as a whole body on opening only when its time (whole seconds) and size are the
// record's: a whole body is stamped with the record's time when its last stream closes.
// Deliberate deviation: a body newer than the record is not trusted either. One that was
// being written when the process stopped, or one left by another file at the same location
// (a file moved onto it, or one whose time was set into the past), would otherwise be served
// as this file's bytes.
//
// Ownership: made and held (std::shared_ptr<CacheResource>) by the file's WorkingFileEntry;
// it owns its range map and its descriptor. It never deletes the local file on destruction:
// the body outlives the resource so that a later open can reuse it; only doRemove() and a
// stale body found on opening delete it.
// Locks: none of its own. The owner serialises every call on one resource (under the entry's
// mutex); distinct resources may be used from different threads at once, provided they do not
// share a location.
// Threads: any thread, one at a time (see above).
// Failures: logged on the overlay's channel, never thrown, except by seek() (see below). A
// failed write sets the failure flag, after which read() returns 0.
#pragma once

#include "core/cacheresources/CacheResource.h"

#include <boost/filesystem/path.hpp>
#include <boost/iostreams/device/file_descriptor.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>

namespace storage::overlayprovider {

class FileMetadata;

class FilesystemCacheResource : public CacheResource {
 public:
  // Both constructors read `metadata` (never null) once, through its getters (taking its
  // lock), and keep nothing of it but its location and last-modified time.
  //
  // Opens the cached body of `metadata`'s file under `cacheDirectory`. A local body older
  // (in whole seconds) than the record's last-modified time is stale and deleted; a record
  // without a valid time counts as newer than any body. A body that remains is taken as
  // complete: [0, record size) is recorded as cached.
  FilesystemCacheResource(const std::shared_ptr<FileMetadata>& metadata,
                          boost::filesystem::path cacheDirectory);
  // Seeds the body from `sourceFile` (when it exists): copies it over the checkout path,
  // makes the copy private (0700, as bodies this class creates), stamps it with the record's
  // last-modified time and records [0, record size).
  FilesystemCacheResource(const std::shared_ptr<FileMetadata>& metadata,
                          boost::filesystem::path cacheDirectory,
                          const boost::filesystem::path& sourceFile);

  // Renames the body to newIri's name, replacing a body already there. A descriptor that is
  // open stays valid and follows the file. Failures are logged; the new name is adopted anyway.
  void move(const foundation::storage::provider::StorageIRI& newIri) override;
  bool exists() const override;
  // The body's modification time; the current UTC time (microseconds) when there is no body.
  boost::posix_time::ptime lastModified() const override;
  // Deletes the body, forgets every range and also closes the descriptor: otherwise later
  // writes would go to the unlinked file and be lost, while the ranges claimed them cached.
  void doRemove() override;
  boost::filesystem::path path() const override;
  RangeQuery queryRange(std::int64_t position, std::int64_t length) const override;
  // One pread on the body (after opening it if needed); 0 after a failed write or on error.
  std::int64_t read(std::int64_t position, char* buffer, std::int64_t count) override;
  // The body's descriptor (opened if needed), held open by the answer; nothing after a failed
  // write or when the body cannot be opened.
  std::optional<foundation::storage::provider::extensions::LocalBytes> localBytes(
      std::int64_t position, std::int64_t count) override;
  // The bytes the body file holds at `position`, also after a failed write: through the open
  // descriptor when there is one, so that bytes written through it can still be read after
  // the body's name (or its whole folder) was deleted from outside; by the path otherwise.
  // Never creates a body. Returns the bytes read (fewer at the end of the file, 0 on error).
  std::int64_t readBack(std::int64_t position, char* buffer, std::int64_t count) const;
  // pwrite, then records [position, position + written): a write that starts inside a range
  // extends that range only, so ranges may overlap until a write that starts outside every
  // range merges its neighbours (see recordWritten).
  void write(std::int64_t position, const char* data, std::int64_t count) override;
  // Opens the body if needed (0700, created if missing) and moves its offset; -1 if lseek
  // fails. Throws std::runtime_error("Bad file descriptor") if the body cannot be opened.
  std::int64_t seek(std::int64_t offset, std::ios_base::seekdir direction) override;
  void close() override;
  // Opens the body now (created if missing) rather than at its first use, so that it stays
  // usable through the descriptor if its name goes meanwhile. A failure is left for that use
  // to report.
  void openDescriptor() noexcept;
  // The open descriptor (null while none is), shared: a holder keeps the body open, as the
  // journal does until it has synced what was written through it.
  std::shared_ptr<boost::iostreams::file_descriptor> descriptor() const { return descriptor_; }
  // fsync (if open), then stamps access and modification times with `lastModified` (whole
  // seconds). Failures are ignored.
  void sync(boost::posix_time::ptime lastModified) override;
  bool hasFailed() const override;

  // The file, `fileSize` bytes long, is truncated to `size`: ftruncate of the body in place.
  // A shrink forgets the ranges beyond `size`; an extension leaves a hole (no bytes written,
  // no blocks taken) that reads as zeros and is recorded as cached, since the file's new bytes
  // are zeros. Bytes of a partial body between its end and `fileSize` stay uncached. Returns 0,
  // or the errno of the failed call, and then nothing has changed (EFBIG: the cache's file
  // system cannot hold a file of that size).
  int truncate(std::int64_t size, std::int64_t fileSize);
  // The owner left the content cache: from now on the body is used only through the
  // descriptor already open, never opened again by its path, where the body of a file that
  // replaced this one may lie by then (two owners would then share one body file, and one
  // could cut or overwrite bytes that the other's queued writes still read). Without an open
  // descriptor, or once doRemove closes it, the body counts as failed: reads return 0 and the
  // owner keeps its writes in memory.
  void keepToDescriptor();
  // Whether the whole of a body of `size` bytes is cached (always true for an empty body).
  bool coversWhole(std::int64_t size) const;
  // A copy of the cached ranges, start -> end (half-open).
  std::map<std::int64_t, std::int64_t> ranges() const;
  // The start of the first cached range that begins after `position`, if any. For a position
  // that is not cached, that is the next cached byte.
  std::optional<std::int64_t> firstCachedAfter(std::int64_t position) const;
  // Stamps access and modification times with `time` (whole seconds), without flushing, when
  // the body exists; failures are ignored (the next open re-checks the body anyway).
  void stamp(boost::posix_time::ptime time);

 private:
  using RangeMap = std::map<std::int64_t, std::int64_t>;

  FilesystemCacheResource(const FileMetadata& metadata, boost::filesystem::path cacheDirectory);
  void dropIfStale(std::uint64_t size);
  void recordWholeBody(std::uint64_t size);
  void seedFrom(const boost::filesystem::path& sourceFile, std::uint64_t size);
  int handle();
  // Whether the name still names the body this resource uses (always, until keepToDescriptor):
  // stamping by the name must not stamp another owner's body.
  bool nameIsOurs() const;
  RangeMap::const_iterator holderOf(std::int64_t position) const;
  void recordWritten(std::int64_t position, std::int64_t end);
  // Walks from `current` to the end of the map, merging each range into the one before it
  // when they overlap or touch.
  void mergeFrom(RangeMap::iterator current);
  void logFailure(unsigned severity, const char* level, const char* message, bool withDetail) const;

  foundation::storage::provider::StorageIRI iri_;  // replaced by move()
  boost::posix_time::ptime sourceLastModified_;    // the record's time when opened
  boost::filesystem::path cacheDirectory_;
  boost::filesystem::path checkoutPath_;  // cacheDirectory_ / cacheFileName(iri_)
  std::shared_ptr<boost::iostreams::file_descriptor> descriptor_;  // null until needed
  bool failed_ = false;
  // start -> end, half-open, never empty. Their union is what is cached.
  RangeMap cachedRanges_;
  // Some range may overlap or touch the next one (an extension reached it), so the holder of
  // a position must be searched for from the first range.
  bool mayOverlap_ = false;
  bool keptToDescriptor_ = false;  // see keepToDescriptor
};

}  // namespace storage::overlayprovider
