// PendingWriteBlock: contiguous bytes written to a working file that have not yet reached the
// inner store. Coalescing contiguous writes into one block lets many small caller writes
// reach the inner store as one large write.
//
// Where the bytes are: when they are also in the file's cached body (the usual case), the
// block records only their range and the FILE_WRITE transaction reads them from the body when
// it runs, so a writer pays one local copy, not two, and queued writes hold no memory. When
// the body cannot hold them (content caching disabled, or a failed body), the block keeps a
// copy. Before anything could take a body's bytes away (eviction, a stale body, a truncating
// open, a failing body), the working file calls materialise, which copies them in; a
// truncation that cuts the body under a block clips the block instead (clip).
//
// Merging (see PendingWrites): span replaces append, and blocks that come to touch are
// joined.
//
// Ownership: a WorkingFileEntry's PendingWrites holds the blocks still taking writes (one, or
// with merging up to PendingWrites::kMaxBlocks), and shares the handed-over ones with the
// FILE_WRITE transactions that carry them.
// Locks: none; the entry uses its blocks under its own mutex only.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace storage::overlayprovider {

class PendingWriteBlock {
 public:
  // What append did with the bytes.
  enum Answer : int {
    APPENDED = 0,
    // Not taken: not contiguous with the block, or the block is full.
    NOT_CONTIGUOUS = 1,
    // Taken, and the block should be handed over now (the write alone filled it).
    APPENDED_HAND_OVER = 2,
  };
  // Reads `count` body bytes at `position` into `buffer`; returns the bytes read.
  using BodyReader = std::function<std::int64_t(std::int64_t, char*, std::int64_t)>;

  PendingWriteBlock(std::int64_t start, std::int64_t capacity);

  // `inBody`: the bytes are in the cached body as well, so only their range is recorded. A
  // block that refers to the body takes bytes that are not in it only after materialise.
  Answer append(std::int64_t offset, const char* data, std::int64_t count, bool inBody);
  // Merging: takes the write when it starts within the block or at its end and the block,
  // with it, stays within its capacity (a write larger than that on its own is taken by an
  // empty block). The block's range then covers the write; bytes it refers to are read from
  // the body when it is replayed, so an overlapping write replaces them there, and a block
  // holding its bytes copies them in.
  Answer span(std::int64_t offset, const char* data, std::int64_t count, bool inBody);
  // Merging: takes the range of `next`, which starts within this block or at its end, when
  // both hold their bytes the same way and the two fit the capacity. Where they overlap,
  // this block's bytes are kept: the newest write went to it.
  bool join(const PendingWriteBlock& next);
  // Copies the bytes it refers to out of the body; throws std::runtime_error when the body
  // has fewer of them.
  void materialise(const BodyReader& readBody);
  // The file was truncated to `end`: the bytes at and after it are dropped (all of them when
  // the block starts there). They would only be cut again by the truncation that follows the
  // block to the store, and a block that refers to the body could no longer read them.
  void clip(std::int64_t end);

  std::int64_t start() const { return start_; }
  std::int64_t size() const { return length_; }
  // Whether the bytes are in the body only (then bytes() is empty).
  bool refersToBody() const { return length_ > 0 && bytes_.empty(); }
  const std::vector<char>& bytes() const { return bytes_; }

 private:
  std::int64_t start_;
  std::int64_t capacity_;
  std::int64_t length_ = 0;
  std::vector<char> bytes_;
  std::int64_t nextOffset_;
};

}  // namespace storage::overlayprovider
