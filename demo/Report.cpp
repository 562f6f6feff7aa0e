#include "Report.h"

#include <iomanip>
#include <set>
#include <sstream>
#include <vector>

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

std::string joined(const std::vector<std::string>& items) {
  std::string text;
  for (const auto& item : items) text += (text.empty() ? "" : ", ") + item;
  return text;
}

// Operation kinds measured in both runs, sorted by how the overlay compares: well under half
// the direct time (served without paying the store's latency), over one and a half times it,
// or about the same (forwarded).
struct KindComparison {
  std::vector<std::string> faster, slower, same;
};

KindComparison compareKinds(const RunResult& direct, const RunResult& overlay) {
  KindComparison comparison;
  for (const auto& [kind, d] : direct.timings.stats()) {
    const auto o = overlay.timings.stats().find(kind);
    if (o == overlay.timings.stats().end() || d.meanMillis() <= 0.0) continue;
    const double ratio = o->second.meanMillis() / d.meanMillis();
    const std::string entry = kind + " " + ratioText(ratio, 1.0) + "x";
    (ratio < 0.5   ? comparison.faster
     : ratio > 1.5 ? comparison.slower
                   : comparison.same)
        .push_back(entry);
  }
  return comparison;
}

// The reading of the numbers, in one line.
std::string verdict(const RunResult& direct, const RunResult& overlay,
                    std::chrono::microseconds latency) {
  const auto kinds = compareKinds(direct, overlay);
  std::ostringstream line;
  line << "Through the overlay the workload took "
       << ratioText(seconds(overlay.timings.total()), seconds(direct.timings.total()))
       << "x the direct time with " << overlay.innerTotal << " store calls instead of "
       << direct.innerTotal << ". ";
  if (kinds.faster.empty()) {
    line << "No operation got faster: the overlay forwards every call to the store, so each "
         << "still pays the store's " << latency.count() / 1000 << " ms.";
  } else {
    line << "Answered without the store's latency: " << joined(kinds.faster) << ".";
    if (!kinds.same.empty()) line << " At the store's pace: " << joined(kinds.same) << ".";
  }
  if (!kinds.slower.empty()) {
    // Folder creations and renames still run on the store directly, and first wait until the
    // writes queued before them have reached it.
    line << " Slower than direct: " << joined(kinds.slower)
         << " (mutations other than writes still wait for the queued writes, then the store).";
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
