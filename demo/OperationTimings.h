// OperationTimings: wall-clock time spent per kind of operation ("write file", "list
// folder", ...) during one run of the demo workload, as the caller of the store sees it.
// Owned by the demo's main; one thread only, no lock.
#pragma once

#include <chrono>
#include <map>
#include <string>

namespace overlaydemo {

struct OperationStat {
  std::size_t count = 0;
  std::chrono::nanoseconds total{0};

  double meanMillis() const {
    return count == 0 ? 0.0 : std::chrono::duration<double, std::milli>(total).count() / count;
  }
};

class OperationTimings {
 public:
  // Runs `operation`, adding its duration to `kind` (also when it throws).
  template <class Operation>
  decltype(auto) time(const std::string& kind, Operation&& operation) {
    const auto started = std::chrono::steady_clock::now();
    struct Record {
      OperationStat& stat;
      std::chrono::steady_clock::time_point started;
      ~Record() {
        ++stat.count;
        stat.total += std::chrono::steady_clock::now() - started;
      }
    } record{stats_[kind], started};
    return operation();
  }

  const std::map<std::string, OperationStat>& stats() const { return stats_; }
  std::chrono::nanoseconds total() const {
    std::chrono::nanoseconds sum{0};
    for (const auto& [kind, stat] : stats_) sum += stat.total;
    return sum;
  }

 private:
  std::map<std::string, OperationStat> stats_;
};

}  // namespace overlaydemo
