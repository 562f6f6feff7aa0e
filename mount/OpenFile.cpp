#include "OpenFile.h"

#include "MountLog.h"

#include <algorithm>
#include <cerrno>
#include <ios>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace storage::mount {

namespace {

long asStreamCount(std::size_t size) {
  if (size > static_cast<std::size_t>(std::numeric_limits<long>::max())) {
    throw std::length_error("request larger than a stream call takes");
  }
  return static_cast<long>(size);
}

}  // namespace

namespace fsp = foundation::storage::provider;

OpenFile::OpenFile(fsp::StorageItem file, fsp::ByteStreamPtr stream, bool appendOnly)
    : file_(std::move(file)), stream_(std::move(stream)), appendOnly_(appendOnly) {}

OpenFile::OpenFile(fsp::StorageItem file, std::shared_ptr<OrphanFile> orphan, bool appendOnly)
    : file_(std::move(file)), orphan_(std::move(orphan)), appendOnly_(appendOnly) {}

OpenFile::~OpenFile() {
  try {
    close();
  } catch (...) {
    logCaughtException("closing a file left open");
  }
}

std::size_t OpenFile::read(std::uint64_t offset, char* buffer, std::size_t size) {
  std::lock_guard lock(mutex_);
  if (orphan_) return orphan_->read(offset, buffer, size);
  if (!stream_) throw std::system_error(EBADF, std::generic_category());
  stream_->seek(static_cast<long>(offset), std::ios_base::beg);
  std::size_t done = 0;
  while (done < size) {
    const long got = stream_->read(buffer + done, asStreamCount(size - done));
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

std::optional<fsp::extensions::LocalBytes> OpenFile::readLocally(std::uint64_t offset,
                                                                 std::size_t size) {
  std::lock_guard lock(mutex_);
  if (orphan_) return std::nullopt;
  if (!stream_) throw std::system_error(EBADF, std::generic_category());
  auto* local = dynamic_cast<fsp::extensions::ILocalReads*>(stream_.get());
  if (local == nullptr) return std::nullopt;
  stream_->seek(static_cast<long>(offset), std::ios_base::beg);
  auto located = local->readLocally(asStreamCount(size));
  if (located && located->keepsOpen &&
      std::find(keptOpen_.begin(), keptOpen_.end(), located->keepsOpen) == keptOpen_.end()) {
    keptOpen_.push_back(located->keepsOpen);
  }
  return located;
}

void OpenFile::write(std::uint64_t offset, const char* data, std::size_t size) {
  std::lock_guard lock(mutex_);
  if (orphan_) {
    appendOnly_ ? orphan_->append(data, size) : orphan_->write(offset, data, size);
    return;
  }
  if (!stream_) throw std::system_error(EBADF, std::generic_category());
  if (appendOnly_) {
    stream_->seek(0, std::ios_base::end);
  } else {
    stream_->seek(static_cast<long>(offset), std::ios_base::beg);
  }
  stream_->write(data, asStreamCount(size));
}

void OpenFile::close() {
  std::lock_guard lock(mutex_);
  orphan_.reset();
  if (!stream_) return;
  auto stream = std::move(stream_);
  stream->close();
}

}  // namespace storage::mount

namespace storage::mount {

bool OpenFile::isAt(const fsp::StorageIRI& location) {
  std::lock_guard lock(mutex_);
  return !orphan_ && file_.getLocation() == location;
}

std::shared_ptr<OrphanFile> OpenFile::orphan() {
  std::lock_guard lock(mutex_);
  return orphan_;
}

fsp::StorageItem OpenFile::item() {
  std::lock_guard lock(mutex_);
  return file_;
}

void OpenFile::becomeOrphanLocked(std::shared_ptr<OrphanFile> orphan) {
  orphan_ = std::move(orphan);
  if (!stream_) return;
  auto stream = std::move(stream_);
  try {
    stream->close();
  } catch (...) {
    // Its bytes are in the copy already; the name it wrote to is gone.
    logCaughtException("closing the stream of a removed file");
  }
}

void OpenFile::leaveOrphanLocked() {
  try {
    stream_ = file_.openStream(fsp::ByteStreamOpenOptions::readWrite());
    orphan_.reset();
  } catch (...) {
    // A file that cannot be opened for writing now stays served by its copy.
    logCaughtException("opening again a file whose removal failed");
  }
}

void OpenFile::moved(const fsp::StorageIRI& from, const fsp::StorageIRI& to) {
  std::lock_guard lock(mutex_);
  const auto& path = file_.getLocation().getPath();
  const auto& prefix = from.getPath();
  if (path == prefix) {
    file_ = fsp::StorageItem(file_, to.getPath());
  } else if (path.size() > prefix.size() && path.compare(0, prefix.size(), prefix) == 0 &&
             path[prefix.size()] == u'/') {
    file_ = fsp::StorageItem(file_, to.getPath() + path.substr(prefix.size()));
  }
}

}  // namespace storage::mount
