#include "QueueReporter.h"

#include "MountLog.h"

#include <signal.h>

#include <chrono>
#include <ctime>

namespace storage::mount {

QueueReporter::QueueReporter(const StoreStack& stores, unsigned intervalSeconds, std::ostream& out)
    : stores_(stores), intervalSeconds_(intervalSeconds), out_(out) {}

QueueReporter::~QueueReporter() {
  try {
    stop();
  } catch (...) {
    logCaughtException("stopping the queue reporter");
  }
}

void QueueReporter::start() {
  thread_ = std::thread([this] { run(); });
}

void QueueReporter::stop() noexcept {
  stopping_ = true;
  try {
    if (thread_.joinable()) thread_.join();
  } catch (...) {
    logCaughtException("joining the queue reporter");
  }
}

void QueueReporter::report() {
  out_ << "cachemount: queue " << stores_.queueStatistics() << " store calls "
       << stores_.storeCalls() << std::endl;
}

void QueueReporter::run() noexcept {
  try {
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGUSR1);
    // Short waits so that stop() is noticed quickly.
    const timespec tick{0, 200 * 1000 * 1000};
    auto lastReport = std::chrono::steady_clock::now();
    while (!stopping_) {
      const bool signalled = sigtimedwait(&wanted, nullptr, &tick) == SIGUSR1;
      const auto now = std::chrono::steady_clock::now();
      const bool due =
          intervalSeconds_ != 0 && now - lastReport >= std::chrono::seconds(intervalSeconds_);
      if (signalled || due) {
        report();
        lastReport = now;
      }
    }
  } catch (...) {
    logCaughtException("the queue reporter");
  }
}

}  // namespace storage::mount
