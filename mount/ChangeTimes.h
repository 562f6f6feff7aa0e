// ChangeTimes: the change times (st_ctime) of what the mount changed without changing its
// last-modified time. The store keeps one time per file or folder, its last modification;
// programs that compare change times (backup tools, make-like tools, `find -cmin`) expect a
// change of mode, of times, a rename or a truncation to move it too. So the mount notes the
// time of each such change by path, and a stat shows the later of that time and the last
// modification. The table is kept in memory only (after a remount change times fall back to
// last-modified times, which never go backwards past what the store holds) and bounded: when
// full, the older half is dropped, for which the same fallback holds.
//
// Ownership: a value of FuseFilesystem. Locks: its own mutex, only around the map. Threads:
// any FUSE worker thread.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <map>
#include <mutex>
#include <string>

namespace storage::mount {

class ChangeTimes {
 public:
  explicit ChangeTimes(std::size_t capacity = 1 << 16) : capacity_(capacity) {}

  // `path` changed now (its mode, its times, its size).
  void changed(const std::string& path);
  // `path` was made: it and the folder that holds it changed now.
  void added(const std::string& path);
  // `from` was renamed to `to`: what was noted under `from` follows it, and it and both
  // folders changed now.
  void moved(const std::string& from, const std::string& to);
  // `path` is gone (and everything under it); the folder that held it changed now.
  void removed(const std::string& path);
  // Raises st's change time to the one noted for `path`, if later.
  void apply(const std::string& path, struct stat& st) const;

 private:
  void noteLocked(const std::string& path, const timespec& when);
  void forgetLocked(const std::string& path);
  void dropOlderHalfLocked();

  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::map<std::string, timespec> times_;
};

}  // namespace storage::mount
