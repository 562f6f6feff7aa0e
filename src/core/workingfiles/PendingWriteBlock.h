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
// Merging (the working file's mergeWrites, which goes with "overlay.absorbChanges"): span
// replaces append. A block then fills to its capacity exactly, takes writes that overlap it,
// and, when the file's end is the block's end, takes a write past that end across the hole
// between: the kernel's writeback sends one stream's pages from several threads, so they
// arrive slightly out of order, and each would otherwise cut the block and cost the store a
// truncation (to extend the file) and a new stream. A hole that no later write fills reaches
// the store as zeros, at most a block's worth.
//
// Ownership: a WorkingFileEntry holds at most one block still taking writes, and shares the
// handed-over ones with the FILE_WRITE transactions that carry them.
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
  // Merging: takes the write when, with it, the block still starts at its start, holds no
  // gap (unless `acrossHole`: the bytes between the block's end and `offset` are a hole of the
  // file) and stays within its capacity. The block's range then covers the write; bytes it
  // refers to are read from the body when it is replayed, so an overlapping write replaces
  // them there, and a block holding its bytes copies them in (zeros for the hole).
  Answer span(std::int64_t offset, const char* data, std::int64_t count, bool inBody,
              bool acrossHole);
  // Whether span would take a write at `offset` past the block's end, across a hole.
  bool reachesAcross(std::int64_t offset, std::int64_t count) const {
    return nextOffset_ >= start_ && offset > nextOffset_ && offset + count - start_ <= capacity_;
  }
  std::int64_t end() const { return nextOffset_; }
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
