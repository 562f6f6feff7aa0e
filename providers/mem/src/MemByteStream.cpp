#include "MemByteStream.h"

#include "MemLog.h"

#include <foundation/storage/provider/ByteStreamFailure.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>

namespace foundation::storage::provider::mem {

MemByteStream::MemByteStream(std::shared_ptr<MemStore> store,
                             std::shared_ptr<MemFileContent> content,
                             const ByteStreamOpenOptions& options, bool changed)
    : store_(std::move(store)),
      content_(std::move(content)),
      options_(options),
      changed_(changed) {}

MemByteStream::~MemByteStream() {
  if (closed_) return;
  try {
    close();
  } catch (const std::exception& e) {
    FOUNDATION_LOG(memLogger(), log::error) << "Closing a dropped stream failed: " << e.what();
  }
}

long MemByteStream::read(char* buffer, long count) {
  std::lock_guard lock(store_->mutex);
  if (closed_ || !options_.read) throw ByteStreamReadFailure(ErrorCode::OperationRefused);
  if (count < 0 || (count > 0 && buffer == nullptr)) {
    throw ByteStreamReadFailure(ErrorCode::OperationRefused);
  }
  const std::string& bytes = content_->bytes;
  if (static_cast<std::size_t>(position_) >= bytes.size()) return -1;
  long available = static_cast<long>(bytes.size()) - position_;
  long n = std::min(count, available);
  std::memcpy(buffer, bytes.data() + position_, static_cast<std::size_t>(n));
  position_ += n;
  return n;
}

long MemByteStream::write(const char* buffer, long count) {
  std::lock_guard lock(store_->mutex);
  if (closed_ || !options_.write) throw ByteStreamWriteFailure(ErrorCode::OperationRefused);
  if (count < 0 || (count > 0 && buffer == nullptr)) {
    throw ByteStreamWriteFailure(ErrorCode::OperationRefused);
  }
  if (count == 0) return 0;
  std::string& bytes = content_->bytes;
  if (options_.append) position_ = static_cast<long>(bytes.size());
  if (count > std::numeric_limits<long>::max() - position_) {
    throw ByteStreamWriteFailure(ErrorCode::QuotaExceeded);
  }
  auto end = static_cast<std::uint64_t>(position_ + count);
  if (end > bytes.size()) {
    if (!store_->tree.fits(*content_, end)) throw ByteStreamWriteFailure(ErrorCode::QuotaExceeded);
    store_->tree.resize(*content_, end);
  }
  std::memcpy(bytes.data() + position_, buffer, static_cast<std::size_t>(count));
  position_ += count;
  changed_ = true;
  if (content_->owner != nullptr) content_->owner->lastModified = MemTree::now();
  return count;
}

long MemByteStream::seek(long offset, std::ios_base::seekdir direction) {
  std::lock_guard lock(store_->mutex);
  if (closed_) throw ByteStreamSeekFailure(ErrorCode::OperationRefused);
  long base = 0;
  if (direction == std::ios_base::cur) base = position_;
  if (direction == std::ios_base::end) base = static_cast<long>(content_->bytes.size());
  if ((offset > 0 && base > std::numeric_limits<long>::max() - offset) || base + offset < 0) {
    throw ByteStreamSeekFailure(ErrorCode::OperationRefused);
  }
  position_ = base + offset;
  return position_;
}

void MemByteStream::close() {
  std::lock_guard lock(store_->mutex);
  if (closed_) throw ByteStreamCloseFailure(ErrorCode::OperationRefused);
  closed_ = true;
  if (changed_ && content_->owner != nullptr) {
    store_->publish({store_->tree.changeOf(events::Kind::Changed, *content_->owner)});
  }
}

}  // namespace foundation::storage::provider::mem
