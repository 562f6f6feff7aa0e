#include "core/workingfiles/PendingWriteBlock.h"

#include <algorithm>

namespace storage::overlayprovider {

namespace {
constexpr std::int64_t kStreamingWrite = 64 * 1024;
}  // namespace

PendingWriteBlock::PendingWriteBlock(std::int64_t start, std::int64_t capacity)
    : start_(start), capacity_(capacity), nextOffset_(start) {}

PendingWriteBlock::Answer PendingWriteBlock::append(std::int64_t offset, const char* data,
                                                    std::int64_t count) {
  if (offset != nextOffset_) return NOT_CONTIGUOUS;
  // A block never grows past its capacity, except by one write that is larger on its own:
  // that write is taken whole and handed over at once.
  if (size() + count >= capacity_ && count < capacity_) return NOT_CONTIGUOUS;
  // A writer that starts with a large write streams: its block is sized once, so that no
  // regrowth copies the bytes and no slack of a doubled buffer sits in the queue.
  if (bytes_.empty() && count >= kStreamingWrite) {
    bytes_.reserve(static_cast<std::size_t>(std::max(capacity_, count)));
  }
  bytes_.insert(bytes_.end(), data, data + count);
  nextOffset_ = offset + count;
  return count >= capacity_ ? APPENDED_HAND_OVER : APPENDED;
}

}  // namespace storage::overlayprovider
