#include "core/workingfiles/PendingWriteBlock.h"

#include <algorithm>
#include <stdexcept>

namespace storage::overlayprovider {

namespace {
constexpr std::int64_t kStreamingWrite = 64 * 1024;
}  // namespace

PendingWriteBlock::PendingWriteBlock(std::int64_t start, std::int64_t capacity)
    : start_(start), capacity_(capacity), nextOffset_(start) {}

PendingWriteBlock::Answer PendingWriteBlock::append(std::int64_t offset, const char* data,
                                                    std::int64_t count, bool inBody) {
  if (offset != nextOffset_) return NOT_CONTIGUOUS;
  // A block never grows past its capacity, except by one write that is larger on its own:
  // that write is taken whole and handed over at once.
  if (length_ + count >= capacity_ && count < capacity_) return NOT_CONTIGUOUS;
  if (!inBody && refersToBody()) {
    throw std::logic_error("a block that refers to the body must be materialised first");
  }
  if (!inBody || !bytes_.empty()) {
    // A writer that starts with a large write streams: its copy is sized once, so that no
    // regrowth copies the bytes again.
    if (bytes_.empty() && count >= kStreamingWrite) {
      bytes_.reserve(static_cast<std::size_t>(std::max(capacity_, count)));
    }
    bytes_.insert(bytes_.end(), data, data + count);
  }
  length_ += count;
  nextOffset_ = offset + count;
  return count >= capacity_ ? APPENDED_HAND_OVER : APPENDED;
}

PendingWriteBlock::Answer PendingWriteBlock::span(std::int64_t offset, const char* data,
                                                  std::int64_t count, bool inBody) {
  if (offset < start_ || offset > nextOffset_) return NOT_CONTIGUOUS;
  const auto end = std::max(nextOffset_, offset + count);
  if (end - start_ > capacity_ && length_ > 0) return NOT_CONTIGUOUS;
  if (!inBody && refersToBody()) {
    throw std::logic_error("a block that refers to the body must be materialised first");
  }
  if (!inBody || !bytes_.empty()) {
    bytes_.resize(static_cast<std::size_t>(end - start_));
    std::copy(data, data + count, bytes_.begin() + (offset - start_));
  }
  length_ = end - start_;
  nextOffset_ = end;
  return length_ >= capacity_ ? APPENDED_HAND_OVER : APPENDED;
}

bool PendingWriteBlock::join(const PendingWriteBlock& next) {
  if (next.start_ < start_ || next.start_ > nextOffset_ || length_ == 0) return false;
  if (refersToBody() != next.refersToBody()) return false;
  const auto end = std::max(nextOffset_, next.nextOffset_);
  if (end - start_ > capacity_) return false;
  if (!bytes_.empty() && end > nextOffset_) {
    const auto kept = nextOffset_ - next.start_;  // bytes of `next` this block already has
    bytes_.insert(bytes_.end(), next.bytes_.begin() + kept, next.bytes_.end());
  }
  length_ = end - start_;
  nextOffset_ = end;
  return true;
}

void PendingWriteBlock::materialise(const BodyReader& readBody) {
  if (!refersToBody()) return;
  std::vector<char> copy(static_cast<std::size_t>(length_));
  if (readBody(start_, copy.data(), length_) != length_) {
    throw std::runtime_error("the cached body no longer holds bytes still to be written");
  }
  bytes_ = std::move(copy);
}

void PendingWriteBlock::clip(std::int64_t end) {
  const auto kept = std::clamp<std::int64_t>(end - start_, 0, length_);
  if (kept == length_) return;
  length_ = kept;
  if (!bytes_.empty()) bytes_.resize(static_cast<std::size_t>(kept));
  // Nothing contiguous may join a block whose end moved back.
  nextOffset_ = -1;
}

}  // namespace storage::overlayprovider
