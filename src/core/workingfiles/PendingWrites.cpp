#include "core/workingfiles/PendingWrites.h"

#include <algorithm>

namespace storage::overlayprovider {

PendingWrites::PendingWrites(std::int64_t capacity, bool merging)
    : capacity_(std::max<std::int64_t>(capacity, 1)), merging_(merging) {}

bool PendingWrites::empty() const {
  return std::all_of(blocks_.begin(), blocks_.end(),
                     [](const auto& block) { return block->size() == 0; });
}

void PendingWrites::record(std::int64_t offset, const char* data, std::int64_t count, bool inBody,
                           bool writeThrough, Blocks& handOver) {
  if (merging_ && !writeThrough) {
    recordMerging(offset, data, count, inBody, handOver);
  } else {
    recordOne(offset, data, count, inBody, writeThrough, handOver);
  }
}

void PendingWrites::recordOne(std::int64_t offset, const char* data, std::int64_t count,
                              bool inBody, bool writeThrough, Blocks& handOver) {
  if (blocks_.empty()) blocks_.push_back(std::make_shared<PendingWriteBlock>(offset, capacity_));
  const auto answer = blocks_.front()->append(offset, data, count, inBody);
  if (answer == PendingWriteBlock::APPENDED && !writeThrough) return;
  takeAll(handOver);
  if (answer == PendingWriteBlock::NOT_CONTIGUOUS) {
    // The new bytes start a block of their own, which waits (also in write-through mode).
    blocks_.push_back(std::make_shared<PendingWriteBlock>(offset, capacity_));
    blocks_.front()->append(offset, data, count, inBody);
  }
}

void PendingWrites::recordMerging(std::int64_t offset, const char* data, std::int64_t count,
                                  bool inBody, Blocks& handOver) {
  while (count > 0) {
    const auto piece = std::min(count, (window(offset) + 1) * capacity_ - offset);
    recordInWindow(offset, data, piece, inBody, handOver);
    offset += piece;
    data += piece;
    count -= piece;
  }
}

void PendingWrites::recordInWindow(std::int64_t offset, const char* data, std::int64_t count,
                                   bool inBody, Blocks& handOver) {
  std::size_t index = 0;
  auto answer = PendingWriteBlock::NOT_CONTIGUOUS;
  for (; index < blocks_.size(); ++index) {
    if (window(blocks_[index]->start()) != window(offset)) continue;
    answer = blocks_[index]->span(offset, data, count, inBody);
    if (answer != PendingWriteBlock::NOT_CONTIGUOUS) break;
  }
  if (answer == PendingWriteBlock::NOT_CONTIGUOUS) {
    if (blocks_.size() >= (inBody ? kMaxBlocks : kMaxBlocksHoldingBytes)) takeAll(handOver);
    auto block = std::make_shared<PendingWriteBlock>(offset, capacity_);
    block->span(offset, data, count, inBody);
    const auto at = std::find_if(blocks_.begin(), blocks_.end(),
                                 [&](const auto& other) { return other->start() > offset; });
    index = static_cast<std::size_t>(at - blocks_.begin());
    blocks_.insert(at, std::move(block));
  }
  // The write may have filled the gap to the block before it, or to those after it.
  if (index > 0 && joinFollowing(index - 1)) --index;
  joinFollowing(index);
  if (blocks_[index]->size() >= capacity_) take(index, handOver);
}

bool PendingWrites::joinFollowing(std::size_t index) {
  bool joined = false;
  while (index + 1 < blocks_.size()) {
    const auto& next = *blocks_[index + 1];
    if (window(blocks_[index]->start()) != window(next.start()) || !blocks_[index]->join(next))
      break;
    blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(index + 1));
    joined = true;
  }
  return joined;
}

void PendingWrites::take(std::size_t index, Blocks& handOver) {
  if (blocks_[index]->size() > 0) handOver.push_back(blocks_[index]);
  blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(index));
}

void PendingWrites::takeAll(Blocks& handOver) {
  for (auto& block : blocks_) {
    if (block->size() > 0) handOver.push_back(std::move(block));
  }
  blocks_.clear();
}

}  // namespace storage::overlayprovider
