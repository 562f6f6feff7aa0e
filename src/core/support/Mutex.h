// Mutex and MutexLock: std::mutex and a scoped lock carrying clang's thread-safety annotations,
// so that a clang build (-Wthread-safety) proves at compile time that the members a class
// declares OVERLAY_GUARDED_BY(mutex_) are touched only with mutex_ held and that its *Locked
// helpers (OVERLAY_REQUIRES(mutex_)) are called only so. Other compilers see plain wrappers.
//
// Ownership: a Mutex is a member of the class whose state it guards; a MutexLock lives on the
// stack of the thread that holds it and never outlives the Mutex.
// Locks: each takes only its own mutex; the order between mutexes is the owning classes' to
// state. Threads: any; a Mutex is unlocked by the thread that locked it, as std::mutex. Neither
// destructor can throw (std::mutex::unlock does not).
#pragma once

#include <mutex>

#if defined(__clang__)
#define OVERLAY_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define OVERLAY_THREAD_ANNOTATION(x)
#endif

#define OVERLAY_CAPABILITY(name) OVERLAY_THREAD_ANNOTATION(capability(name))
#define OVERLAY_SCOPED_CAPABILITY OVERLAY_THREAD_ANNOTATION(scoped_lockable)
#define OVERLAY_GUARDED_BY(mutex) OVERLAY_THREAD_ANNOTATION(guarded_by(mutex))
#define OVERLAY_REQUIRES(...) OVERLAY_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define OVERLAY_EXCLUDES(...) OVERLAY_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define OVERLAY_ACQUIRE(...) OVERLAY_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define OVERLAY_RELEASE(...) OVERLAY_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace storage::overlayprovider {

class OVERLAY_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() OVERLAY_ACQUIRE() { mutex_.lock(); }
  void unlock() OVERLAY_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for its scope, as std::lock_guard.
class OVERLAY_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) OVERLAY_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() OVERLAY_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace storage::overlayprovider
