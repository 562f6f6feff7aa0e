#include "core/cacheresources/FilesystemCacheResource.h"

#include "core/cacheresources/CacheResourceLog.h"
#include "core/metadata/FileMetadata.h"
#include "core/support/OverlayLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>
#include <algorithm>
#include <boost/date_time/posix_time/conversion.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/exception/diagnostic_information.hpp>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace storage::overlayprovider {

namespace fs = boost::filesystem;

namespace {

// Whole seconds since the Unix epoch; nothing for a time that is not a date.
std::optional<std::int64_t> wholeSeconds(boost::posix_time::ptime time) {
  if (time.is_special()) return std::nullopt;
  static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
  return (time - epoch).total_seconds();
}

// Sets the access and modification times of `file` to `time` (whole seconds).
void stampTimes(const fs::path& file, boost::posix_time::ptime time) {
  const auto seconds = wholeSeconds(time);
  if (!seconds) throw std::invalid_argument("not a date time");
  const utimbuf times{static_cast<std::time_t>(*seconds), static_cast<std::time_t>(*seconds)};
  if (::utime(file.c_str(), &times) != 0) {
    throw std::system_error(errno, std::generic_category(), "utime");
  }
}

// Reads until `count` bytes, the end of the file or an error (thrown as std::system_error).
std::int64_t preadFully(int fd, char* buffer, std::int64_t count, std::int64_t position) {
  std::int64_t done = 0;
  while (done < count) {
    const ssize_t got = ::pread(fd, buffer + done, count - done, position + done);
    if (got == 0) break;  // end of file
    if (got < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "pread");
    if (got > 0) done += got;
  }
  return done;
}

int whenceOf(std::ios_base::seekdir direction) {
  if (direction == std::ios_base::cur) return SEEK_CUR;
  if (direction == std::ios_base::end) return SEEK_END;
  return SEEK_SET;
}

}  // namespace

FilesystemCacheResource::FilesystemCacheResource(const FileMetadata& metadata,
                                                 fs::path cacheDirectory)
    : iri_(metadata.getIRI()),
      sourceLastModified_(metadata.getLastModified()),
      cacheDirectory_(std::move(cacheDirectory)),
      checkoutPath_(cacheDirectory_ / cacheFileName(iri_)) {}

FilesystemCacheResource::FilesystemCacheResource(const std::shared_ptr<FileMetadata>& metadata,
                                                 fs::path cacheDirectory)
    : FilesystemCacheResource(*metadata, std::move(cacheDirectory)) {
  try {
    dropIfStale(metadata->getSize());
    if (exists()) recordWholeBody(metadata->getSize());
  } catch (...) {
    logFailure(foundation::log::error, "error", "Failure in checking file existence", false);
  }
}

FilesystemCacheResource::FilesystemCacheResource(const std::shared_ptr<FileMetadata>& metadata,
                                                 fs::path cacheDirectory,
                                                 const fs::path& sourceFile)
    : FilesystemCacheResource(*metadata, std::move(cacheDirectory)) {
  try {
    seedFrom(sourceFile, metadata->getSize());
  } catch (...) {
    logFailure(foundation::log::error, "error", "Failure in local cache writing", false);
  }
}

void FilesystemCacheResource::dropIfStale(std::uint64_t size) {
  if (!exists()) return;
  // A record without a time cannot vouch for the body, so the body is not trusted.
  const auto source = wholeSeconds(sourceLastModified_);
  boost::system::error_code error;
  const auto bytes = fs::file_size(checkoutPath_, error);
  if (!source || *source != *wholeSeconds(lastModified()) || error || bytes != size) doRemove();
}

void FilesystemCacheResource::recordWholeBody(std::uint64_t size) {
  if (size == 0) return;  // an empty range would claim a byte that does not exist
  recordWritten(0, static_cast<std::int64_t>(size));
}

void FilesystemCacheResource::seedFrom(const fs::path& sourceFile, std::uint64_t size) {
  if (!fs::exists(sourceFile)) return;
  fs::copy_file(sourceFile, checkoutPath_, fs::copy_options::overwrite_existing);
  fs::permissions(checkoutPath_, fs::owner_all);
  stampTimes(checkoutPath_, sourceLastModified_);
  recordWholeBody(size);
}

void FilesystemCacheResource::move(const foundation::storage::provider::StorageIRI& newIri) {
  fs::path newPath;
  try {
    newPath = cacheDirectory_ / cacheFileName(newIri);
    // Moving onto its own name must not delete the body it would then rename. (The native
    // text is compared: boost compares paths element by element, which costs more here than
    // the rest of the move outside the rename itself.)
    if (newPath.native() != checkoutPath_.native()) {
      // The rename replaces a body at the new name; with no body to carry along, one there
      // is deleted all the same, since it is not this file's.
      boost::system::error_code error;
      fs::rename(checkoutPath_, newPath, error);
      if (error == boost::system::errc::no_such_file_or_directory) {
        fs::remove(newPath);
      } else if (error) {
        throw fs::filesystem_error("rename", checkoutPath_, newPath, error);
      }
    }
  } catch (...) {
    logFailure(foundation::log::error, "error", "Failure in moving cached item", false);
  }
  if (!newPath.empty()) checkoutPath_ = std::move(newPath);
  iri_ = newIri;
}

bool FilesystemCacheResource::exists() const {
  boost::system::error_code ignored;
  return fs::exists(checkoutPath_, ignored);
}

boost::posix_time::ptime FilesystemCacheResource::lastModified() const {
  boost::system::error_code missing;
  const std::time_t time = fs::last_write_time(checkoutPath_, missing);
  if (missing) return boost::posix_time::microsec_clock::universal_time();
  return boost::posix_time::from_time_t(time);
}

void FilesystemCacheResource::keepToDescriptor() {
  keptToDescriptor_ = true;
  if (!descriptor_ || descriptor_->handle() == -1) failed_ = true;
}

void FilesystemCacheResource::doRemove() {
  descriptor_.reset();
  if (keptToDescriptor_) failed_ = true;
  cachedRanges_.clear();
  mayOverlap_ = false;
  try {
    fs::remove(checkoutPath_);  // a body already gone is no error (and costs no second call)
  } catch (...) {
    logFailure(foundation::log::debug, "debug", "Function doRemove failed", true);
  }
}

boost::filesystem::path FilesystemCacheResource::path() const { return checkoutPath_; }

// The first range, in start order, that holds `position`. While no range overlaps another it
// can only be the last one that starts at or before the position; after an extension into the
// next range (see recordWritten) an earlier, longer range may hold it instead.
FilesystemCacheResource::RangeMap::const_iterator FilesystemCacheResource::holderOf(
    std::int64_t position) const {
  const auto after = cachedRanges_.upper_bound(position);
  if (!mayOverlap_) {
    if (after == cachedRanges_.begin()) return cachedRanges_.end();
    const auto last = std::prev(after);
    return position < last->second ? last : cachedRanges_.end();
  }
  for (auto it = cachedRanges_.begin(); it != after; ++it) {
    if (position < it->second) return it;
  }
  return cachedRanges_.end();
}

// The gap runs from the end of the range that holds the position to the start of the first
// range that holds the request's end, or to the request's end when none does. Callers read
// locally only up to the gap's start, so every byte before it is cached; after an extension
// into a following range the gap's end may lie at or before its start.
RangeQuery FilesystemCacheResource::queryRange(std::int64_t position, std::int64_t length) const {
  const auto holder = holderOf(position);
  if (holder == cachedRanges_.end()) return {RangeStatus::NOT_CACHED, std::nullopt};
  if (length <= 0) return {RangeStatus::FULLY_CACHED, std::nullopt};
  const std::int64_t last = position + length;
  if (last <= holder->second) return {RangeStatus::FULLY_CACHED, std::nullopt};
  // The first range that holds the request's end. While ranges are apart it can only be the
  // last one that starts before that end, so a read of a sparse body stays logarithmic.
  auto candidate = cachedRanges_.lower_bound(last);
  if (!mayOverlap_ && candidate != cachedRanges_.begin()) candidate = std::prev(candidate);
  for (auto it = mayOverlap_ ? cachedRanges_.begin() : candidate; it != cachedRanges_.end(); ++it) {
    if (it->first >= last) break;
    if (last <= it->second)
      return {RangeStatus::PARTIALLY_CACHED, ByteRange{holder->second, it->first}};
  }
  return {RangeStatus::PARTIALLY_CACHED, ByteRange{holder->second, last}};
}

std::int64_t FilesystemCacheResource::readBack(std::int64_t position, char* buffer,
                                               std::int64_t count) const {
  const bool open = descriptor_ && descriptor_->handle() != -1;
  if (!open && keptToDescriptor_) return 0;
  const int fd = open ? descriptor_->handle() : ::open(checkoutPath_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  std::int64_t done = 0;
  try {
    done = preadFully(fd, buffer, count, position);
  } catch (...) {
    logFailure(foundation::log::error, "error", "Failure in local cache reading", true);
  }
  if (!open) ::close(fd);
  return done;
}

std::int64_t FilesystemCacheResource::read(std::int64_t position, char* buffer,
                                           std::int64_t count) {
  if (failed_) return 0;
  try {
    return preadFully(handle(), buffer, count, position);
  } catch (...) {
    logFailure(foundation::log::error, "error", "Failure in local cache reading", true);
    return 0;
  }
}

std::optional<foundation::storage::provider::extensions::LocalBytes>
FilesystemCacheResource::localBytes(std::int64_t position, std::int64_t count) {
  if (failed_) return std::nullopt;
  try {
    const int fd = handle();
    return foundation::storage::provider::extensions::LocalBytes{
        fd, position, static_cast<long>(count), descriptor_};
  } catch (...) {
    logFailure(foundation::log::error, "error", "Failure in local cache reading", true);
    return std::nullopt;
  }
}

void FilesystemCacheResource::write(std::int64_t position, const char* data, std::int64_t count) {
  try {
    const int fd = handle();
    std::int64_t written = 0;
    while (written < count) {
      const ssize_t put = ::pwrite(fd, data + written, count - written, position + written);
      if (put == 0) throw std::runtime_error("pwrite wrote nothing");
      if (put < 0 && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "pwrite");
      }
      if (put > 0) written += put;
    }
    recordWritten(position, position + written);
  } catch (...) {
    logFailure(foundation::log::error, "error", "Failure in local cache writing", true);
    failed_ = true;
  }
}

// A write that starts inside a range only extends that range: it is not merged with the ranges
// it reaches (a sequential writer, the common case, extends the last range and reaches none).
// A write that starts outside every range becomes a range of its own and is merged with its
// neighbours, from its predecessor to the end of the map, which also folds in any overlap an
// earlier extension left there. Ranges that touch are merged.
void FilesystemCacheResource::recordWritten(std::int64_t position, std::int64_t end) {
  if (end <= position) return;
  if (const auto holder = holderOf(position); holder != cachedRanges_.end()) {
    if (holder->second >= end) return;
    const auto extended = cachedRanges_.erase(holder, holder);  // the same range, writable
    extended->second = end;
    const auto next = std::next(extended);
    if (next != cachedRanges_.end() && next->first <= end) mayOverlap_ = true;
    return;
  }
  const auto [inserted, added] = cachedRanges_.emplace(position, end);
  if (!added) return;
  const bool first = inserted == cachedRanges_.begin();
  mergeFrom(first ? inserted : std::prev(inserted));
  if (first) mayOverlap_ = false;  // the merge walked the whole map
}

void FilesystemCacheResource::mergeFrom(RangeMap::iterator current) {
  for (auto next = std::next(current); next != cachedRanges_.end(); next = std::next(current)) {
    if (current->second < next->first) {
      current = next;
      continue;
    }
    current->second = std::max(current->second, next->second);
    cachedRanges_.erase(next);
  }
}

int FilesystemCacheResource::truncate(std::int64_t size, std::int64_t fileSize) {
  int fd = -1;
  try {
    fd = handle();
  } catch (...) {
    return EBADF;
  }
  while (::ftruncate(fd, static_cast<off_t>(size)) != 0) {
    if (errno != EINTR) return errno;
  }
  cachedRanges_.erase(cachedRanges_.lower_bound(size), cachedRanges_.end());
  for (auto& [start, end] : cachedRanges_) end = std::min(end, size);
  if (size > fileSize) recordWritten(fileSize, size);
  return 0;
}

std::int64_t FilesystemCacheResource::seek(std::int64_t offset, std::ios_base::seekdir direction) {
  return ::lseek(handle(), offset, whenceOf(direction));
}

void FilesystemCacheResource::close() { descriptor_.reset(); }

void FilesystemCacheResource::openDescriptor() noexcept {
  try {
    handle();
  } catch (...) {
  }
}

bool FilesystemCacheResource::nameIsOurs() const {
  if (!keptToDescriptor_) return true;
  if (!descriptor_ || descriptor_->handle() == -1) return false;
  struct stat open {};
  struct stat named {};
  return ::fstat(descriptor_->handle(), &open) == 0 && ::stat(checkoutPath_.c_str(), &named) == 0 &&
         open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

void FilesystemCacheResource::sync(boost::posix_time::ptime lastModified) {
  try {
    if (descriptor_ && descriptor_->handle() != -1) ::fsync(descriptor_->handle());
    if (nameIsOurs()) stampTimes(checkoutPath_, lastModified);
  } catch (...) {
    // A body that cannot be flushed or stamped is still usable; the next open re-checks it.
  }
}

bool FilesystemCacheResource::hasFailed() const { return failed_; }

bool FilesystemCacheResource::coversWhole(std::int64_t size) const {
  std::int64_t reach = 0;  // every byte before it is cached
  for (const auto& [start, end] : cachedRanges_) {
    if (reach >= size || start > reach) break;
    reach = std::max(reach, end);
  }
  return reach >= size;
}

std::map<std::int64_t, std::int64_t> FilesystemCacheResource::ranges() const {
  return cachedRanges_;
}

std::optional<std::int64_t> FilesystemCacheResource::firstCachedAfter(std::int64_t position) const {
  const auto next = cachedRanges_.upper_bound(position);
  if (next == cachedRanges_.end()) return std::nullopt;
  return next->first;
}

void FilesystemCacheResource::stamp(boost::posix_time::ptime time) {
  try {
    if (exists() && nameIsOurs()) stampTimes(checkoutPath_, time);
  } catch (...) {
    // As in sync: an unstamped body is judged again by the next open.
  }
}

// Opens the body on first use: read-write, created if missing, private to the user (0700),
// not inherited by child processes.
int FilesystemCacheResource::handle() {
  if (!descriptor_ && keptToDescriptor_) throw std::runtime_error("the body left with its owner");
  if (!descriptor_) {
    const int fd = ::open(checkoutPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0700);
    if (fd == -1) throw std::runtime_error("Bad file descriptor");
    try {
      descriptor_ =
          std::make_shared<boost::iostreams::file_descriptor>(fd, boost::iostreams::close_handle);
    } catch (...) {
      ::close(fd);
      throw;
    }
  }
  return descriptor_->handle();
}

// Call only from inside a catch block when `withDetail` is set.
void FilesystemCacheResource::logFailure(unsigned severity, const char* level, const char* message,
                                         bool withDetail) const {
  OVERLAY_LOG(severity) << makeLogRecord(level, message, iri_, checkoutPath_);
  if (withDetail) {
    OVERLAY_LOG(foundation::log::exception)
        << "Exception caught: " << boost::current_exception_diagnostic_information();
  }
}

}  // namespace storage::overlayprovider
