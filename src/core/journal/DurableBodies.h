// DurableBodies: the cached bodies written since the journal was last synced. The journal's
// records of writes refer to bytes in the bodies, so the bodies must be on disk with the
// records; syncing those bodies and their folder, rather than the whole file system the cache
// lies on (syncfs), leaves to the kernel's own write-back everything that needs no flush: the
// store's files when the store is a local folder, the bodies the overlay only fetched (the
// store holds their bytes) and every other program's files on that disk. A 1 GiB write with
// a final fsync used to write the body and the store's copy, both, before the fsync returned.
//
// Many bodies at once (a program writing hundreds of small files a second) are synced with
// syncfs after all: one call, where one fdatasync a body would each wait for the file
// system's own journal, and the descriptors are let go at once rather than held open (and
// counted against the process's limit) until the next sync.
//
// Ownership: a member of the ChangeJournal. Noted bodies are held by their shared descriptor,
// so a body that its working file closed (or whose name was deleted) meanwhile is still synced
// through it, and the descriptor stays open until that sync.
// Locks: one mutex, held only to note a body or take the set; the syncs run outside it.
// Threads: note from the callers' threads (at each write or truncation of a body), sync from
// the journal's sync (its own thread, or a caller's fsync).
#pragma once

#include <boost/iostreams/device/file_descriptor.hpp>

#include <memory>
#include <mutex>
#include <unordered_set>

namespace storage::overlayprovider {

class DurableBodies {
 public:
  using Descriptor = std::shared_ptr<boost::iostreams::file_descriptor>;

  // More bodies than this since the last sync are synced with the whole file system.
  static constexpr std::size_t kMostBodies = 64;

  // The body behind `body` holds bytes that a journal record refers to. Null: ignored.
  void note(Descriptor body);
  // fdatasync of every body noted before the call, or syncfs of the file system that
  // `onFileSystem` (any descriptor on it) is on when there were more than kMostBodies; returns
  // whether there was any (the journal then syncs the bodies' folder too: a new body's name
  // must survive with its bytes). A failure throws std::system_error and leaves what was not
  // synced noted, for the next sync.
  bool sync(int onFileSystem);

 private:
  std::mutex mutex_;
  std::unordered_set<Descriptor> noted_;
  bool tooMany_ = false;  // noted_ was given up for a syncfs
};

}  // namespace storage::overlayprovider
