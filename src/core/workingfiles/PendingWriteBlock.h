// PendingWriteBlock: contiguous bytes written to a working file that have not yet been handed
// to the executor. Coalescing contiguous writes into one block lets many small caller writes
// reach the inner store as one large write.
//
// Ownership: a WorkingFileEntry holds at most one block (std::unique_ptr) and hands it, by
// shared ownership, to the FILE_WRITE transaction that carries it to the inner store.
// Locks: none; the entry serialises every use under its own mutex, and a handed-over block is
// only read.
#pragma once

#include <cstdint>
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

  PendingWriteBlock(std::int64_t start, std::int64_t capacity);

  Answer append(std::int64_t offset, const char* data, std::int64_t count);

  std::int64_t start() const { return start_; }
  std::int64_t size() const { return static_cast<std::int64_t>(bytes_.size()); }
  // The bytes the block holds in memory (its buffer's capacity), what its transaction weighs.
  std::int64_t allocated() const { return static_cast<std::int64_t>(bytes_.capacity()); }
  const char* data() const { return bytes_.data(); }

 private:
  std::int64_t start_;
  std::int64_t capacity_;
  std::vector<char> bytes_;
  std::int64_t nextOffset_;
};

}  // namespace storage::overlayprovider
