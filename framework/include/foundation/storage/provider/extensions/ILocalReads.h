// ILocalReads: a stream whose bytes may lie in a local file that the reader can read itself,
// as a cache holds the body of a remote file. A host that moves bytes from a descriptor
// without copying them through its own memory (a FUSE mount splicing a read's reply from a
// file into the kernel) asks for them this way, and reads through read() wherever the answer
// is empty. Hosts find it with dynamic_cast on the stream.
//
// Threads: like the stream, one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

namespace foundation::storage::provider::extensions {

// Where a stream's next bytes lie. The descriptor stays open while `keepsOpen` is held, even
// if the stream is closed meanwhile; a copy of `keepsOpen` must outlive every use of it.
struct LocalBytes {
  int descriptor = -1;
  std::int64_t offset = 0;  // of the first byte in that file
  long count = 0;           // 0: the stream's position is at or past the end of the file
  std::shared_ptr<const void> keepsOpen;
};

class ILocalReads {
 public:
  virtual ~ILocalReads() = default;

  // Where the `count` bytes at the stream's position lie (fewer only at the end of the file,
  // none past it), when a local file holds all of them now; the position then moves past
  // them, as read() would have moved it. Empty: nothing moved, and read() serves them (it
  // may have to fetch them). Fails as read() does.
  std::optional<LocalBytes> readLocally(long count) { return doReadLocally(count); }

 protected:
  virtual std::optional<LocalBytes> doReadLocally(long count) = 0;
};

}  // namespace foundation::storage::provider::extensions
