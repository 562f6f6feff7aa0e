#include "DrainProgress.h"

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace storage::mount {

std::optional<DrainSample> DrainProgress::fromStatistics(const std::string& json,
                                                         double minItemWeight, double seconds,
                                                         std::uint64_t storeCalls) {
  try {
    boost::property_tree::ptree tree;
    std::istringstream in(json);
    boost::property_tree::read_json(in, tree);
    const auto size = tree.get_optional<std::uint64_t>("overlay.queueStats.size");
    if (!size) return std::nullopt;
    const auto weight = tree.get<double>("overlay.queueStats.waitingWeight", 0.0);
    const double mebibytes = std::max(0.0, weight - minItemWeight * static_cast<double>(*size));
    return DrainSample{seconds, *size, mebibytes * 1048576.0, storeCalls};
  } catch (...) {
    // A statistics line that cannot be read gives no sample; the report goes on without it.
    return std::nullopt;
  }
}

void DrainProgress::add(const DrainSample& sample) {
  samples_.push_back(sample);
  // Keep one sample at or before the window's start, so the window is always covered.
  while (samples_.size() > 2 && sample.seconds - samples_[1].seconds >= windowSeconds_) {
    samples_.pop_front();
  }
}

std::string DrainProgress::line() const {
  if (samples_.empty()) return {};
  const auto& last = samples_.back();
  std::ostringstream out;
  out << groupedCount(last.changes) << (last.changes == 1 ? " change (" : " changes (")
      << byteAmount(last.bytes) << ") left";
  const auto& first = samples_.front();
  const double span = last.seconds - first.seconds;
  if (span <= 0) {
    out << ", ? changes/s, about ? left";
    return out.str();
  }
  // Changes that arrive meanwhile make the difference smaller, not the rate wrong: what is
  // shown is how fast the queue shrinks, which is what the time left depends on.
  const double changeRate = (static_cast<double>(first.changes) - last.changes) / span;
  const double byteRate = (first.bytes - last.bytes) / span;
  const double callRate = static_cast<double>(last.storeCalls - first.storeCalls) / span;
  char text[64];
  std::snprintf(text, sizeof text, "%.0f", std::max(0.0, changeRate));
  out << ", " << text << " changes/s, " << byteAmount(std::max(0.0, byteRate)) << "/s";
  std::snprintf(text, sizeof text, "%.0f", callRate);
  out << ", " << text << " store calls/s";
  if (last.changes == 0) {
    out << ", done";
  } else if (changeRate <= 0) {
    out << ", about ? left";
  } else {
    // The slower of the two measures: many small changes, or a few large ones.
    double left = static_cast<double>(last.changes) / changeRate;
    if (byteRate > 0 && last.bytes > 0) left = std::max(left, last.bytes / byteRate);
    out << ", about " << duration(left) << " left";
  }
  return out.str();
}

std::string groupedCount(std::uint64_t value) {
  std::string digits = std::to_string(value);
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) digits.insert(at, ",");
  return digits;
}

std::string byteAmount(double bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  std::size_t unit = 0;
  while (bytes >= 1024.0 && unit + 1 < std::size(kUnits)) {
    bytes /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

std::string duration(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) return "?";
  const auto whole = static_cast<std::uint64_t>(std::llround(seconds));
  char text[48];
  if (whole < 60) {
    std::snprintf(text, sizeof text, "%llu s", static_cast<unsigned long long>(whole));
  } else if (whole < 3600) {
    std::snprintf(text, sizeof text, "%llu min %02llu s",
                  static_cast<unsigned long long>(whole / 60),
                  static_cast<unsigned long long>(whole % 60));
  } else {
    std::snprintf(text, sizeof text, "%llu h %02llu min",
                  static_cast<unsigned long long>(whole / 3600),
                  static_cast<unsigned long long>(whole / 60 % 60));
  }
  return text;
}

}  // namespace storage::mount
