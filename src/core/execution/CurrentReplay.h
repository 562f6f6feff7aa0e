// CurrentReplay: which queued change the calling thread is replaying on the inner store, for
// code that the replay calls and that is not handed the change: a log line of a store call can
// then name the queued change it belongs to, and a store wrapper can tell which change sent a
// call (the order checks of the tests compare it with the queue order).
//
// The worker that runs a queued entry makes one of these on its stack for the entry's serial
// (QueuedTransaction::serial, increasing in queue order, never 0) around the entry's work; the
// destructor puts back what was there before, also when the work throws.
//
//   CurrentReplay replaying(entry.serial);
//   ...  // inner-store calls made on this thread here see CurrentReplay::serial() == entry.serial
//
// Ownership: a scope object on the worker's stack; the state is one thread-local value per
// thread. No locks: each thread sees only its own value. Any thread may read it (0 when the
// thread replays nothing, which is every thread but a replay worker inside an entry).
#pragma once

#include <cstdint>

namespace storage::overlayprovider {

class CurrentReplay {
 public:
  explicit CurrentReplay(std::uint64_t serial) noexcept;
  ~CurrentReplay();
  CurrentReplay(const CurrentReplay&) = delete;
  CurrentReplay& operator=(const CurrentReplay&) = delete;

  // The serial of the change the calling thread is replaying; 0 when none.
  static std::uint64_t serial() noexcept;

 private:
  std::uint64_t previous_;
};

}  // namespace storage::overlayprovider
