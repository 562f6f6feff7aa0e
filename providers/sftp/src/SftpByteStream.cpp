#include "SftpByteStream.h"

#include "SftpErrors.h"
#include "SftpLog.h"

#include <foundation/storage/provider/ByteStreamFailure.h>

#include <algorithm>
#include <cstring>

namespace foundation::storage::provider::sftp {

SftpByteStream::SftpByteStream(std::shared_ptr<SftpSession> session, std::string handle,
                               std::string path, std::uint32_t flags, bool append,
                               std::uint64_t end, std::function<void()> onWritten)
    : session_(std::move(session)),
      handle_(std::move(handle)),
      path_(std::move(path)),
      generation_(session_->generation()),
      reopenFlags_(flags & ~(fxp::kCreat | fxp::kTrunc | fxp::kExcl)),
      append_(append),
      end_(end),
      onWritten_(std::move(onWritten)) {}

SftpByteStream::~SftpByteStream() {
  try {
    if (!closed_) close();
  } catch (const std::exception& e) {
    FOUNDATION_LOG(sftpLogger(), log::error)
        << "Closing the stream on " << path_ << " failed: " << e.what();
  } catch (...) {
    FOUNDATION_LOG(sftpLogger(), log::error) << "Closing the stream on " << path_ << " failed";
  }
}

// Runs one call under the session's lock and turns what the session throws into the
// stream failure `Failure` with its code.
template <class Failure, class F>
auto SftpByteStream::guarded(F&& body) {
  if (closed_) throw Failure(ErrorCode::OperationRefused);
  auto lock = session_->lock();
  try {
    if (broken_ || session_->generation() != generation_) resume();
    return body();
  } catch (const StatusError& e) {
    FOUNDATION_LOG(sftpLogger(), log::exception) << path_ << ": " << e.what();
    throw Failure(errorCodeOf(e.code));
  } catch (const ConnectionLost& e) {
    FOUNDATION_LOG(sftpLogger(), log::exception) << path_ << ": " << e.what();
    broken_ = true;
    throw Failure(ErrorCode::Unavailable);
  } catch (const WireError& e) {
    session_->disconnect(e.what());
    broken_ = true;
    throw Failure(ErrorCode::Unavailable);
  } catch (const ConnectRefused& e) {
    FOUNDATION_LOG(sftpLogger(), log::error) << path_ << ": " << e.what();
    throw Failure(ErrorCode::AccessDenied);
  }
}

void SftpByteStream::resume() {
  if (append_) throw ConnectionLost("the connection was lost under a stream appending to the file");
  // Replies to what was asked on the old connection never come.
  reads_.clear();
  buffer_ = {};
  handle_ = session_->expectHandle(
      session_->send(fxp::kOpen, [&](OutPacket& p) { p.str(path_).u32(reopenFlags_).attrs({}); }));
  generation_ = session_->generation();
  broken_ = false;
  FOUNDATION_LOG(sftpLogger(), log::notice) << path_ << ": opened again after a lost connection; "
                                            << writes_.size() << " unanswered writes sent again";
  for (auto& write : writes_) write.id = sendWrite(write.offset, write.bytes);
}

std::uint32_t SftpByteStream::sendWrite(std::uint64_t offset, std::string_view bytes) {
  const auto id =
      session_->send(fxp::kWrite, [&](OutPacket& p) { p.str(handle_).u64(offset).str(bytes); });
  session_->noteWrite();
  return id;
}

void SftpByteStream::dropReadAhead() {
  // Replies to reads already asked for still arrive; they are taken and thrown away.
  while (!reads_.empty()) {
    const auto id = reads_.front().id;
    reads_.pop_front();
    session_->wait(id);
  }
  buffer_ = {};
}

void SftpByteStream::drainWrites() {
  while (!writes_.empty()) {
    session_->expectStatus(writes_.front().id);  // a lost connection keeps it for resume()
    writes_.pop_front();
  }
}

long SftpByteStream::read(char* out, long count) {
  if (count < 0) throw ByteStreamReadFailure(ErrorCode::InvalidLocation);
  return guarded<ByteStreamReadFailure>([&]() -> long {
    drainWrites();
    if (session_->writeCount() != readAheadWrites_) {
      dropReadAhead();
      readAheadWrites_ = session_->writeCount();
    }
    const bool sequential = position_ == lastReadEnd_;
    long done = 0;
    bool atEnd = false;
    while (done < count && !atEnd) {
      // Bytes already here.
      if (!buffer_.empty() && position_ >= bufferOffset_ &&
          position_ < bufferOffset_ + buffer_.size()) {
        const auto from = static_cast<std::size_t>(position_ - bufferOffset_);
        const auto n = std::min<std::size_t>(buffer_.size() - from, count - done);
        std::memcpy(out + done, buffer_.data() + from, n);
        done += static_cast<long>(n);
        position_ += n;
        continue;
      }
      buffer_ = {};
      if (!reads_.empty() && reads_.front().offset != position_) dropReadAhead();
      // Ask for what the call needs and, for a sequential reader, for more behind it.
      const std::uint64_t wanted = position_ + static_cast<std::uint64_t>(count - done) +
                                   (sequential ? std::uint64_t{kChunk} * kMaxReadsInFlight : 0);
      std::uint64_t next = reads_.empty() ? position_ : reads_.back().offset + reads_.back().length;
      while (next < wanted && reads_.size() < kMaxReadsInFlight) {
        const auto length =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(kChunk, wanted - next));
        const auto id =
            session_->send(fxp::kRead, [&](OutPacket& p) { p.str(handle_).u64(next).u32(length); });
        reads_.push_back({next, length, id});
        next += length;
      }
      const PendingRead front = reads_.front();
      reads_.pop_front();
      Reply reply = session_->wait(front.id);
      if (reply.type == fxp::kStatus) {
        const std::uint32_t code = reply.body.u32();
        if (code != status::kEof) throw StatusError(code, "read refused");
        atEnd = true;
        dropReadAhead();
        break;
      }
      if (reply.type != fxp::kData) throw ConnectionLost("the server sent no data for a read");
      bufferPacket_ = std::move(reply.body);
      const std::string_view data = bufferPacket_.strView();
      if (data.size() < front.length) {
        // A short read: the file ends here (or changes); what was asked beyond is not kept.
        dropReadAhead();
        if (data.empty()) atEnd = true;
        const auto n = std::min<std::size_t>(data.size(), count - done);
        std::memcpy(out + done, data.data(), n);
        done += static_cast<long>(n);
        position_ += n;
        break;
      }
      buffer_ = data;
      bufferOffset_ = front.offset;
    }
    lastReadEnd_ = position_;
    if (done == 0 && atEnd) return -1;
    return done;
  });
}

long SftpByteStream::write(const char* in, long count) {
  if (count < 0) throw ByteStreamWriteFailure(ErrorCode::InvalidLocation);
  return guarded<ByteStreamWriteFailure>([&]() -> long {
    dropReadAhead();
    long done = 0;
    while (done < count) {
      const auto n = static_cast<std::uint32_t>(std::min<long>(kChunk, count - done));
      const std::uint64_t offset = append_ ? end_ : position_;
      const std::string_view bytes(in + done, n);
      writes_.push_back({sendWrite(offset, bytes), offset, std::string(bytes)});
      wrote_ = true;
      position_ = offset + n;
      if (append_) end_ = position_;
      done += n;
      while (writes_.size() > kMaxInFlight) {
        session_->expectStatus(writes_.front().id);
        writes_.pop_front();
      }
    }
    readAheadWrites_ = session_->writeCount();
    return done;
  });
}

long SftpByteStream::seek(long offset, std::ios_base::seekdir direction) {
  return guarded<ByteStreamSeekFailure>([&]() -> long {
    long long base = 0;
    if (direction == std::ios_base::cur) {
      base = static_cast<long long>(position_);
    } else if (direction == std::ios_base::end) {
      drainWrites();
      const auto attrs =
          session_->expectAttrs(session_->send(fxp::kFstat, [&](OutPacket& p) { p.str(handle_); }));
      base = static_cast<long long>(attrs.size);
    }
    const long long target = base + offset;
    if (target < 0) throw ByteStreamSeekFailure(ErrorCode::OperationRefused);
    position_ = static_cast<std::uint64_t>(target);
    return static_cast<long>(position_);
  });
}

void SftpByteStream::close() {
  guarded<ByteStreamCloseFailure>([&] {
    std::exception_ptr failure;
    try {
      dropReadAhead();
      drainWrites();
    } catch (const StatusError&) {
      failure = std::current_exception();
      writes_.clear();  // refused, not lost: nothing to send again
    }
    // Closed unless the connection was lost: then the close is tried again, on a resumed
    // handle, with the writes it had not seen answered.
    try {
      session_->expectStatus(session_->send(fxp::kClose, [&](OutPacket& p) { p.str(handle_); }));
    } catch (const StatusError&) {
      closed_ = true;
      throw;
    }
    closed_ = true;
    if (failure) std::rethrow_exception(failure);
  });
  if (wrote_ && onWritten_) onWritten_();
}

}  // namespace foundation::storage::provider::sftp
