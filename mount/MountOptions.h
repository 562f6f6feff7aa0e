// MountOptions: what the command line asks of cachemount, read with Boost.Program_options.
// A plain value made once on the main thread before anything is mounted.
//
//   cachemount [options] STORE MOUNTPOINT
//   STORE: a local directory (or file:DIR) for the `file` store, or mem: for an in-memory
//   store (gone when the command ends), made slow with --latency-ms for demonstrations.
#pragma once

#include <foundation/storage/provider/sftp/SftpProvider.h>

#include <boost/property_tree/ptree.hpp>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace storage::mount {

// A command line that cannot be used; what() says why (exit code 2).
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct MountOptions {
  enum class StoreKind { File, Mem, Sftp };

  StoreKind storeKind = StoreKind::File;
  std::string storeDirectory;  // absolute; File only (Sftp: the address, for display)
  // Sftp only: the address and the --identity, --known-hosts, --sftp-sessions and
  // --poll-interval settings.
  foundation::storage::provider::sftp::SftpProvider::Options sftp;
  std::string mountpoint;  // absolute
  std::chrono::microseconds latency{0};
  // The "overlay." keys given (and the command's own default queue bound).
  boost::property_tree::ptree overlayConfig;
  std::vector<std::string> fuseOptions;  // each as given to -o
  bool foreground = false;
  bool debug = false;
  bool passThrough = false;
  std::optional<unsigned> logMask;
  // Seconds between queue reports; 0: only on SIGUSR1.
  unsigned statsInterval = 0;
  std::string bundlePath;
  unsigned maxThreads = 10;
  // The kernel's read-ahead for the mount, KiB (KernelReadAhead); 0 leaves the kernel's.
  unsigned readAheadKiB = 1024;
  // The overlay keeps a journal of queued changes in a persistent cache root (not for mem:,
  // which dies with the process, nor in a pass-through; off with --no-journal).
  bool journal = false;
  // --fsync=store: fsync waits until the store holds every change, as without a journal;
  // by default it returns once the changes are durable in the journal.
  bool fsyncToStore = false;
  // The cache root the command chose for the store (no --cache-root): deleted after a clean
  // unmount unless --persist-content-cache asked to keep the bodies.
  bool ownsCacheRoot = false;
};

// Where the command keeps the cache root of a store when none is given: one folder per store
// under $XDG_CACHE_HOME/cachemount, or /var/cache/cachemount for root, or ~/.cache/cachemount,
// named after the store, so that mounting the same store again finds what a crash left.
std::string defaultCacheRoot(const MountOptions& options);

// nullopt when --help was asked (the usage has been written to `out`). Throws UsageError.
std::optional<MountOptions> parseMountOptions(int argc, const char* const* argv, std::ostream& out);

}  // namespace storage::mount
