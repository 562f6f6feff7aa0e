// TimedLatch: a re-armable one-shot timer. Each trigger() calls the trigger callback and
// (re)starts a countdown of `period`; when a countdown runs out without being restarted, the
// expiry callback is called once on the countdown thread.
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
// requires:
//   - Neither callback calls trigger() or close() of the same latch, nor destroys it (the
//     countdown thread would wait for itself).
//   - The expiry callback does not throw; if it does, the exception is logged at the thread
//     boundary and dropped.
// guarantees:
//   - Triggers are serialised; the trigger callback runs before the countdown restarts, on
//     the caller's thread and without any lock held. If it throws, the exception reaches the
//     caller and the countdown is not restarted.
//   - At most one countdown exists; a restarted countdown ends without calling expiry.
//   - The expiry callback runs with no lock held, on the countdown thread.
//   - After close() returns no expiry runs and trigger() does nothing. The destructor closes.
//   - Kept ordering: a trigger that arrives while the expiry callback runs calls its trigger
//     callback at once and then waits until the expiry returns before restarting the
//     countdown. So the listener may be paused by the trigger and then resumed by the
//     finishing expiry; the next countdown pauses nothing but resumes it again at its end.
//
// Locks, in order: the arm mutex (serialises trigger and close; guards closed) and then the
// countdown mutex (guards cancelled and the countdown's wait). The countdown thread takes
// only the countdown mutex. Owned by value by its user; trigger and close may be called from
// any thread.
#pragma once

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

  // Calls the trigger callback (an empty one throws std::bad_function_call) and restarts the
  // countdown. Waits for the previous countdown thread to end, including a running expiry.
  void trigger();
  // Cancels any countdown, waits for its thread and refuses every later trigger. The
  // provider's shutdown calls this; calling it again is harmless.
  void close();

 private:
  void createLatchThread();
  void runCountdown();
  void cancelCountdown();
  bool isClosed();

  std::function<void()> triggerCallback_;
  std::function<void()> expiryCallback_;
  std::int64_t periodMs_;
  std::thread countdown_;
  std::condition_variable wakeUp_;
  std::mutex countdownMutex_;
  bool cancelled_ = false;
  bool closed_ = false;
  std::mutex armMutex_;
};

}  // namespace storage::overlayprovider
