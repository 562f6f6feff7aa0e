// ChangeJournal: the write-behind queue's changes made durable in the cache root, so that a
// process killed with changes still queued leaves them to the next process over that root.
//
// Every accepted change (a ReplayChange) is appended before its submitter returns and
// confirmed once the store has it. A later open over the same cache root reads back the
// changes still unconfirmed (recovered()), in append order; re-applying them is the caller's.
//
//   auto journal = ChangeJournal::open({cacheRoot});
//   for (const ReplayChange& change : journal->recovered()) reapply(change);  // appends anew
//   journal->finishRecovery();
//   std::uint64_t seq = journal->append(change);   // before the submitter returns
//   ...
//   journal->confirm(seq);                          // once the store has it
//
// Files in the cache root (never in its "V1.0"):
//   lock                 flock(LOCK_EX | LOCK_NB) for the journal's life: one journal per root.
//                        flock dies with its holder, so a dead process's lock is simply taken.
//   journal              the file appended to.
//   journal.recovering   the previous generation while its changes are re-applied: open
//                        renames "journal" to it when something was pending and starts an
//                        empty "journal"; finishRecovery deletes it. An open that finds it
//                        reads it again and discards "journal" (a re-application interrupted
//                        by a crash), so every change appended between open and
//                        finishRecovery must be one of the re-applied ones.
//   journal.tmp          a compaction under way; a leftover one is deleted by open.
//
// File format, every integer fixed-width little-endian, written byte by byte:
//   header   8 bytes: "OVJL" then u32 version (1).
//   record   u32 n (payload bytes, 1..kMaxPayload), CRC32C of the payload (the 4 bytes of
//            Crypto++'s digest: the value little-endian on this little-endian machine),
//            payload[n].
//   payload  u8 type, then by type:
//     1 change        u64 sequence, u8 action (ChangeAction), u32 kind
//                     (ObservableTransactionType), i64 offset, i64 length, i32 flags,
//                     u8 present (bit 0: destination, bit 1: time), str location,
//                     [str destination], [u8 time form (0 a date and time, 1 not-a-date-time,
//                     2 -infinity, 3 +infinity), i64 microseconds since 1970-01-01 (form 0
//                     only)]; str = u32 byte count, then the IRI's toString() text (UTF-8).
//     2 confirmation  u32 count, count x u64 sequence.
// A record is good when its length lies within the file, its CRC matches and its payload
// decodes exactly (known type, action and kind, no byte left over) and, for a change, its
// sequence is above every earlier change's in the file (a stale tail left past a truncation
// that did not reach the disk has lower ones). The first bad record ends the file: open cuts it
// there with a warning and uses nothing after it. Pending = changes minus confirmed sequences.
//
// Size: the file holds what is pending, not the history. Confirmations are batched in memory
// and written as one record in the same write as the next change, at the next sync, by the
// sync thread, or when a batch reaches kConfirmBatch. When nothing is pending the file is cut back
// to its header (ftruncate). When it outgrows max(1 MiB, 4 x the pending records' bytes), the
// pending records (kept encoded in memory) are written to "journal.tmp", which is fdatasync'd and
// renamed over "journal" (the folder is fsync'd), and appending continues there.
//
// Durability: append() writes its record with one write(2) (O_APPEND) under the mutex, so it
// has reached the operating system when append returns; a write that fails is cut off again so
// that no torn record sits before later ones. sync() and the sync thread (at least every
// syncInterval while something is unsynced) put on disk the bodies written since the last sync
// (noteBodyWritten; the records refer to bytes in them), the bodies' folder, then the journal
// (fdatasync), in that order, so a record never reaches the disk before the bytes it names.
// They run outside the mutex: they note how many writes they cover, sync holding only
// syncMutex_ (never the mutex appends take) and then raise the "synced up to" count, so
// appends do not wait for the disk. A body noted after its record was synced is synced by the
// next sync even when no record is new. Compaction is the exception: it
// fdatasyncs its new file with the mutex held (appends wait for it then; it is rare, once per
// growth past the bound).
//
// Ownership: open() hands out the one shared_ptr; the sync thread and nothing else refers to
// the object, and the destructor joins it. recovered() is fixed at open and may be read by any
// thread. Locks, in order: syncMutex_ (serialises fdatasyncs) before mutex_ (all the state);
// stopMutex_ (the sync thread's sleep) is taken alone. No caller's code runs under any. Threads:
// append, confirm, sync, pendingCount, fileSize from any thread; finishRecovery once, from the
// thread that re-applied; the sync thread is the journal's own.
#pragma once

#include "core/execution/ReplayChange.h"
#include "core/journal/DurableBodies.h"
#include "core/support/Mutex.h"

#include <boost/filesystem/path.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace storage::overlayprovider {

class ChangeJournal {
 public:
  struct Options {
    boost::filesystem::path folder;  // the cache root (never its "V1.0")
    std::chrono::milliseconds syncInterval{
        1000};  // fdatasync this often while anything is unsynced
  };

  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::size_t kHeaderSize = 8;
  static constexpr std::uint32_t kMaxPayload = 16u << 20;
  static constexpr std::size_t kConfirmBatch = 256;
  static constexpr std::uintmax_t kCompactionFloor = 1u << 20;

  // Takes the lock (Exception(ResourceBusy, folder) while another live journal holds it),
  // reads what an earlier process left and opens the journal for appending. Creates the folder
  // when missing. A "journal" that is not this format (magic or version) is refused with
  // Exception(IOError) rather than overwritten; an I/O failure throws Exception(IOError).
  static std::shared_ptr<ChangeJournal> open(Options options);
  // Stops the sync thread, writes the confirmations, syncs, closes, releases the lock. Logs
  // and swallows every failure.
  ~ChangeJournal();
  ChangeJournal(const ChangeJournal&) = delete;
  ChangeJournal& operator=(const ChangeJournal&) = delete;

  // The changes an earlier process left unconfirmed, in append order. Fixed at open.
  const std::vector<ReplayChange>& recovered() const { return recovered_; }
  // Once every recovered change has been re-appended: syncs this journal and deletes
  // "journal.recovering". A second call does nothing.
  void finishRecovery();

  // Appends one record and returns its sequence number (above every earlier one); the record
  // has reached the operating system when this returns. Throws Exception(IOError) when the
  // write fails (nothing of the record is left in the file then) and Exception(InvalidLocation)
  // for a change whose record would exceed kMaxPayload.
  std::uint64_t append(const ReplayChange& change);
  // The store has the change: it leaves the journal. An unknown or repeated sequence is ignored.
  // Never throws: a confirmation that cannot be written is logged and kept in the batch (lost,
  // it would only replay a change the store already has).
  void confirm(std::uint64_t sequence);
  // The body behind `body` was written (or truncated) for a change recorded here: the next
  // sync puts it on disk.
  void noteBodyWritten(DurableBodies::Descriptor body) { bodies_.note(std::move(body)); }
  // Everything appended or confirmed before the call is on disk, with the bodies noted before
  // it, when this returns.
  void sync();
  std::size_t pendingCount() const;
  // The journal file's size now (fstat), for tests and statistics.
  std::uintmax_t fileSize() const;

 private:
  struct File;  // an open descriptor, closed by its destructor; shared with a running sync

  explicit ChangeJournal(Options options);
  void recover();
  void syncLoop() noexcept;
  void writeLocked(const std::string& bytes) OVERLAY_REQUIRES(mutex_);
  void flushConfirmationsLocked() OVERLAY_REQUIRES(mutex_);
  // The waiting confirmations as framed records (none: empty), taken out of the batch.
  std::string takeConfirmationsLocked() OVERLAY_REQUIRES(mutex_);
  void compactIfNeededLocked() OVERLAY_REQUIRES(mutex_);

  const Options options_;
  std::unique_ptr<File> lockFile_;  // holds the flock until the journal is gone
  std::vector<ReplayChange> recovered_;
  bool recovering_ = false;  // touched by open and finishRecovery only
  DurableBodies bodies_;     // of the content cache's "V1.0" beside the journal

  Mutex syncMutex_;
  mutable Mutex mutex_;
  std::shared_ptr<File> file_ OVERLAY_GUARDED_BY(mutex_);
  std::uintmax_t size_ OVERLAY_GUARDED_BY(mutex_) = 0;
  std::uint64_t nextSequence_ OVERLAY_GUARDED_BY(mutex_) = 1;
  // The pending records as written, by sequence (append order), and their total size.
  std::map<std::uint64_t, std::string> pending_ OVERLAY_GUARDED_BY(mutex_);
  std::uintmax_t pendingBytes_ OVERLAY_GUARDED_BY(mutex_) = 0;
  std::vector<std::uint64_t> confirmations_ OVERLAY_GUARDED_BY(mutex_);
  // Writes (and truncations) made, and how many of them an fdatasync covers.
  std::uint64_t written_ OVERLAY_GUARDED_BY(mutex_) = 0;
  std::uint64_t synced_ OVERLAY_GUARDED_BY(mutex_) = 0;
  // Set when a failed write could not be cut off again: later records would follow garbage.
  bool broken_ OVERLAY_GUARDED_BY(mutex_) = false;

  // The sync thread's sleep and its stop; held for nothing else.
  std::mutex stopMutex_;
  std::condition_variable stopWake_;
  bool stopping_ = false;
  std::thread syncThread_;
};

}  // namespace storage::overlayprovider
