#include "OrphanFile.h"

#include "MountLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <vector>

namespace storage::mount {

namespace fsp = foundation::storage::provider;

namespace {

constexpr std::size_t kCopyBlock = 1 << 20;
constexpr std::size_t kHoleGrain = 64 << 10;

[[noreturn]] void throwErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

int makeUnnamedFile(const std::string& directory) {
  int fd = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  // File systems without O_TMPFILE: a named file, unlinked at once.
  std::string pattern = directory + "/.cachemount-orphan-XXXXXX";
  fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) throwErrno("making a local copy of a removed open file");
  ::unlink(pattern.c_str());
  return fd;
}

void writeFully(int fd, std::uint64_t offset, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::pwrite(fd, data, size, static_cast<off_t>(offset));
    if (n < 0) {
      if (errno == EINTR) continue;
      throwErrno("writing a removed open file");
    }
    data += n;
    size -= static_cast<std::size_t>(n);
    offset += static_cast<std::uint64_t>(n);
  }
}

bool allZero(const char* data, std::size_t size) {
  return std::all_of(data, data + size, [](char c) { return c == 0; });
}

// Writes the non-zero grains of `data`, so that zeros the store holds stay a hole here.
void writeSparse(int fd, std::uint64_t offset, const char* data, std::size_t size) {
  for (std::size_t done = 0; done < size; done += kHoleGrain) {
    const std::size_t n = std::min(kHoleGrain, size - done);
    if (!allZero(data + done, n)) writeFully(fd, offset + done, data + done, n);
  }
}

}  // namespace

std::shared_ptr<OrphanFile> OrphanFile::copyOf(fsp::ByteStream& source,
                                               const std::string& scratchDirectory,
                                               const timespec& lastModified, bool writable) {
  auto orphan = std::make_shared<OrphanFile>(makeUnnamedFile(scratchDirectory));
  std::vector<char> buffer(kCopyBlock);
  std::uint64_t size = 0;
  for (;;) {
    const long got = source.read(buffer.data(), static_cast<long>(buffer.size()));
    if (got <= 0) break;
    writeSparse(orphan->fd_, size, buffer.data(), static_cast<std::size_t>(got));
    size += static_cast<std::uint64_t>(got);
  }
  orphan->truncate(size);
  const timespec times[2] = {lastModified, lastModified};
  orphan->setTimes(times);
  orphan->setMode(writable ? 0644 : 0444);
  return orphan;
}

OrphanFile::~OrphanFile() {
  if (::close(fd_) != 0) {
    MOUNT_LOG(foundation::log::warning) << "closing the local copy of a removed file failed";
  }
}

std::size_t OrphanFile::read(std::uint64_t offset, char* buffer, std::size_t size) const {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::pread(fd_, buffer + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throwErrno("reading a removed open file");
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  return done;
}

void OrphanFile::write(std::uint64_t offset, const char* data, std::size_t size) {
  writeFully(fd_, offset, data, size);
}

void OrphanFile::append(const char* data, std::size_t size) {
  std::lock_guard lock(appendMutex_);
  struct stat st {};
  if (::fstat(fd_, &st) != 0) throwErrno("sizing a removed open file");
  writeFully(fd_, static_cast<std::uint64_t>(st.st_size), data, size);
}

void OrphanFile::truncate(std::uint64_t size) {
  if (size > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
    throw std::system_error(EFBIG, std::generic_category());
  }
  if (::ftruncate(fd_, static_cast<off_t>(size)) != 0) throwErrno("truncating a removed file");
}

void OrphanFile::setTimes(const timespec tv[2]) {
  if (::futimens(fd_, tv) != 0) throwErrno("setting the times of a removed file");
}

void OrphanFile::setMode(mode_t mode) {
  if (::fchmod(fd_, mode & 07777) != 0) throwErrno("setting the mode of a removed file");
}

void OrphanFile::sync(bool dataOnly) {
  // Nothing of it is kept beyond its last close; the call is answered for what it asks.
  if ((dataOnly ? ::fdatasync(fd_) : ::fsync(fd_)) != 0) throwErrno("syncing a removed file");
}

void OrphanFile::fillStat(Owner owner, struct stat& st) const {
  if (::fstat(fd_, &st) != 0) throwErrno("reading the attributes of a removed file");
  st.st_nlink = 0;
  st.st_uid = owner.uid;
  st.st_gid = owner.gid;
  st.st_ino = 0;
  st.st_dev = 0;
}

}  // namespace storage::mount
