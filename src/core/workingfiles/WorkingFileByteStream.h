// WorkingFileByteStream: the byte stream the overlay hands to callers that open a file. A thin
// cursor over the file's shared WorkingFileEntry: it keeps its own position and append mode,
// forwards every operation to the entry, and turns every failure into the stream failure of
// the operation (ByteStreamReadFailure, ...WriteFailure, ...SeekFailure, ...CloseFailure),
// carrying the code of a caught provider Exception, or Unavailable (9) for anything else.
//
// Deliberately unlike other streams: the destructor does not close. Dropping the stream only
// releases its share of the entry; the entry notices a stream that went away unclosed (see
// StreamRegistration). A second close is passed to the entry again, which ignores it.
//
// Ownership: owned by the caller (ByteStreamPtr); holds the entry and its registration by
// shared ownership, so it may outlive the provider. Locks: none of its own; one stream is used
// by one thread at a time, while streams on the same file may be used concurrently.
// Writes no log records.
#pragma once

#include "core/workingfiles/StreamRegistration.h"
#include "core/workingfiles/WorkingFileEntry.h"

#include <foundation/storage/provider/ByteStream.h>
#include <foundation/storage/provider/extensions/ILocalReads.h>

#include <memory>

namespace storage::overlayprovider {

class WorkingFileByteStream final : public foundation::storage::provider::ByteStream,
                                    public foundation::storage::provider::extensions::ILocalReads {
 public:
  // A stream opened read-only (writable false) refuses every write with OperationRefused.
  WorkingFileByteStream(std::shared_ptr<WorkingFileEntry> entry,
                        std::shared_ptr<StreamRegistration> registration, bool append,
                        bool writable);
  ~WorkingFileByteStream() override = default;

  // Bytes read, or -1 at the end of the file (the position then stays where it is).
  long read(char* buffer, long count) override;
  // In append mode the bytes go to the end and the position becomes the new size.
  long write(const char* buffer, long count) override;
  // From the beginning (0), the current position (1) or the end (2); a negative target
  // returns -1 and changes nothing. Seeking past the end writes nothing.
  long seek(long offset, std::ios_base::seekdir direction) override;
  void close() override;

 protected:
  // The cached bytes at the position, in the file's body (WorkingFileEntry::locateAt).
  std::optional<foundation::storage::provider::extensions::LocalBytes> doReadLocally(
      long count) override;

 private:
  // Declared first, destroyed last: the registration still finds its entry when it goes.
  std::shared_ptr<WorkingFileEntry> entry_;
  std::shared_ptr<StreamRegistration> registration_;
  std::streampos position_{0};
  bool append_;
  bool writable_;
};

}  // namespace storage::overlayprovider
