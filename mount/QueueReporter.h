// QueueReporter: prints the overlay's queue statistics and the count of store calls, on
// SIGUSR1 and, when asked, every few seconds, so a user can watch write-behind drain; each
// report also says how far the drain has come (DrainProgress: changes and bytes left, rates,
// time left). While the mount drains at unmount (beginDrain() until stop()) it shows that
// progress on its own: one line rewritten in place every second on a terminal, a plain line
// every few seconds otherwise (a log).
//
// Ownership: owned by MountSession; reads the StoreStack it is given, which must outlive it.
// Threads: one thread of its own, which waits for SIGUSR1 with sigtimedwait; the signal must
// be blocked in every thread (MountSession blocks it before any thread starts), so it is
// delivered only here. start, beginDrain and stop run on the main thread, which writes
// nothing to the stream between beginDrain and stop. No lock: the flags are atomic, the
// progress is the thread's own and the stores take their own locks.
#pragma once

#include "DrainProgress.h"
#include "StoreStack.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <ostream>
#include <thread>

namespace storage::mount {

class QueueReporter {
 public:
  // intervalSeconds 0: only on SIGUSR1. `minItemWeight` is the overlay's
  // "overlay.minQueueItemWeight" (to tell bytes from the queue's weight); `terminal`: `out`
  // is a terminal, where the drain's line is rewritten in place.
  QueueReporter(const StoreStack& stores, unsigned intervalSeconds, std::ostream& out,
                double minItemWeight = 0.0, bool terminal = false);
  ~QueueReporter();
  QueueReporter(const QueueReporter&) = delete;
  QueueReporter& operator=(const QueueReporter&) = delete;

  void start();
  // The queue drains for good from now on: show its progress until stop().
  void beginDrain() { draining_ = true; }
  void stop() noexcept;
  // One report, now (on the reporter's thread once started).
  void report();

 private:
  void run() noexcept;
  void sample();
  void showDrain();

  const StoreStack& stores_;
  const unsigned intervalSeconds_;
  std::ostream& out_;
  const double minItemWeight_;
  const bool terminal_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::atomic<bool> stopping_{false};
  std::atomic<bool> draining_{false};
  bool lineOpen_ = false;       // a terminal line written with '\r' and not ended yet
  std::size_t lineLength_ = 0;  // of that line
  DrainProgress progress_;
  std::thread thread_;
};

}  // namespace storage::mount
