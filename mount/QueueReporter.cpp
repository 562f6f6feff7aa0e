#include "QueueReporter.h"

#include "MountLog.h"

#include <signal.h>

#include <chrono>
#include <ctime>

namespace storage::mount {

namespace {

// How often the drain's line changes: in place on a terminal, a new line in a log.
constexpr auto kTerminalPeriod = std::chrono::seconds(1);
constexpr auto kLogPeriod = std::chrono::seconds(5);
constexpr auto kSamplePeriod = std::chrono::seconds(1);

}  // namespace

QueueReporter::QueueReporter(const StoreStack& stores, unsigned intervalSeconds, std::ostream& out,
                             double minItemWeight, bool terminal)
    : stores_(stores),
      intervalSeconds_(intervalSeconds),
      out_(out),
      minItemWeight_(minItemWeight),
      terminal_(terminal) {}

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
    if (lineOpen_) out_ << std::endl;
    lineOpen_ = false;
  } catch (...) {
    logCaughtException("joining the queue reporter");
  }
}

void QueueReporter::sample() {
  const std::chrono::duration<double> since = std::chrono::steady_clock::now() - started_;
  const auto taken = DrainProgress::fromStatistics(stores_.queueStatistics(), minItemWeight_,
                                                   since.count(), stores_.storeCalls());
  if (taken) progress_.add(*taken);
}

void QueueReporter::report() {
  sample();
  if (lineOpen_) out_ << "\n";
  lineOpen_ = false;
  lineLength_ = 0;
  // The count of store calls stays last: scripts read it from the end of the line.
  out_ << "cachemount: queue " << stores_.queueStatistics() << " listings "
       << stores_.storeCalls("listAll") << " store calls " << stores_.storeCalls() << "\n";
  if (const auto line = progress_.line(); !line.empty()) out_ << "cachemount: " << line << "\n";
  out_.flush();
}

void QueueReporter::showDrain() {
  const auto line = progress_.line();
  if (line.empty()) return;
  if (terminal_) {
    const std::string text = "cachemount: draining: " + line;
    // Padded, so that a shorter line leaves nothing of the longer one before it.
    const auto pad = lineLength_ > text.size() ? lineLength_ - text.size() : 0;
    out_ << '\r' << text << std::string(pad, ' ') << std::flush;
    lineLength_ = text.size();
    lineOpen_ = true;
  } else {
    out_ << "cachemount: draining: " << line << std::endl;
  }
}

void QueueReporter::run() noexcept {
  try {
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGUSR1);
    // Short waits so that stop() is noticed quickly.
    const timespec tick{0, 200 * 1000 * 1000};
    auto lastReport = std::chrono::steady_clock::now();
    auto lastSample = lastReport - kSamplePeriod;
    auto lastShown = lastReport;
    while (!stopping_) {
      const bool signalled = sigtimedwait(&wanted, nullptr, &tick) == SIGUSR1;
      const auto now = std::chrono::steady_clock::now();
      const bool due =
          intervalSeconds_ != 0 && now - lastReport >= std::chrono::seconds(intervalSeconds_);
      if (signalled || due) {
        report();
        lastReport = now;
        lastSample = now;
      } else if (draining_ && now - lastSample >= kSamplePeriod) {
        sample();
        lastSample = now;
      }
      if (draining_ && now - lastShown >= (terminal_ ? kTerminalPeriod : kLogPeriod)) {
        showDrain();
        lastShown = now;
      }
    }
  } catch (...) {
    logCaughtException("the queue reporter");
  }
}

}  // namespace storage::mount
