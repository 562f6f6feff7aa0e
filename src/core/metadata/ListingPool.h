// ListingPool: the few threads on which the metadata cache's folder listings run, instead of
// a thread of their own each. A burst of invalidations (hundreds of folders marked stale at
// once) then costs a few listings at a time on the store, not hundreds of threads that all
// queue up in front of it together with the callers' own calls.
//
// ListingTask: one listing, run exactly once, either by a pool thread or by the first caller
// that waits for it while it is still queued. A caller never waits for a queued listing
// behind others: it takes the listing over and runs it on its own thread. So a waiter is
// never stuck behind a full pool, even when every pool thread is itself waiting for a
// listing that is queued (a listing that needs its parent's, say): each of those runs the
// listing it needs itself.
//
// Ownership: the metadata cache owns its pool; each FutureFolderEntry shares its task with
// the pool's queue (std::shared_ptr), so either may go first. A pool that goes first leaves
// its queued tasks to their waiters; an entry that goes first takes its task back unrun.
// Threads: submit() from any thread (the cache's, under its lock: it never blocks); the pool's
// threads run the queue; runOrWait() and cancelOrWait() from any thread.
// Locks: the pool's mutex guards its queue and threads; each task's mutex_ guards its state.
// Neither is held while a listing runs, and never both together.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace storage::overlayprovider {

class ListingTask {
 public:
  explicit ListingTask(std::function<void()> work);
  ListingTask(const ListingTask&) = delete;
  ListingTask& operator=(const ListingTask&) = delete;

  // Runs the work on this thread unless it has been taken already, then waits until it has
  // run. The work must not throw (it is logged and swallowed if it does).
  void runOrWait();
  // Takes the work back unrun if nobody has started it; otherwise waits until it has run.
  void cancelOrWait();
  bool isDone() const;

 private:
  friend class ListingPool;
  enum class State { Queued, Running, Done };
  // True when this caller took the work (it was still queued).
  bool take();
  void run();
  void finish();

  mutable std::mutex mutex_;
  std::condition_variable done_;
  State state_ = State::Queued;
  std::function<void()> work_;
};

class ListingPool {
 public:
  static constexpr std::size_t kDefaultThreads = 4;
  explicit ListingPool(std::size_t threads = kDefaultThreads);
  ListingPool(const ListingPool&) = delete;
  ListingPool& operator=(const ListingPool&) = delete;
  // Stops the threads after the listings they are running; queued ones are left to their
  // waiters.
  ~ListingPool();

  // Queues `work`; a thread is started when all are busy and fewer than the bound run.
  std::shared_ptr<ListingTask> submit(std::function<void()> work);

 private:
  // What the threads share with the pool: a thread may outlive the pool (see the destructor).
  struct Shared {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::shared_ptr<ListingTask>> queue;
    std::size_t idle = 0;
    bool stopping = false;
  };
  static void workerLoop(const std::shared_ptr<Shared>& shared);

  const std::size_t maxThreads_;
  const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  std::vector<std::thread> threads_;  // guarded by shared_->mutex
};

}  // namespace storage::overlayprovider
