#include "MountSession.h"

#include "FuseArguments.h"
#include "FuseFilesystem.h"
#include "KernelReadAhead.h"
#include "MountLog.h"
#include "QueueReporter.h"
#include "StoreStack.h"

#include <fuse.h>
#include <signal.h>
#include <unistd.h>
#include <filesystem>

#include <chrono>
#include <iomanip>
#include <iostream>
#include <memory>

namespace storage::mount {

namespace {

sigset_t sessionSignals(bool withUser1) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  if (withUser1) sigaddset(&set, SIGUSR1);
  return set;
}

struct FuseDeleter {
  void operator()(fuse* handle) const noexcept { fuse_destroy(handle); }
};
using FusePtr = std::unique_ptr<fuse, FuseDeleter>;

// Runs FUSE's multi-threaded loop with SIGINT, SIGTERM and SIGHUP open to the main thread.
int serve(fuse* handle, unsigned maxThreads) {
  fuse_loop_config* config = fuse_loop_cfg_create();
  fuse_loop_cfg_set_clone_fd(config, 0);
  fuse_loop_cfg_set_max_threads(config, maxThreads);
  fuse_loop_cfg_set_idle_threads(config, std::max(1u, maxThreads / 2));
  const sigset_t ending = sessionSignals(false);
  pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
  const int status = fuse_loop_mt(handle, config);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  fuse_loop_cfg_destroy(config);
  return status;
}

// libfuse's loop returns the signal that ended it (SIGINT, SIGTERM, SIGHUP: an unmount the
// user asked for) in place of 0.
bool endedCleanly(int loopStatus) {
  const int status = loopStatus < 0 ? -loopStatus : loopStatus;
  if (status != 0 && status != SIGINT && status != SIGTERM && status != SIGHUP) {
    MOUNT_LOG(foundation::log::error) << "the FUSE session ended with status " << loopStatus;
    return false;
  }
  return true;
}

// Writes every queued change to the store and says how long that took.
// The reporter shows the drain's progress meanwhile, and is stopped before the last line.
bool flushAndReport(StoreStack& stores, std::ostream& out, QueueReporter& reporter) {
  out << "cachemount: unmounted; writing queued changes to the store: queue "
      << stores.queueStatistics() << std::endl;
  const auto started = std::chrono::steady_clock::now();
  reporter.beginDrain();
  try {
    stores.flush();
  } catch (...) {
    reporter.stop();
    logCaughtException("the flush at unmount");
    out << "cachemount: the flush FAILED (see the log above)" << std::endl;
    return false;
  }
  reporter.stop();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
  out << "cachemount: the store holds every change; flush took " << std::fixed
      << std::setprecision(3) << took.count() << " s; store calls " << stores.storeCalls()
      << std::endl;
  out << "cachemount: store calls by operation: " << stores.storeCallsByOperation() << std::endl;
  return true;
}

}  // namespace

namespace {

// Where removed open files keep their bytes: beside the content cache when it has a root
// (the disk the user chose for cached bytes), the temporary folder otherwise.
std::string scratchDirectory(const MountOptions& options) {
  const auto root = options.overlayConfig.get_optional<std::string>("overlay.cacheRoot");
  std::error_code error;
  if (root && !options.passThrough && std::filesystem::is_directory(*root, error)) return *root;
  return std::filesystem::temp_directory_path().string();
}

// Re-applies what an earlier run left in the journal before the first program is served, and
// says so. False when the overlay cannot start (another process holds the cache root, say).
bool announceRecovery(const StoreStack& stores, std::ostream& out) {
  try {
    if (const auto pending = stores.recoverPendingChanges(); pending > 0) {
      out << "cachemount: replaying " << pending << " pending changes from an earlier run"
          << std::endl;
    }
    return true;
  } catch (const std::exception& e) {
    out << "cachemount: cannot start the overlay: " << e.what() << std::endl;
    return false;
  }
}

// Everything reached the store: the bodies and the empty journal are not needed any more.
void removeCacheRoot(const MountOptions& options) {
  const auto root = options.overlayConfig.get<std::string>("overlay.cacheRoot", "");
  std::error_code error;
  if (!root.empty()) std::filesystem::remove_all(root, error);
  if (error)
    MOUNT_LOG(foundation::log::error) << "cannot remove " << root << ": " << error.message();
}

}  // namespace

MountSession::MountSession(MountOptions options, std::ostream& out)
    : options_(std::move(options)), out_(out) {}

int MountSession::run() {
  FuseArguments arguments(options_);
  const std::size_t storePathPrefix =
      options_.storeKind == MountOptions::StoreKind::File ? options_.storeDirectory.size() : 0;
  FuseFilesystem filesystem(arguments.writebackCacheWanted(), scratchDirectory(options_),
                            storePathPrefix);
  const fuse_operations operations = FuseFilesystem::operations();
  FusePtr handle(fuse_new(arguments.args(), &operations, sizeof operations, &filesystem));
  if (!handle) {
    out_ << "cachemount: FUSE refused the options (see above)" << std::endl;
    return 1;
  }
  if (fuse_mount(handle.get(), options_.mountpoint.c_str()) != 0) {
    out_ << "cachemount: cannot mount on " << options_.mountpoint << std::endl;
    return 1;
  }
  if (fuse_daemonize(options_.foreground ? 1 : 0) != 0) {
    fuse_unmount(handle.get());
    return 1;
  }
  // The stores start threads, which a fork would lose: they are made after fuse_daemonize,
  // with the session's signals blocked so that every thread they start inherits the mask.
  const sigset_t blocked = sessionSignals(true);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  std::unique_ptr<StoreStack> stores;
  try {
    stores = std::make_unique<StoreStack>(options_);
  } catch (const std::exception& e) {
    out_ << "cachemount: cannot open the store: " << e.what() << std::endl;
    fuse_unmount(handle.get());
    return 1;
  }
  filesystem.attach(*stores);
  out_ << "cachemount: mounted " << (stores->isOverlay() ? "the overlay over " : "(pass-through) ")
       << (options_.storeKind == MountOptions::StoreKind::Mem ? "mem:" : options_.storeDirectory)
       << " at " << options_.mountpoint << std::endl;
  if (!announceRecovery(*stores, out_)) {
    fuse_unmount(handle.get());
    return 1;
  }
  if (fuse_set_signal_handlers(fuse_get_session(handle.get())) != 0) {
    fuse_unmount(handle.get());
    return 1;
  }
  // The drain's line is rewritten in place only where someone watches it: on a terminal.
  const bool terminal = &out_ == &std::cerr && ::isatty(STDERR_FILENO) == 1;
  const double minItemWeight =
      options_.overlayConfig.get<double>("overlay.minQueueItemWeight", 0.0);
  QueueReporter reporter(*stores, options_.statsInterval, out_, minItemWeight, terminal);
  reporter.start();
  // Not a stat through the mount from a thread of ours: until the loop answered it, it would
  // keep the mount busy, and an unmount right after mounting would fail.
  filesystem.onFirstRequest([mountpoint = options_.mountpoint, kibibytes = options_.readAheadKiB] {
    setKernelReadAheadLogged(mountpoint, kibibytes);
  });
  const int loopStatus = serve(handle.get(), options_.maxThreads);
  fuse_remove_signal_handlers(fuse_get_session(handle.get()));
  fuse_unmount(handle.get());
  filesystem.detach();
  const bool flushed = flushAndReport(*stores, out_, reporter);
  handle.reset();
  stores->shutdown();
  if (flushed && options_.ownsCacheRoot) removeCacheRoot(options_);
  return flushed && endedCleanly(loopStatus) ? 0 : 1;
}

}  // namespace storage::mount
