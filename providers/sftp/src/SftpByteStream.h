// SftpByteStream: a ByteStream over one open SFTP file handle.
//
// Several requests are kept in flight so that a sequential reader or writer does not pay a
// round trip per call: a write returns once its requests are sent (at most kMaxInFlight
// unanswered; a refused one fails a later write or the close), and a sequential reader has up
// to kMaxReadsInFlight reads of kChunk bytes asked ahead. Read-ahead is dropped when any write
// went through the session since it was asked for (SftpSession::writeCount), so two streams on
// one file see each other's writes.
//
// A lost connection does not lose what was written: the stream keeps the bytes of every write
// the server has not yet answered (at most kMaxInFlight chunks). The call that meets the loss
// fails (ConnectionLost, which the provider reports as Unavailable); the next call on the stream
// opens the file again on the new connection (never creating or emptying it: the first open
// did that), sends those writes again and goes on, so a caller that retries on the same stream
// loses nothing. A stream in append mode is not resumed.
//
// Ownership: the caller owns the stream; the stream shares its SftpSession, so it works after
// the provider is gone. Locks: the session's mutex for each call, nothing else. Threads: one
// thread at a time (the ByteStream rule). The destructor closes an open stream, catching and
// logging any failure.
#pragma once

#include "SftpSession.h"

#include <foundation/storage/provider/ByteStream.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace foundation::storage::provider::sftp {

class SftpByteStream final : public ByteStream {
 public:
  static constexpr std::uint32_t kChunk = 64 * 1024;
  // Writes unanswered at most: 4 MiB a round trip, which is also what the stream keeps to
  // send again after a lost connection (16 gave a 256 MiB upload 0.29 of sftp's rate at 10 ms,
  // 64 gave 0.35).
  static constexpr std::size_t kMaxInFlight = 64;
  // A read's round trip is paid once per kMaxReadsInFlight chunks (4 MiB: 100 MiB/s at 40 ms);
  // the price is that a reader leaving a sequential run first waits for that much to arrive.
  static constexpr std::size_t kMaxReadsInFlight = 64;

  // `handle` is open on `session`, opened with the SFTP open flags `flags`; `end` is the
  // file's size at opening, needed only in append mode.
  SftpByteStream(std::shared_ptr<SftpSession> session, std::string handle, std::string path,
                 std::uint32_t flags, bool append, std::uint64_t end,
                 std::function<void()> onWritten = {});
  ~SftpByteStream() override;

  long read(char* buffer, long count) override;
  long write(const char* buffer, long count) override;
  long seek(long offset, std::ios_base::seekdir direction) override;
  void close() override;

 private:
  struct PendingRead {
    std::uint64_t offset;
    std::uint32_t length;
    std::uint32_t id;
  };
  struct PendingWrite {
    std::uint32_t id;
    std::uint64_t offset;
    std::string bytes;  // kept until the server has answered, to be sent again after a loss
  };
  template <class Failure, class F>
  auto guarded(F&& body);
  // On a new connection: opens the file again and sends the unanswered writes again.
  void resume();
  std::uint32_t sendWrite(std::uint64_t offset, std::string_view bytes);
  void dropReadAhead();
  void drainWrites();

  std::shared_ptr<SftpSession> session_;
  std::string handle_;
  std::string path_;
  std::uint64_t generation_;
  std::uint32_t reopenFlags_;  // the open's flags without creating, emptying or exclusivity
  bool broken_ = false;        // the connection was lost under the handle: resume first
  bool append_;
  std::uint64_t end_;
  std::uint64_t position_ = 0;
  bool closed_ = false;
  bool wrote_ = false;
  std::function<void()> onWritten_;  // told once, at the close of a stream that wrote
  std::deque<PendingWrite> writes_;
  std::deque<PendingRead> reads_;
  // Bytes read ahead, from bufferOffset_: the data of the reply held in bufferPacket_, in place.
  InPacket bufferPacket_;
  std::string_view buffer_;
  std::uint64_t bufferOffset_ = 0;
  std::uint64_t readAheadWrites_ = 0;  // the session's writeCount when read-ahead was asked
  std::uint64_t lastReadEnd_ = ~std::uint64_t{0};
};

}  // namespace foundation::storage::provider::sftp
