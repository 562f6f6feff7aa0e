// FileByteStream: the file provider's ByteStream, directly over one file descriptor that it
// owns (opened by FileProvider; append mode is the descriptor's O_APPEND).
//
// Reads and writes go straight to the descriptor (no buffering in the process), so a second
// stream on the same file sees a write as soon as write() has returned. Failed calls raise the
// operation's ByteStreamFailure kind with the ErrorCode of the errno translation. After
// close() every operation, a second close() included, raises its kind with OperationRefused.
// Destruction closes a stream left open and logs (never throws) a failure.
//
// Threads: used by one thread at a time, like every ByteStream; holds no locks.
#pragma once

#include <foundation/storage/provider/ByteStream.h>
#include <foundation/storage/provider/StorageIRI.h>

#include <string>

namespace foundation::storage::provider::file {

class FileByteStream final : public ByteStream {
 public:
  // Takes ownership of `fd`; `localPath` only names the file in log records.
  FileByteStream(int fd, std::string localPath);
  ~FileByteStream() override;
  FileByteStream(const FileByteStream&) = delete;
  FileByteStream& operator=(const FileByteStream&) = delete;

  long read(char* buffer, long count) override;
  long write(const char* buffer, long count) override;
  long seek(long offset, std::ios_base::seekdir direction) override;
  void close() override;

 private:
  int fd_;
  std::string localPath_;
};

}  // namespace foundation::storage::provider::file
