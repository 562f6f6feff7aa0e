// MountSession: one mount from start to exit. It sets FUSE up over the mountpoint, goes to
// the background unless asked not to, makes the stores (StoreStack), serves requests on
// FUSE's worker threads until the file system is unmounted (Ctrl-C, SIGTERM, SIGHUP or
// `umount`), then closes what was left open, flushes every queued change to the store and
// reports how long that took.
//
// Signals: SIGINT, SIGTERM, SIGHUP and SIGUSR1 are blocked before any thread of ours or the
// stores' starts, so that only the main thread (which unblocks the first three while the
// session loop runs: libfuse's handlers end the loop) and the QueueReporter (SIGUSR1) get
// them; FUSE's workers block every signal themselves.
// Ownership: owns the FUSE handle, the stores, the file system and the reporter; destroys
// them in reverse order of need (reporter, FUSE, files, stores). Threads: run() is called
// once on the main thread.
#pragma once

#include "MountOptions.h"

#include <ostream>

namespace storage::mount {

class MountSession {
 public:
  MountSession(MountOptions options, std::ostream& out);
  // Exit status: 0 when mounted, served and flushed; 1 when FUSE or the stores could not be
  // set up or the flush failed.
  int run();

 private:
  MountOptions options_;
  std::ostream& out_;
};

}  // namespace storage::mount
