// MemByteStream: a ByteStream over the content of one MemProvider file.
//
// The stream shares the file's content buffer with the tree and with every other stream on
// the file, so writes are seen by other streams as soon as write() returns; when the file is
// removed or replaced the stream keeps working on the orphaned buffer (not counted in the
// store's occupied space, but still bounded by its capacity).
// Ownership: owned by the caller (ByteStreamPtr); holds the MemStore and the content by
// shared_ptr, so it may outlive the provider.
// Locks: each call takes MemStore::mutex for its duration.
// Threads: one thread at a time (the ByteStream rule); close publishes Changed through the
// store's event thread when the stream changed the file.
#pragma once

#include "MemNode.h"
#include "MemStore.h"

#include <foundation/storage/provider/ByteStream.h>

#include <memory>

namespace foundation::storage::provider::mem {

class MemByteStream final : public ByteStream {
 public:
  // `changed`: the opening already changed the file (a truncation), so close reports it.
  MemByteStream(std::shared_ptr<MemStore> store, std::shared_ptr<MemFileContent> content,
                const ByteStreamOpenOptions& options, bool changed);
  ~MemByteStream() override;

  long read(char* buffer, long count) override;
  long write(const char* buffer, long count) override;
  long seek(long offset, std::ios_base::seekdir direction) override;
  void close() override;

 private:
  std::shared_ptr<MemStore> store_;
  std::shared_ptr<MemFileContent> content_;
  ByteStreamOpenOptions options_;
  long position_ = 0;
  bool changed_;
  bool closed_ = false;
};

}  // namespace foundation::storage::provider::mem
