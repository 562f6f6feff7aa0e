// QueueReporter: prints the overlay's queue statistics and the count of store calls, on
// SIGUSR1 and, when asked, every few seconds, so a user can watch write-behind drain.
//
// Ownership: owned by MountSession; reads the StoreStack it is given, which must outlive it.
// Threads: one thread of its own, which waits for SIGUSR1 with sigtimedwait; the signal must
// be blocked in every thread (MountSession blocks it before any thread starts), so it is
// delivered only here. start and stop run on the main thread. No lock: the stop flag is
// atomic and the stores take their own.
#pragma once

#include "StoreStack.h"

#include <atomic>
#include <ostream>
#include <thread>

namespace storage::mount {

class QueueReporter {
 public:
  // intervalSeconds 0: only on SIGUSR1.
  QueueReporter(const StoreStack& stores, unsigned intervalSeconds, std::ostream& out);
  ~QueueReporter();
  QueueReporter(const QueueReporter&) = delete;
  QueueReporter& operator=(const QueueReporter&) = delete;

  void start();
  void stop() noexcept;
  // One report line, now.
  void report();

 private:
  void run() noexcept;

  const StoreStack& stores_;
  const unsigned intervalSeconds_;
  std::ostream& out_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace storage::mount
