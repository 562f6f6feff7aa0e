#include "core/workingfiles/WorkingFileByteStream.h"

#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

namespace {

// Runs one entry call; every failure becomes the operation's stream failure. One that is not
// the store's own refusal is logged, as the caller sees only Unavailable.
template <class Failure, class Call>
auto guarded(Call&& call) -> decltype(call()) {
  try {
    return call();
  } catch (const fsp::Exception& e) {
    throw Failure(e.getErrorCode());
  } catch (...) {
    logCaughtException("Unexpected failure of a stream operation");
    throw Failure(fsp::ErrorCode::Unavailable);
  }
}

}  // namespace

WorkingFileByteStream::WorkingFileByteStream(std::shared_ptr<WorkingFileEntry> entry,
                                             std::shared_ptr<StreamRegistration> registration,
                                             bool append, bool writable)
    : entry_(std::move(entry)),
      registration_(std::move(registration)),
      append_(append),
      writable_(writable) {}

long WorkingFileByteStream::read(char* buffer, long count) {
  const auto offset = static_cast<std::int64_t>(position_);
  const auto n =
      guarded<fsp::ByteStreamReadFailure>([&] { return entry_->readAt(offset, buffer, count); });
  if (n < 0) return -1;
  position_ += n;
  return static_cast<long>(n);
}

std::optional<fsp::extensions::LocalBytes> WorkingFileByteStream::doReadLocally(long count) {
  const auto offset = static_cast<std::int64_t>(position_);
  auto located =
      guarded<fsp::ByteStreamReadFailure>([&] { return entry_->locateAt(offset, count); });
  if (located) position_ += located->count;
  return located;
}

long WorkingFileByteStream::write(const char* buffer, long count) {
  if (!writable_) throw fsp::ByteStreamWriteFailure(fsp::ErrorCode::OperationRefused);
  if (append_) {
    const auto [written, size] = guarded<fsp::ByteStreamWriteFailure>([&] {
      const auto n = entry_->append(buffer, count);
      return std::pair{n, entry_->size()};
    });
    position_ = std::streampos(static_cast<std::streamoff>(size));
    return static_cast<long>(written);
  }
  const auto offset = static_cast<std::int64_t>(position_);
  const auto n =
      guarded<fsp::ByteStreamWriteFailure>([&] { return entry_->writeAt(offset, buffer, count); });
  position_ += n;
  return static_cast<long>(n);
}

long WorkingFileByteStream::seek(long offset, std::ios_base::seekdir direction) {
  std::streampos target;
  if (direction == std::ios_base::cur) {
    target = position_ + static_cast<std::streamoff>(offset);
  } else if (direction == std::ios_base::end) {
    const auto size = guarded<fsp::ByteStreamSeekFailure>([&] { return entry_->size(); });
    target = std::streampos(static_cast<std::streamoff>(size) + offset);
  } else {
    target = std::streampos(static_cast<std::streamoff>(offset));
  }
  if (static_cast<std::streamoff>(target) < 0) return -1;
  position_ = target;
  return static_cast<long>(static_cast<std::streamoff>(position_));
}

void WorkingFileByteStream::close() {
  guarded<fsp::ByteStreamCloseFailure>([&] { entry_->close(registration_->id()); });
}

}  // namespace storage::overlayprovider
