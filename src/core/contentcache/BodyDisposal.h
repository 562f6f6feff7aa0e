// BodyDisposal: deletes the content cache's discarded body files off the caller's thread.
//
// Why: a removal, a replacing move or a re-creation must free the body's name at once, so that
// no later entry of that name takes the old bytes for its own. Deleting a body whose bytes
// have already reached the disk costs this machine's file system about 70 µs (it frees the
// blocks), more than the whole of the rest of a removal. A rename into a folder of discarded
// bodies frees the name in a fraction of that, and a thread of its own deletes the file later.
//
//   BodyDisposal disposal;
//   disposal.dispose(cacheRoot, cacheRoot / "V1.0" / "x.cache");  // the name is free now
//   disposal.drain();                                     // every discarded body deleted
//
// guarantees:
//   - When dispose() returns, nothing lies at `body` any more (a body that cannot be moved is
//     deleted there and then; a missing one is no error). A descriptor still open on it keeps
//     working, as after a plain deletion.
//   - Every body handed over is deleted by the thread, by drain() or at the latest by the
//     destructor; the folder of discarded bodies ("discarded" below the cache root) goes when
//     drain() empties it. Failures are logged, never thrown out of the thread.
//   - Files found in that folder at the first dispose() under a cache root (left by a process
//     that ended before deleting them) are deleted too.
//
// The thread wakes once for a burst of removals, not once a body: woken, it gathers for
// kGathering before it deletes what has come (drain() cuts that short). A wake-up costs the
// removing caller a few microseconds, and on two cores the woken thread takes the caller's CPU.
//
// Ownership: the content cache owns it. Locks: one mutex of its own, guarding the queue, the
// flags and the thread handle; no other lock is taken under it, and the file system is never
// touched while it is held. Threads: dispose() and drain() from any thread (the content cache
// calls dispose() under its own mutex); the deleting thread is started by the first dispose().
#pragma once

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace storage::overlayprovider {

class BodyDisposal {
 public:
  BodyDisposal();
  BodyDisposal(const BodyDisposal&) = delete;
  BodyDisposal& operator=(const BodyDisposal&) = delete;
  // Deletes what is still waiting and ends the thread. Catches and logs everything.
  ~BodyDisposal();

  // Moves `body`, a file below `cacheRoot`, out of its name and hands it to the thread.
  void dispose(const boost::filesystem::path& cacheRoot, const boost::filesystem::path& body);
  // Blocks until every body handed over so far is deleted, then removes the emptied folders.
  void drain();

 private:
  void handOver(boost::filesystem::path discarded);
  void runDeletions() noexcept;
  // Deletes every body waiting, releasing `lock` (on mutex_) around each deletion.
  void deleteWaiting(std::unique_lock<std::mutex>& lock);
  static void deleteFile(const boost::filesystem::path& file) noexcept;
  static void sweep(const boost::filesystem::path& folder) noexcept;

  const std::string prefix_;  // makes this instance's names unique within a shared root
  std::mutex mutex_;
  std::condition_variable workArrived_;
  std::condition_variable drained_;
  std::deque<boost::filesystem::path> waiting_;
  boost::filesystem::path folder_;  // the folder of discarded bodies, once made; empty before
  std::uint64_t nextName_ = 0;
  static constexpr std::chrono::milliseconds kGathering{20};
  bool deleting_ = false;
  bool idle_ = false;  // the thread waits for work: the next body wakes it
  int draining_ = 0;   // callers inside drain()
  bool stopping_ = false;
  bool threadEnded_ = false;  // the thread failed and ended early
  std::thread thread_;
};

}  // namespace storage::overlayprovider
