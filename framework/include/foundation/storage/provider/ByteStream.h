// ByteStream: a stream over one file body, and the options it is opened with.
//
// Semantics shared by every provider:
//   read(buf, n)   reads up to n bytes at the position; returns the count, or -1 at the end.
//   write(buf, n)  writes n bytes at the position (at the end in append mode); returns n.
//   seek(off, dir) moves the position; returns the new position. Seeking past the end is
//                  allowed; a later write fills the gap with zero bytes.
//   close()        ends the stream; further calls fail. Destruction closes a stream that was
//                  not closed, swallowing any failure.
// Failures raise the ByteStreamFailure kind of the operation (ByteStreamFailure.h).
// A stream is used by one thread at a time; two streams on one file see each other's
// writes once these have been made.
#pragma once

#include <ios>
#include <memory>

namespace foundation::storage::provider {

struct ByteStreamOpenOptions {
  bool read = true;
  bool write = false;
  // Create the file when it does not exist; when false the file must already exist
  // (NotFound otherwise).
  bool create = false;
  // Empty the file on opening.
  bool truncate = false;
  // Every write goes to the end of the file.
  bool append = false;

  static ByteStreamOpenOptions readOnly() { return {}; }
  // Read and write an existing file.
  static ByteStreamOpenOptions readWrite() { return {true, true, false, false, false}; }
  // Read and write, creating the file when missing, keeping its content.
  static ByteStreamOpenOptions readWriteCreate() { return {true, true, true, false, false}; }
  // Create or empty the file and write it.
  static ByteStreamOpenOptions overwrite() { return {true, true, true, true, false}; }
  // Create when missing and append to the file.
  static ByteStreamOpenOptions appendTo() { return {true, true, true, false, true}; }

  bool mustExist() const { return !create; }
};

class ByteStream {
 public:
  virtual ~ByteStream() = default;
  virtual long read(char* buffer, long count) = 0;
  virtual long write(const char* buffer, long count) = 0;
  virtual long seek(long offset, std::ios_base::seekdir direction) = 0;
  virtual void close() = 0;
};

using ByteStreamPtr = std::unique_ptr<ByteStream>;

}  // namespace foundation::storage::provider
