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

// Two decimals, or three significant digits below 0.1, so that a small ratio does not read
// as zero.
std::string ratioText(double numerator, double denominator) {
  if (denominator <= 0.0) return "-";
  const double ratio = numerator / denominator;
  std::ostringstream text;
  if (ratio >= 0.1 || ratio == 0.0) {
    text << std::fixed << std::setprecision(2) << ratio;
  } else {
    text << std::setprecision(3) << ratio;
  }
  return text.str();
}

void printTimes(std::ostream& out, const RunResult& direct, const RunResult& overlay) {
  out << "Time per operation (caller's view, ms per call)\n"
      << std::left << std::setw(20) << "operation" << std::right << std::setw(7) << "calls"
      << std::setw(10) << "direct" << std::setw(10) << "overlay" << std::setw(10) << "ratio"
      << "\n";
  std::set<std::string> kinds;
  for (const auto& [kind, stat] : direct.timings.stats()) kinds.insert(kind);
  for (const auto& [kind, stat] : overlay.timings.stats()) kinds.insert(kind);
  for (const auto& kind : kinds) {
    const auto d =
        direct.timings.stats().contains(kind) ? direct.timings.stats().at(kind) : OperationStat{};
    const auto o =
        overlay.timings.stats().contains(kind) ? overlay.timings.stats().at(kind) : OperationStat{};
    out << std::left << std::setw(20) << kind << std::right << std::setw(7)
        << std::max(d.count, o.count) << std::fixed << std::setprecision(3) << std::setw(10)
        << d.meanMillis() << std::setw(10) << o.meanMillis() << std::setw(10)
        << ratioText(o.meanMillis(), d.meanMillis()) << "\n";
  }
  out << "\n";
}

// When the caller was done and when the store held everything, and what the store was asked.
void printWriteBehind(std::ostream& out, const RunResult& direct, const RunResult& overlay) {
  const auto row = [&](const std::string& label, double d, double o, int precision) {
    out << std::left << std::setw(27) << label << std::right << std::fixed
        << std::setprecision(precision) << std::setw(10) << d << std::setw(10) << o << std::setw(10)
        << ratioText(o, d) << "\n";
  };
  out << "Write-behind (seconds from the workload's start)\n"
      << std::left << std::setw(27) << "" << std::right << std::setw(10) << "direct"
      << std::setw(10) << "overlay" << std::setw(10) << "ratio"
      << "\n";
  const double directDone = seconds(direct.timings.total());
  const double overlayDone = seconds(overlay.timings.total());
  row("caller done", directDone, overlayDone, 2);
  row("store holds everything", directDone + seconds(direct.drain),
      overlayDone + seconds(overlay.drain), 2);
  row("store calls", static_cast<double>(direct.innerTotal),
      static_cast<double>(overlay.innerTotal), 0);
  row("  made after caller done",
      static_cast<double>(direct.innerTotal - direct.innerTotalWhenCallerDone),
      static_cast<double>(overlay.innerTotal - overlay.innerTotalWhenCallerDone), 0);
  out << "\n";
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
  out << "\n";
}

std::string joined(const std::vector<std::string>& items) {
  std::string text;
  for (const auto& item : items) text += (text.empty() ? "" : ", ") + item;
  return text;
}

// Operation kinds measured in both runs, sorted by how the overlay compares: well under half
// the direct time (served without paying the store's latency), over one and a half times it,
// or about the same (at the store's pace).
struct KindComparison {
  std::vector<std::string> faster, slower, same;
};

KindComparison compareKinds(const RunResult& direct, const RunResult& overlay) {
  KindComparison comparison;
  for (const auto& [kind, d] : direct.timings.stats()) {
    const auto o = overlay.timings.stats().find(kind);
    if (o == overlay.timings.stats().end() || d.meanMillis() <= 0.0) continue;
    const double ratio = o->second.meanMillis() / d.meanMillis();
    if (ratio < 0.5) {
      comparison.faster.push_back(kind);  // the table gives their ratios
      continue;
    }
    (ratio > 1.5 ? comparison.slower : comparison.same)
        .push_back(kind + " " + ratioText(ratio, 1.0) + "x");
  }
  return comparison;
}

// The reading of the numbers, in one line.
std::string verdict(const RunResult& direct, const RunResult& overlay) {
  const auto kinds = compareKinds(direct, overlay);
  const double directDone = seconds(direct.timings.total()) + seconds(direct.drain);
  const double overlayStored = seconds(overlay.timings.total()) + seconds(overlay.drain);
  std::ostringstream line;
  line << "Through the overlay the caller was done after "
       << ratioText(seconds(overlay.timings.total()), seconds(direct.timings.total()))
       << "x the direct time and the store held everything after "
       << ratioText(overlayStored, directDone) << "x, with " << overlay.innerTotal
       << " store calls instead of " << direct.innerTotal << ". ";
  if (kinds.faster.empty()) {
    line << "No operation got faster.";
  } else {
    line << "Answered without the store's latency: " << joined(kinds.faster) << ".";
  }
  if (!kinds.same.empty()) line << " At the store's pace: " << joined(kinds.same) << ".";
  if (!kinds.slower.empty()) line << " Slower than direct: " << joined(kinds.slower) << ".";
  return line.str();
}

}  // namespace

void printReport(std::ostream& out, const RunResult& direct, const RunResult& overlay,
                 std::chrono::microseconds latency) {
  out << "\nSlow store: in-memory store behind the instrumented wrapper, " << latency.count() / 1000
      << " ms per call and per stream call\n\n";
  printTimes(out, direct, overlay);
  printWriteBehind(out, direct, overlay);
  printInnerCalls(out, direct, overlay);
  out << verdict(direct, overlay) << "\n";
}

}  // namespace overlaydemo
