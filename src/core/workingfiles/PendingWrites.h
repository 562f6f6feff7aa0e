// PendingWrites: a working file's writes that are not yet handed to the executor, as
// PendingWriteBlocks, and the rule that decides when a block goes.
//
// Without merging it holds one block: contiguous writes join it while they leave it below its
// capacity; any other write hands it over and starts the next (the coalescing the library
// has by default). Merging (the working file's mergeWrites, with "overlay.absorbChanges"),
// the file is cut into windows of the capacity, aligned to it, and each write into its pieces
// per window. A piece joins a block of its window that it overlaps or continues
// (PendingWriteBlock::span), or starts one; blocks of a window that come to touch are joined;
// a block that fills its window goes at once, and the others when too many are held or at
// a close, flush or truncation. The kernel's writeback sends one stream's pages from several
// threads, so they arrive out of order by a few MiB: with blocks cut where they fill, every
// late page would start a block of its own; with aligned windows, a window's late page still
// completes its block, and a sequential file reaches the store in full-sized writes.
// Blocks are disjoint ranges of one file whose bytes are read from the body when replayed,
// so their order among themselves does not matter; a block past the store's end extends the
// store's file when written (a store's stream writes past its end with zeros between).
//
// Memory: blocks that refer to the body hold none; when the working file copies their bytes
// out of a body it is about to lose (PendingWriteBlock::materialise), the pending blocks may
// hold up to kMaxBlocks partial windows for as long as they wait, and new blocks that hold
// their bytes are limited to kMaxBlocksHoldingBytes.
//
// Ownership: a member of its WorkingFileEntry. Locks: none; the entry calls it under its own
// mutex only.
#pragma once

#include "core/workingfiles/PendingWriteBlock.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace storage::overlayprovider {

class PendingWrites {
 public:
  using Blocks = std::vector<std::shared_ptr<PendingWriteBlock>>;
  // Blocks that refer to the body hold no memory, and the kernel's writeback reorders pages
  // by up to about 20 MiB when the queue's bound makes writers wait; blocks that hold their
  // bytes (no usable body) are few, as each may hold the capacity.
  static constexpr std::size_t kMaxBlocks = 32;
  static constexpr std::size_t kMaxBlocksHoldingBytes = 2;

  PendingWrites(std::int64_t capacity, bool merging);

  // Takes a write's bytes (`inBody`: they are in the cached body too); appends to `handOver`
  // the blocks that must go now. `writeThrough`: every write goes at once.
  void record(std::int64_t offset, const char* data, std::int64_t count, bool inBody,
              bool writeThrough, Blocks& handOver);
  // Appends every block, in offset order, to `handOver`, and holds none.
  void takeAll(Blocks& handOver);
  void clear() { blocks_.clear(); }
  bool empty() const;
  const Blocks& blocks() const { return blocks_; }

 private:
  void recordOne(std::int64_t offset, const char* data, std::int64_t count, bool inBody,
                 bool writeThrough, Blocks& handOver);
  void recordMerging(std::int64_t offset, const char* data, std::int64_t count, bool inBody,
                     Blocks& handOver);
  void recordInWindow(std::int64_t offset, const char* data, std::int64_t count, bool inBody,
                      Blocks& handOver);
  // Joins into the block at `index` those after it of its window that it touches; whether
  // it joined any.
  bool joinFollowing(std::size_t index);
  std::int64_t window(std::int64_t offset) const { return offset / capacity_; }
  void take(std::size_t index, Blocks& handOver);

  std::int64_t capacity_;
  bool merging_;
  Blocks blocks_;  // merging: sorted by start, disjoint
};

}  // namespace storage::overlayprovider
