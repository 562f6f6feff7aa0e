#include "SftpByteStream.h"

#include "SftpErrors.h"
#include "SftpLog.h"

#include <foundation/storage/provider/ByteStreamFailure.h>

#include <algorithm>
#include <cstring>

namespace foundation::storage::provider::sftp {

SftpByteStream::SftpByteStream(std::shared_ptr<SftpSession> session, std::string handle,
                               std::string path, bool append, std::uint64_t end,
                               std::function<void()> onWritten)
    : session_(std::move(session)),
      handle_(std::move(handle)),
      path_(std::move(path)),
      generation_(session_->generation()),
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
    if (session_->generation() != generation_) {
      throw ConnectionLost("the connection was made again; the file's handle is gone");
    }
    return body();
  } catch (const StatusError& e) {
    FOUNDATION_LOG(sftpLogger(), log::exception) << path_ << ": " << e.what();
    throw Failure(errorCodeOf(e.code));
  } catch (const ConnectionLost& e) {
    FOUNDATION_LOG(sftpLogger(), log::exception) << path_ << ": " << e.what();
    throw Failure(ErrorCode::Unavailable);
  } catch (const WireError& e) {
    session_->disconnect(e.what());
    throw Failure(ErrorCode::Unavailable);
  } catch (const ConnectRefused& e) {
    FOUNDATION_LOG(sftpLogger(), log::error) << path_ << ": " << e.what();
    throw Failure(ErrorCode::AccessDenied);
  }
}

void SftpByteStream::dropReadAhead() {
  // Replies to reads already asked for still arrive; they are taken and thrown away.
  while (!reads_.empty()) {
    const auto id = reads_.front().id;
    reads_.pop_front();
    session_->wait(id);
  }
  buffer_.clear();
}

void SftpByteStream::drainWrites() {
  while (!writes_.empty()) {
    const auto id = writes_.front();
    writes_.pop_front();
    session_->expectStatus(id);
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
      buffer_.clear();
      if (!reads_.empty() && reads_.front().offset != position_) dropReadAhead();
      // Ask for what the call needs and, for a sequential reader, for more behind it.
      const std::uint64_t wanted = position_ + static_cast<std::uint64_t>(count - done) +
                                   (sequential ? std::uint64_t{kChunk} * kMaxInFlight : 0);
      std::uint64_t next = reads_.empty() ? position_ : reads_.back().offset + reads_.back().length;
      while (next < wanted && reads_.size() < kMaxInFlight) {
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
      buffer_ = reply.body.str();
      bufferOffset_ = front.offset;
      if (buffer_.size() < front.length) {
        // A short read: the file ends here (or changes); what was asked beyond is not kept.
        const std::string keep = std::move(buffer_);
        dropReadAhead();
        buffer_ = keep;
        if (buffer_.empty()) atEnd = true;
        const auto n = std::min<std::size_t>(buffer_.size(), count - done);
        std::memcpy(out + done, buffer_.data(), n);
        done += static_cast<long>(n);
        position_ += n;
        buffer_.clear();
        break;
      }
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
      const auto id = session_->send(fxp::kWrite, [&](OutPacket& p) {
        p.str(handle_).u64(offset).str(std::string_view(in + done, n));
      });
      session_->noteWrite();
      wrote_ = true;
      writes_.push_back(id);
      position_ = offset + n;
      if (append_) end_ = position_;
      done += n;
      while (writes_.size() > kMaxInFlight) {
        const auto oldest = writes_.front();
        writes_.pop_front();
        session_->expectStatus(oldest);
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
    closed_ = true;
    std::exception_ptr failure;
    try {
      dropReadAhead();
      drainWrites();
    } catch (const StatusError&) {
      failure = std::current_exception();
    }
    session_->expectStatus(session_->send(fxp::kClose, [&](OutPacket& p) { p.str(handle_); }));
    if (failure) std::rethrow_exception(failure);
  });
  if (wrote_ && onWritten_) onWritten_();
}

}  // namespace foundation::storage::provider::sftp
