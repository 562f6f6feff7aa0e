// StreamRegistration: one open stream's place in its working file's count of open streams.
//
// The working file hands one to every stream it opens. The stream passes its id to the
// entry's close; the stream itself keeps no closed state and its destructor closes nothing.
// If the registration dies while its stream is still counted as open (the caller dropped the
// stream without closing it), it tells the entry, which then stops counting that stream and
// hands its pending writes to the executor, so that an abandoned stream neither loses data
// nor keeps the file "in use" for ever.
//
// Ownership: held by its stream (std::shared_ptr); refers to the entry weakly, so it never
// keeps an entry alive. Threads: destroyed on whatever thread drops the stream.
#pragma once

#include <cstdint>
#include <memory>

namespace storage::overlayprovider {

class WorkingFileEntry;

class StreamRegistration {
 public:
  StreamRegistration(std::weak_ptr<WorkingFileEntry> entry, std::uint64_t id)
      : entry_(std::move(entry)), id_(id) {}
  StreamRegistration(const StreamRegistration&) = delete;
  StreamRegistration& operator=(const StreamRegistration&) = delete;
  // Tells the entry that the stream is gone; catches and logs everything.
  ~StreamRegistration();

  std::uint64_t id() const { return id_; }

 private:
  std::weak_ptr<WorkingFileEntry> entry_;
  std::uint64_t id_;
};

}  // namespace storage::overlayprovider
