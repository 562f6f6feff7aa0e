#include <foundation/log/DiagnosticLogger.h>
#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/file/ErrnoTranslation.h>
#include <foundation/storage/provider/file/FileByteStream.h>
#include <foundation/storage/provider/file/FileLogger.h>

#include <unistd.h>

#include <cerrno>

namespace foundation::storage::provider::file {

namespace {

template <class Failure>
void checkUsable(int fd, long count) {
  if (fd < 0 || count < 0) throw Failure(ErrorCode::OperationRefused);
}

}  // namespace

FileByteStream::FileByteStream(int fd, std::string localPath)
    : fd_(fd), localPath_(std::move(localPath)) {}

FileByteStream::~FileByteStream() {
  if (fd_ < 0) return;
  try {
    close();
  } catch (const ByteStreamCloseFailure& failure) {
    FOUNDATION_LOG(fileLogger(), log::warning)
        << "Closing '" << localPath_ << "' on destruction failed: " << failure.getErrorCode();
  }
}

long FileByteStream::read(char* buffer, long count) {
  checkUsable<ByteStreamReadFailure>(fd_, count);
  if (count == 0) return 0;
  ssize_t got;
  do {
    got = ::read(fd_, buffer, static_cast<std::size_t>(count));
  } while (got < 0 && errno == EINTR);
  if (got < 0) throw ByteStreamReadFailure(errorCodeFromErrno(errno));
  return got == 0 ? -1 : static_cast<long>(got);
}

long FileByteStream::write(const char* buffer, long count) {
  checkUsable<ByteStreamWriteFailure>(fd_, count);
  long done = 0;
  while (done < count) {  // a write may be partial; the contract writes all n bytes
    const ssize_t put = ::write(fd_, buffer + done, static_cast<std::size_t>(count - done));
    if (put < 0) {
      if (errno == EINTR) continue;
      throw ByteStreamWriteFailure(errorCodeFromErrno(errno));
    }
    done += static_cast<long>(put);
  }
  return count;
}

long FileByteStream::seek(long offset, std::ios_base::seekdir direction) {
  checkUsable<ByteStreamSeekFailure>(fd_, 0);
  int whence = SEEK_SET;
  if (direction == std::ios_base::cur) whence = SEEK_CUR;
  if (direction == std::ios_base::end) whence = SEEK_END;
  const off_t position = ::lseek(fd_, static_cast<off_t>(offset), whence);
  if (position < 0) {
    // A target before the start is bad input rather than a fault of the medium.
    throw ByteStreamSeekFailure(errno == EINVAL ? ErrorCode::OperationRefused
                                                : errorCodeFromErrno(errno));
  }
  return static_cast<long>(position);
}

void FileByteStream::close() {
  checkUsable<ByteStreamCloseFailure>(fd_, 0);
  const int fd = fd_;
  fd_ = -1;  // Linux releases the descriptor even when close reports an error
  if (::close(fd) != 0 && errno != EINTR) {
    throw ByteStreamCloseFailure(errorCodeFromErrno(errno));
  }
}

}  // namespace foundation::storage::provider::file
