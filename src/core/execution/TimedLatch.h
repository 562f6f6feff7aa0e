// TimedLatch: a re-armable one-shot timer. Each trigger() calls the trigger callback and
// (re)starts a countdown of `period`; when a countdown runs out without being restarted, the
// expiry callback is called once on the latch's own thread.
//
// The provider uses it to keep its event listener paused while it works on the store: every
// change it makes triggers the latch (trigger callback: pause the listener) and the listener
// is resumed by the expiry callback once the provider has been quiet for `period`.
//
//   TimedLatch latch([&] { listener.pause(); }, [&] { listener.resume(); }, 500);
//   latch.trigger();   // pauses now; resumes 500 ms after the last trigger
//   ...
//   latch.close();     // at shutdown: no further pause, no pending resume
//
// Design: one countdown thread for the latch's life, started by the first trigger and ended
// by close(). A trigger re-arms it by storing a new deadline under the mutex; it wakes the
// thread only when no countdown was pending (the thread then sleeps without a deadline). The
// provider triggers on every mutation and working-file write, and a thread start and join
// per trigger (as a countdown thread per trigger costs) would dominate a small-file create;
// moving a deadline costs a clock read and an uncontended lock. A pending countdown's thread
// that wakes at a deadline since moved later simply sleeps again until the new one.
//
// requires:
//   - Neither callback calls trigger() or close() of the same latch, nor destroys it (the
//     trigger would wait for the running expiry, close() for the thread it runs on).
//   - The expiry callback does not throw; if it does, the exception is logged at the thread
//     boundary and dropped.
// guarantees:
//   - The trigger callback runs at once, on the caller's thread and without any lock held,
//     before the countdown restarts. If it throws, the exception reaches the caller and the
//     countdown is not restarted. An empty one throws std::bad_function_call.
//   - At most one countdown is pending; a restarted countdown ends without calling expiry,
//     so the expiry runs once, a full period after the last trigger. A period of 0 or less
//     runs out at once: each trigger is followed at once by an expiry.
//   - The expiry callback runs with no lock held, on the countdown thread.
//   - After close() returns no expiry runs (close waits for one already running) and
//     trigger() calls nothing. The destructor closes. close() may come from any thread, and
//     again.
//   - Kept ordering: a trigger that arrives while the expiry callback runs calls its trigger
//     callback at once and then waits until the expiry returns before restarting the
//     countdown; only a trigger that finds no expiry running just moves the deadline. So the
//     listener may be paused by the trigger and then resumed by the finishing expiry; the next
//     countdown pauses nothing but resumes it again at its end.
//
// Locks, in order: the close mutex (serialises close() calls, held while the thread is
// joined) and then the state mutex (guards the deadline, the flags and the thread handle;
// the countdown waits on it). trigger() and the countdown thread take only the state mutex,
// never while a callback runs. Owned by its user (the provider shares it with its working
// files by std::shared_ptr); trigger and close may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace storage::overlayprovider {

class TimedLatch {
 public:
  // Starts no thread; the first trigger does.
  TimedLatch(std::function<void()> triggerCallback, std::function<void()> expiryCallback,
             std::int64_t periodMs);
  ~TimedLatch();
  TimedLatch(const TimedLatch&) = delete;
  TimedLatch& operator=(const TimedLatch&) = delete;

  // Calls the trigger callback and restarts the countdown. Waits only while an expiry
  // callback is running.
  void trigger();
  // Cancels any countdown, waits for the countdown thread (and a running expiry) to end and
  // refuses every later trigger. The provider's shutdown calls this; calling it again is
  // harmless.
  void close();

 private:
  using Clock = std::chrono::steady_clock;

  void runCountdowns();

  std::function<void()> triggerCallback_;
  std::function<void()> expiryCallback_;
  Clock::duration period_;
  std::mutex closeMutex_;
  std::mutex mutex_;
  std::condition_variable wakeUp_;       // the countdown thread: armed, re-armed or closed
  std::condition_variable expiryEnded_;  // triggers waiting for a running expiry
  Clock::time_point deadline_;
  bool armed_ = false;     // a countdown is pending
  bool expiring_ = false;  // the expiry callback is running
  bool closed_ = false;
  std::thread countdown_;
};

}  // namespace storage::overlayprovider
