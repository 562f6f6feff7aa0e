#include "core/execution/TimedLatch.h"

#include "core/support/OverlayLog.h"
#include "core/support/ThreadName.h"

#include <boost/exception/diagnostic_information.hpp>
#include <utility>

namespace storage::overlayprovider {

TimedLatch::TimedLatch(std::function<void()> triggerCallback, std::function<void()> expiryCallback,
                       std::int64_t periodMs)
    : triggerCallback_(std::move(triggerCallback)),
      expiryCallback_(std::move(expiryCallback)),
      period_(std::chrono::milliseconds(periodMs)) {}

TimedLatch::~TimedLatch() {
  try {
    // close() is idempotent; it guarantees no joinable thread is destroyed.
    close();
  } catch (...) {
    logCaughtException("TimedLatch could not be closed");
  }
}

void TimedLatch::trigger() {
  {
    std::lock_guard lock(mutex_);
    if (closed_) {
      return;
    }
  }
  if (!triggerCallback_) {
    throw std::bad_function_call();
  }
  triggerCallback_();
  std::unique_lock lock(mutex_);
  // The kept ordering: an expiry already running finishes before the countdown restarts.
  expiryEnded_.wait(lock, [this] { return !expiring_ || closed_; });
  // A close() may have slipped in while the callback ran; it must win, or a countdown would
  // outlive it.
  if (closed_) {
    return;
  }
  const bool wasArmed = armed_;
  deadline_ = Clock::now() + period_;
  armed_ = true;
  if (!countdown_.joinable()) {
    countdown_ = std::thread([this] { runCountdowns(); });
  } else if (!wasArmed) {
    // Only an idle thread sleeps without a deadline; a pending countdown's thread wakes at
    // its old deadline and finds the new one.
    wakeUp_.notify_one();
  }
}

void TimedLatch::runCountdowns() {
  nameThisThread("ovl latch");
  try {
    std::unique_lock lock(mutex_);
    while (!closed_) {
      if (!armed_) {
        wakeUp_.wait(lock);
        continue;
      }
      if (Clock::now() < deadline_) {
        // On the steady clock: a wall-clock step neither stretches nor cuts the period.
        wakeUp_.wait_until(lock, deadline_);
        continue;
      }
      armed_ = false;
      expiring_ = true;
      lock.unlock();
      try {
        expiryCallback_();
      } catch (...) {
        OVERLAY_LOG(foundation::log::error)
            << "TimedLatch expiry callback failed: "
            << boost::current_exception_diagnostic_information(true);
      }
      lock.lock();
      expiring_ = false;
      expiryEnded_.notify_all();
    }
  } catch (...) {
    logCaughtException("TimedLatch countdown thread failed");
    // No trigger may wait for an expiry that this thread will never finish.
    try {
      std::lock_guard lock(mutex_);
      expiring_ = false;
    } catch (...) {
    }
    expiryEnded_.notify_all();
  }
}

void TimedLatch::close() {
  std::lock_guard closing(closeMutex_);
  std::thread countdown;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    armed_ = false;
    countdown = std::move(countdown_);
  }
  wakeUp_.notify_all();
  expiryEnded_.notify_all();
  if (countdown.joinable()) {
    countdown.join();
  }
}

}  // namespace storage::overlayprovider
