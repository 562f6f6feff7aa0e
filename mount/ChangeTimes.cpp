#include "ChangeTimes.h"

#include <algorithm>
#include <vector>

namespace storage::mount {

namespace {

bool earlier(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

timespec now() {
  timespec t{};
  clock_gettime(CLOCK_REALTIME, &t);
  return t;
}

bool isUnder(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
         (path[folder.size()] == '/' || folder == "/");
}

std::string parentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

}  // namespace

void ChangeTimes::changed(const std::string& path) {
  std::lock_guard lock(mutex_);
  noteLocked(path, now());
}

void ChangeTimes::added(const std::string& path) {
  const auto when = now();
  std::lock_guard lock(mutex_);
  noteLocked(path, when);
  noteLocked(parentOf(path), when);
}

void ChangeTimes::moved(const std::string& from, const std::string& to) {
  const auto when = now();
  std::lock_guard lock(mutex_);
  std::vector<std::pair<std::string, timespec>> carried;
  for (auto it = times_.lower_bound(from); it != times_.end();) {
    if (it->first != from && !isUnder(it->first, from)) {
      if (it->first.compare(0, from.size(), from) != 0) break;
      ++it;
      continue;
    }
    carried.emplace_back(to + it->first.substr(from.size()), it->second);
    it = times_.erase(it);
  }
  for (const auto& [path, time] : carried) noteLocked(path, time);
  noteLocked(to, when);
  noteLocked(parentOf(from), when);
  noteLocked(parentOf(to), when);
}

void ChangeTimes::removed(const std::string& path) {
  const auto when = now();
  std::lock_guard lock(mutex_);
  forgetLocked(path);
  noteLocked(parentOf(path), when);
}

void ChangeTimes::forgetLocked(const std::string& path) {
  for (auto it = times_.lower_bound(path); it != times_.end();) {
    if (it->first.compare(0, path.size(), path) != 0) break;
    it = (it->first == path || isUnder(it->first, path)) ? times_.erase(it) : std::next(it);
  }
}

void ChangeTimes::apply(const std::string& path, struct stat& st) const {
  std::lock_guard lock(mutex_);
  const auto it = times_.find(path);
  if (it != times_.end() && earlier(st.st_ctim, it->second)) st.st_ctim = it->second;
}

void ChangeTimes::noteLocked(const std::string& path, const timespec& when) {
  if (path.empty()) return;  // a file named by its handle alone
  if (times_.size() >= capacity_ && !times_.count(path)) dropOlderHalfLocked();
  times_[path] = when;
}

void ChangeTimes::dropOlderHalfLocked() {
  std::vector<timespec> all;
  all.reserve(times_.size());
  for (const auto& entry : times_) all.push_back(entry.second);
  auto middle = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2);
  std::nth_element(all.begin(), middle, all.end(), earlier);
  const timespec cut = *middle;
  const auto dropped =
      std::erase_if(times_, [&](const auto& entry) { return earlier(entry.second, cut); });
  if (dropped == 0) times_.clear();
}

}  // namespace storage::mount
