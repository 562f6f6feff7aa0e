#include "core/execution/TimedLatch.h"

#include "core/provider/OverlayLog.h"

#include <boost/exception/diagnostic_information.hpp>
#include <chrono>
#include <utility>

namespace storage::overlayprovider {

TimedLatch::TimedLatch(std::function<void()> triggerCallback, std::function<void()> expiryCallback,
                       std::int64_t periodMs)
    : triggerCallback_(std::move(triggerCallback)),
      expiryCallback_(std::move(expiryCallback)),
      periodMs_(periodMs) {}

TimedLatch::~TimedLatch() {
  // close() is idempotent; it guarantees no joinable thread is destroyed.
  close();
}

bool TimedLatch::isClosed() {
  std::lock_guard arm(armMutex_);
  return closed_;
}

void TimedLatch::trigger() {
  if (isClosed()) {
    return;
  }
  if (!triggerCallback_) {
    throw std::bad_function_call();
  }
  triggerCallback_();
  std::lock_guard arm(armMutex_);
  // A close() may have slipped in while the callback ran; it must win, or a countdown would
  // outlive it.
  if (closed_) {
    return;
  }
  cancelCountdown();
  {
    std::lock_guard lock(countdownMutex_);
    cancelled_ = false;
  }
  createLatchThread();
}

// Caller holds the arm mutex. Joining also waits for an expiry callback already running.
void TimedLatch::cancelCountdown() {
  {
    std::lock_guard lock(countdownMutex_);
    cancelled_ = true;
    wakeUp_.notify_one();
  }
  if (countdown_.joinable()) {
    countdown_.join();
  }
}

void TimedLatch::createLatchThread() {
  countdown_ = std::thread([this] { runCountdown(); });
}

void TimedLatch::runCountdown() {
  std::unique_lock lock(countdownMutex_);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(periodMs_);
  while (!cancelled_) {
    // The period is measured on the steady clock so that a wall-clock step cannot stretch or
    // cut it; the wait itself takes a system_clock instant.
    const auto wallDeadline = std::chrono::system_clock::now() +
                              std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                  deadline - std::chrono::steady_clock::now());
    if (wakeUp_.wait_until(lock, wallDeadline) == std::cv_status::timeout &&
        std::chrono::steady_clock::now() >= deadline) {
      break;
    }
  }
  lock.unlock();
  lock.lock();
  if (cancelled_) {
    return;
  }
  lock.unlock();
  try {
    expiryCallback_();
  } catch (...) {
    OVERLAY_LOG(foundation::log::error) << "TimedLatch expiry callback failed: "
                                        << boost::current_exception_diagnostic_information(true);
  }
}

void TimedLatch::close() {
  std::lock_guard arm(armMutex_);
  closed_ = true;
  cancelCountdown();
}

}  // namespace storage::overlayprovider
