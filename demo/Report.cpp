#include "Report.h"

#include <iomanip>
#include <set>
#include <sstream>

namespace overlaydemo {

namespace {

double seconds(std::chrono::nanoseconds duration) {
  return std::chrono::duration<double>(duration).count();
}

std::string ratioText(double numerator, double denominator) {
  if (denominator <= 0.0) return "-";
  std::ostringstream text;
  text << std::fixed << std::setprecision(2) << numerator / denominator;
  return text.str();
}

void printTimes(std::ostream& out, const RunResult& direct, const RunResult& overlay) {
  out << "Time per operation (caller's view, ms per call)\n"
      << std::left << std::setw(16) << "operation" << std::right << std::setw(7) << "calls"
      << std::setw(10) << "direct" << std::setw(10) << "overlay" << std::setw(8) << "ratio"
      << "\n";
  std::set<std::string> kinds;
  for (const auto& [kind, stat] : direct.timings.stats()) kinds.insert(kind);
  for (const auto& [kind, stat] : overlay.timings.stats()) kinds.insert(kind);
  for (const auto& kind : kinds) {
    const auto d =
        direct.timings.stats().contains(kind) ? direct.timings.stats().at(kind) : OperationStat{};
    const auto o =
        overlay.timings.stats().contains(kind) ? overlay.timings.stats().at(kind) : OperationStat{};
    out << std::left << std::setw(16) << kind << std::right << std::setw(7)
        << std::max(d.count, o.count) << std::fixed << std::setprecision(2) << std::setw(10)
        << d.meanMillis() << std::setw(10) << o.meanMillis() << std::setw(8)
        << ratioText(o.meanMillis(), d.meanMillis()) << "\n";
  }
  out << std::left << std::setw(16) << "total (s)" << std::right << std::setw(7) << ""
      << std::setw(10) << seconds(direct.timings.total()) << std::setw(10)
      << seconds(overlay.timings.total()) << std::setw(8)
      << ratioText(seconds(overlay.timings.total()), seconds(direct.timings.total())) << "\n\n";
}

void printInnerCalls(std::ostream& out, const RunResult& direct, const RunResult& overlay) {
  out << "Calls that reached the slow store (instrumented counters)\n"
      << std::left << std::setw(22) << "store operation" << std::right << std::setw(8) << "direct"
      << std::setw(9) << "overlay"
      << "\n";
  std::set<std::string> operations;
  for (const auto& [name, count] : direct.innerCalls) operations.insert(name);
  for (const auto& [name, count] : overlay.innerCalls) operations.insert(name);
  for (const auto& name : operations) {
    const auto d = direct.innerCalls.find(name);
    const auto o = overlay.innerCalls.find(name);
    out << std::left << std::setw(22) << name << std::right << std::setw(8)
        << (d == direct.innerCalls.end() ? 0 : d->second) << std::setw(9)
        << (o == overlay.innerCalls.end() ? 0 : o->second) << "\n";
  }
  out << std::left << std::setw(22) << "total" << std::right << std::setw(8) << direct.innerTotal
      << std::setw(9) << overlay.innerTotal << "\n\n";
}

void printQueueStats(std::ostream& out, const RunResult& overlay) {
  out << "Overlay queue statistics (overlay.queueStats log records): " << overlay.queueStats.size()
      << "\n";
  for (const auto& record : overlay.queueStats) out << "  " << record << "\n";
  if (overlay.queueStats.empty()) {
    // The queue writes these records only for transactions it took (not for a flush's own
    // marker), so none means no change went through the write-behind queue in this run.
    out << "  none: no transaction passed through the overlay's write-behind queue\n";
  }
  out << "\n";
}

// The reading of the numbers, in one line.
std::string verdict(const RunResult& direct, const RunResult& overlay,
                    std::chrono::microseconds latency) {
  const double callRatio =
      direct.innerTotal == 0 ? 0.0 : static_cast<double>(overlay.innerTotal) / direct.innerTotal;
  const std::string timeRatio =
      ratioText(seconds(overlay.timings.total()), seconds(direct.timings.total()));
  std::ostringstream line;
  line << "The overlay sent " << overlay.innerTotal << " calls to the slow store where going "
       << "direct took " << direct.innerTotal << " (ratio " << ratioText(callRatio, 1.0)
       << ") and took " << timeRatio << "x the direct time: ";
  if (callRatio >= 0.95) {
    line << "it forwards every operation to the store and serves nothing from a cache, so "
         << "each call still pays the store's " << latency.count() / 1000 << " ms.";
  } else {
    line << "it answered " << direct.innerTotal - overlay.innerTotal
         << " operations without reaching the store.";
  }
  return line.str();
}

}  // namespace

void printReport(std::ostream& out, const RunResult& direct, const RunResult& overlay,
                 std::chrono::microseconds latency) {
  out << "\nSlow store: in-memory store behind the instrumented wrapper, " << latency.count() / 1000
      << " ms per call and per stream call\n\n";
  printTimes(out, direct, overlay);
  printInnerCalls(out, direct, overlay);
  printQueueStats(out, overlay);
  out << verdict(direct, overlay, latency) << "\n";
}

}  // namespace overlaydemo
