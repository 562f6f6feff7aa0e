// WorkingFileEntry: the state the overlay keeps for one file whose body is cached or open:
// the cached body (a CacheResource), the file's metadata record, the writes not yet handed to
// the executor, and the file's one stream on the inner store.
//
// Reads are served from the cached body. Writes land in the cached body at once, are
// coalesced into pending blocks (see PendingWrites), and reach the inner store as FILE_WRITE
// transactions on the executor; the caller never waits for the store on a write. A block
// refers to its bytes in the body rather than copying them (see PendingWriteBlock), so the
// caller pays one local write; the bytes are copied out of the body before anything can take
// them away (eviction, a stale or failing body, a truncating open, the entry leaving the
// content cache).
//
// Choices where the behaviour is ours to make:
//  - Read misses: the missing bytes are fetched from the inner stream on the caller's thread,
//    stored in the cached body with their range, and then served; the next read of that
//    range makes no store call. One fetch asks for at most "overlay.maxReadPayloadSize"
//    bytes. Its size adapts: a read from the start of the file fetches that limit, a read
//    that continues where the last one ended doubles the read-ahead (up to the limit), any
//    other read fetches what it asks for, at least 128 KiB, and never beyond the file's end or into
//    bytes already cached (which may hold writes the store has not seen yet). So a sequential
//    reader is served in few large requests and a read at the end of a large file fetches only the
//    end.
//  - A read that misses while the cached body may lack bytes still queued for the store (the
//    body was evicted or failed, or content caching is disabled) first hands the pending
//    block over and waits, in rounds of QV_OVERLAY_WAIT_FOR_ZERO_PERIOD milliseconds (default
//    2000), until no transaction of this file is pending or the entry is aborted; only then is
//    the store asked, so a read never returns bytes older than a write the caller made.
//    Likewise, a read that misses while the file's record is still frozen (its creation, a
//    move onto it or a truncation has not reached the store) first waits once until every
//    change queued so far has been replayed: before that, the store holds older bytes there,
//    or nothing.
//  - The inner stream: at most one per entry. It is opened on first need: by a read miss (on
//    the caller's thread, read-only), by the first FILE_WRITE, or by the FILE_OPEN_READWRITE
//    that an open queues when it must change the store (create or truncate the file). A
//    read-only stream is replaced by a read-write one when a write needs it. It is closed
//    by the FILE_CLOSE transaction queued when the last open stream closes; that task then
//    sets the file's last-modified time on the store and reads its extended attributes back
//    (keeping "WATERMARK" current), once per close rather than once per write, so that a
//    large write costs the store one call per block. A plain read-only open queues nothing:
//    a fully cached file is then read with no store call at all.
//  - Writes go to the inner stream with a seek only when the stream is not already at the
//    block's offset.
//  - Sizes: a truncation (truncateToSize) ftruncates the cached body in place, so an extension
//    is a hole that takes no space and reads as zeros, and reaches the store as one
//    truncateToSize queued in order with the writes, never as written zeros. A write beyond
//    the end first extends the file that way. Queued blocks whose body bytes a shrink cuts are
//    clipped at the new end (the truncation behind them would cut those bytes anyway).
//  - Room: a write or a truncation is refused before it lands when the file's growth would
//    exceed the quota accountant's estimate of the store's free space (QuotaExceeded; an
//    overwrite grows nothing and takes none), or, for a store with a local cache of its own
//    (ExtendedFeature::CacheUsage), beyond the room that cache reports (CacheSpaceExhausted;
//    the store answers from memory). A write asks no other store. The bytes a write adds past
//    the end also need room in the content cache (settings_.cacheRoom, which may evict settled
//    bodies); when none can be had the write is refused (CacheSpaceExhausted) rather than
//    filling the local disk.
//  - When the last stream closes, a complete body (every byte of the file cached) is stamped
//    with the file's last-modified time (in persistent mode also flushed to disk), so that a
//    later entry takes it as fresh; a partial body is stamped with the epoch, so that no later
//    entry takes it for whole. A truncating open drops the body and starts an empty one.
//  - Write-through mode (content caching disabled): every contiguous write is handed over at
//    once, and reads go to the inner store after the file's pending writes have drained.
//  - Streams are counted by id (StreamRegistration); a second close of one stream is harmless.
//  - flushContentCache hands the pending blocks over and waits until no transaction of this
//    file is pending.
//
// Ownership: made by the ContentCache (std::make_shared) and shared by the cache, every
// stream on the file and every queued transaction of the file; everything it uses is held by
// shared ownership, so it may outlive the cache and the provider. Once the provider's
// executor has stopped, its further transactions are dropped (and logged by the executor).
//
// Journal ("overlay.journal"): each change of the file is recorded before the caller returns:
// a write (its range; the bytes stay in the body), a truncation and an emptying open before
// they change the body, so that a crash in between never leaves the records of earlier writes
// pointing at bytes that no record accounts for; the others when they are queued. The records
// are confirmed when the task that carries them has run or was absorbed (see
// unconfirmedWrites_).
//
// Locks, in order: submitMutex_ (serialises handing blocks to the executor, so that they
// reach it in the order they were written), innerMutex_ (the inner stream and its position),
// mutex_ (size, open streams, pending blocks, cached body), pendingMutex_ (count of queued
// transactions). The ContentCache takes its own mutex and then mutex_; the entry calls into
// the content cache only through settings_.cacheRoom, and then holds none of its locks. No
// lock but innerMutex_ is held while the store is called.
// Threads: streams call in from the host's threads; transactions run on the executor's
// thread; the content cache calls its management operations from the host's threads.
#pragma once

#include "core/cacheresources/CacheMode.h"
#include "core/cacheresources/CacheResource.h"
#include "core/cacheresources/FilesystemCacheResource.h"
#include "core/execution/ObservableTransactionType.h"
#include "core/execution/ReplayChange.h"
#include "core/metadata/FileMetadata.h"
#include "core/workingfiles/PendingWriteBlock.h"
#include "core/workingfiles/PendingWrites.h"
#include "core/workingfiles/StreamRegistration.h"
#include "core/workingfiles/WorkingFileSettings.h"

#include <foundation/storage/provider/ByteStream.h>

#include <atomic>
#include <boost/filesystem/path.hpp>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class JournalReceipt;

class WorkingFileEntry : public std::enable_shared_from_this<WorkingFileEntry> {
 public:
  WorkingFileEntry(std::shared_ptr<FileMetadata> record,
                   const boost::filesystem::path& cacheDirectory, CacheMode mode,
                   WorkingFileSettings settings);
  WorkingFileEntry(const WorkingFileEntry&) = delete;
  WorkingFileEntry& operator=(const WorkingFileEntry&) = delete;
  ~WorkingFileEntry();

  // --- streams (host threads) ---
  // Registers a stream. Read-write opens that create or empty the file queue the
  // FILE_OPEN_READWRITE that does it on the store; `onOpened` runs after that transaction.
  std::shared_ptr<StreamRegistration> openReadOnly();
  std::shared_ptr<StreamRegistration> openReadWrite(const fsp::ByteStreamOpenOptions& options,
                                                    std::function<void()> onOpened);
  // Bytes read into `buffer`, or -1 at or past the end of the file.
  std::int64_t readAt(std::int64_t offset, char* buffer, std::int64_t count);
  // Where the `count` bytes at `offset` (fewer only at the end of the file, none past it) lie
  // in the body, so that the caller may read them itself. Empty unless the body holds all of
  // them: readAt serves them then, fetching what is missing.
  std::optional<fsp::extensions::LocalBytes> locateAt(std::int64_t offset, std::int64_t count);
  // A write beyond the end first extends the file as truncate does (a hole, no zeros written).
  std::int64_t writeAt(std::int64_t offset, const char* data, std::int64_t count);
  std::int64_t append(const char* data, std::int64_t count);
  std::uint64_t size() const;
  void close(std::uint64_t streamId);
  // The stream `streamId` went away without closing (see StreamRegistration).
  void releaseStream(std::uint64_t streamId);
  // Truncates the file to `size` (the provider's truncateToSize), open or not: the cached body
  // in place (see FilesystemCacheResource::truncate), the size, the record and its time at
  // once; the store by one truncation queued behind the writes already made. Queued blocks
  // that refer to body bytes a shrink cuts are clipped first. A size the cache's file system
  // cannot hold is refused (CacheSpaceExhausted, "file too large"), as is growth beyond the
  // quota estimate (QuotaExceeded), before anything changes or is queued. With no stream
  // open, the closing transaction follows as after a stream's last close.
  void truncate(std::uint64_t size);
  // Hands the pending blocks to the executor.
  void enqueueProviderWrite();
  // Hands the pending blocks over and waits until no transaction of this file is pending.
  void flushContentCache();

  // --- the content cache's view (called under the content cache's mutex) ---
  std::size_t openCount() const;
  // No stream open or about to open (pinned), nothing written that the store has not
  // received: the body holds exactly what the store held when the entry last synchronised.
  bool isIdle();
  // A caller that got the entry from the content cache and is about to open a stream on it
  // holds a pin meanwhile, so that no other thread evicts the entry in between.
  void pin() { ++pins_; }
  void unpin() { --pins_; }
  // 1 while the last stream is closing, 0 otherwise.
  int state() const;
  std::int64_t lastAccess() const { return lastAccess_.load(); }
  // Sets the aborted flag; returns its previous value.
  bool abort() { return aborted_.exchange(true); }
  bool isAborted() const { return aborted_.load(); }
  // Stamps the access time and wakes readers waiting for pending writes.
  void stampAndWake();
  // Deletes the cached body (eviction, stale body); readers then fetch from the store.
  void removeCachedBody();
  // The file moved in the overlay: the body follows and the inner stream is reopened at the
  // new location by the next transaction that needs it. When the move takes the file's
  // unsent creation along (absorption), its queued changes carry kFollowsMove and the
  // relocation queued here goes: the file is then created at the new location directly.
  void moveTo(const fsp::StorageIRI& location);
  // The entry leaves the content cache: its unsent bytes are copied out of the body, and
  // unless streams still use it, a partial body is stamped so that no later entry takes it
  // for whole.
  void detach();

  // --- queries ---
  std::shared_ptr<FileMetadata> record() const;
  // The metadata cache made a new record for the file (it moved): the entry keeps that one
  // current from now on, handing it its own size and time.
  void adoptRecord(const std::shared_ptr<FileMetadata>& record);
  fsp::StorageIRI location() const;
  // Whether a stream that can write is open (its size and time are then the truth).
  bool isOpenForWriting() const;
  boost::posix_time::ptime lastModified() const;
  std::shared_ptr<CacheResource> resource() const;

 private:
  class PendingTicket;

  // Caller side (WorkingFileEntry.cpp).
  void touch();
  std::uint64_t registerStream(bool writable);
  void openBodyLocked();
  // readCachedLocked, and a sequential reader's next position when it served anything.
  std::int64_t serveCachedLocked(std::int64_t offset, char* buffer, std::int64_t count);
  std::int64_t readCachedLocked(std::int64_t offset, char* buffer, std::int64_t count);
  bool bodyMayLackPendingWritesLocked() const;
  bool waitForPendingWrites();
  // Waits until every change queued so far has reached the store.
  void waitForEarlierChanges();
  std::int64_t fetchWindowLocked(std::int64_t offset, std::int64_t count) const;
  std::int64_t fetch(std::int64_t offset, char* buffer, std::int64_t count);
  void checkSpace(std::int64_t offset, std::int64_t count);
  // Refuses (CacheSpaceExhausted) a write whose new bytes past the end the content cache
  // cannot make room for (settings_.cacheRoom); called with no lock held.
  void checkCacheRoom(std::int64_t offset, std::int64_t count);
  // Refuses (QuotaExceeded) growing the file to `end` bytes beyond the quota estimate.
  void checkGrowthLocked(std::int64_t end) const;
  // Truncates the cached body to `size`. Throws (CacheSpaceExhausted, "file too large") and
  // changes nothing when the body's file system cannot hold that size; drops the body on any
  // other failure.
  void noteBodyWrittenLocked();
  void truncateBodyLocked(std::int64_t size);
  // After truncateBodyLocked: sets the size and the record to `size`, hands the pending blocks
  // over and clips the blocks a shrink cuts; the caller queues the store's truncation right
  // after `handOver`.
  void resizeLocked(std::int64_t size, std::vector<std::shared_ptr<PendingWriteBlock>>& handOver);
  // Counts a change of the file's size in the quota estimate.
  void accountSizeChangeLocked(std::int64_t from, std::int64_t to);
  // `own`: its journal record, made before the body was cut; none for an extension, which the
  // write's record implies.
  void submitTruncation(std::int64_t size, std::optional<std::uint64_t> own);
  void writeLocked(std::int64_t offset, const char* data, std::int64_t count,
                   std::vector<std::shared_ptr<PendingWriteBlock>>& handOver);
  void recordLocked(std::int64_t offset, const char* data, std::int64_t count, bool inBody,
                    std::vector<std::shared_ptr<PendingWriteBlock>>& handOver);
  // Notes the blocks in `handOver` from `first` on as sent but not yet replayed.
  void noteHandedOverLocked(const std::vector<std::shared_ptr<PendingWriteBlock>>& handOver,
                            std::size_t first);
  // Moves the pending blocks (those that hold anything) to `handOver`.
  void handOverLocked(std::vector<std::shared_ptr<PendingWriteBlock>>& handOver);
  // Reads body bytes straight from the body file (also after a failed body write), through
  // the descriptor that wrote them, so a body deleted from outside still gives them back.
  std::int64_t readBodyLocked(std::int64_t position, char* buffer, std::int64_t count) const;
  // Copies into memory every unsent byte that only the body holds, before the body can lose
  // it. Logs (and gives up) what can no longer be read.
  void holdUnsentBytesLocked();
  void submitWrites(const std::vector<std::shared_ptr<PendingWriteBlock>>& blocks);
  // A change of this file at its present location.
  ReplayChange change(ObservableTransactionType kind, ChangeAction action) const;
  // Queues `run` (the store's half) with `moot` (the local half, run instead when a later change
  // absorbs this one; empty: never absorbed). Both hold the file's pending ticket.
  // `recorded`: what confirms the change's journal records, when they were made before it was
  // applied (empty pointer: none); without it, journalReceipt(change) makes them now.
  void submit(std::function<void(const ReplayChange&)> run, std::function<void()> moot,
              const ReplayChange& change, double weight,
              std::optional<std::shared_ptr<JournalReceipt>> recorded = std::nullopt);
  void submitClose();
  // The journal (all called under submitMutex_, all empty without a journal):
  // recordInJournal appends `change` and returns its record; retract takes a record back (the
  // change failed before it was applied); journalReceipt records `change` (not a write, whose
  // record was made with it, nor a stream's relocation) and returns what confirms it;
  // receiptWith does the same with the record `own` made before. For a close, truncation or
  // open, the receipt also takes the file's unconfirmed writes along.
  std::optional<std::uint64_t> recordInJournal(const ReplayChange& change);
  void retract(std::optional<std::uint64_t> record);
  std::shared_ptr<JournalReceipt> journalReceipt(const ReplayChange& change);
  std::shared_ptr<JournalReceipt> receiptWith(const ReplayChange& change,
                                              std::optional<std::uint64_t> own);
  std::shared_ptr<PendingTicket> newTicket();
  void stampBodyLocked();
  // The record stays frozen from the first writable open until the last closing transaction
  // queued has run, so that a folder listed again from a lagging store keeps this record (and
  // its size). An earlier session's close may run after a later session has closed too: the
  // later one's writes are still queued behind it, so that close must not release the hold.
  void holdRecordLocked();
  void releaseRecordLocked();
  bool bodyCompleteLocked() const;

  // Executor side (WorkingFileEntryInner.cpp); callers hold innerMutex_.
  fsp::StorageItem innerItemLocked() const;
  void openInnerLocked(const fsp::ByteStreamOpenOptions& options);
  // `creating`: the stream may have to create the file (its creation was merged into a write).
  void ensureInnerStreamLocked(bool forWriting, bool creating = false);
  void seekInnerLocked(std::int64_t offset);
  std::int64_t readInnerLocked(char* buffer, std::int64_t count);
  // `flags`: the write's ReplayChange flags as the executor holds it (kCreatesFile,
  // kWholeFile).
  void writeInner(const std::shared_ptr<PendingWriteBlock>& block, int flags);
  // A queued block that will never be written (its file was removed before it was): the
  // body need no longer keep its bytes for it.
  void forgetUnsent(const std::shared_ptr<PendingWriteBlock>& block);
  // Runs `call` again while the store answers Unavailable (also through a stream failure) and
  // the settings' UnavailableRetry allows, dropping the inner stream after each failure; logs
  // `failure` and returns false when it gives up.
  bool retryingInnerCall(const std::function<void()>& call, const char* failure);
  // The block's bytes, from memory or read from the body into innerBuffer_.
  const char* blockBytesLocked(const std::shared_ptr<PendingWriteBlock>& block);
  void writeInnerLocked(const std::shared_ptr<PendingWriteBlock>& block, bool creating);
  // The block as the file's whole content, stamped with the file's time: one call where the
  // store offers whole-file writes, otherwise a stream that empties the file and the write.
  void writeWholeFileLocked(const std::shared_ptr<PendingWriteBlock>& block);
  void closeInnerLocked();
  void runOpen(const fsp::ByteStreamOpenOptions& options, const std::function<void()>& onOpened);
  void runClose();
  // The close's local half: the bookkeeping after the store's stream has closed (also when the
  // close was absorbed and the store never saw the file).
  void finishClose();
  // The store's half of a truncation: the inner stream is closed first (a stream may hold
  // bytes or a position that the truncation would contradict), then truncateToSize.
  void runTruncate(std::int64_t size);
  // `stamped`: the store's copy already carries that time (a whole-file write set it).
  void updateStoreAfterWrites(const boost::posix_time::ptime& lastModified, bool stamped);
  void relocateInner(const fsp::StorageIRI& location);
  // A change that the file's move took along before it replayed (ReplayChange::kFollowsMove):
  // the stream works at the move's destination from now on, and the creation there replaces
  // what the store may hold.
  void followMove(const fsp::StorageIRI& location);

  std::shared_ptr<FileMetadata> record_;  // guarded by mutex_ (replaced by adoptRecord)
  const WorkingFileSettings settings_;
  const CacheMode mode_;
  const std::shared_ptr<CacheResource> resource_;
  // The same resource when it keeps a body on disk (null for a disabled content cache).
  FilesystemCacheResource* const body_;
  std::atomic<bool> aborted_{false};
  std::atomic<int> pins_{0};
  std::atomic<std::int64_t> lastAccess_{0};

  std::mutex submitMutex_;
  // Journal records of writes whose bytes have not all been handed to the executor in a task
  // that follows them; the next close, truncation or emptying open of the file carries them
  // and confirms them once it has run (by then every earlier write of the file has too).
  // Guarded by submitMutex_.
  std::vector<std::uint64_t> unconfirmedWrites_;

  std::mutex innerMutex_;
  fsp::StorageIRI innerLocation_;
  fsp::ByteStreamPtr innerStream_;
  bool innerWritable_ = false;
  std::int64_t innerPosition_ = -1;
  bool innerWritten_ = false;
  bool replaceOnCreation_ = false;  // see followMove
  // The time a whole-file write gave the store's copy since the last close, if any.
  std::optional<boost::posix_time::ptime> innerStampedAt_;
  std::vector<char> innerBuffer_;  // body bytes on their way to the store

  mutable std::mutex mutex_;
  fsp::StorageIRI location_;
  std::int64_t size_;
  std::set<std::uint64_t> openStreams_;
  std::set<std::uint64_t> writableStreams_;
  std::uint64_t nextStreamId_ = 1;
  int state_ = 0;
  int closesQueued_ = 0;     // closing transactions submitted and not yet run
  bool writesHeld_ = false;  // this entry holds record_ frozen (see holdRecordLocked)
  PendingWrites pendingWrites_{settings_.maxWritePayloadSize, settings_.mergeWrites};
  // Handed-over blocks whose bytes their transactions have not read from the body yet.
  std::vector<std::shared_ptr<PendingWriteBlock>> unsentBodyBlocks_;
  bool bodyLost_ = false;
  // A queued write found its bytes gone from the body (a failure of this process): the store
  // lacks them, so the body is never stamped as the store's copy and the close says so.
  bool bytesLost_ = false;
  std::uint64_t generation_ = 0;  // bumped by every local change of the body
  std::int64_t nextSequential_ = 0;
  mutable std::int64_t readAhead_ = 0;

  std::mutex pendingMutex_;
  std::condition_variable pendingChanged_;
  std::int64_t pendingTransactions_ = 0;
};

}  // namespace storage::overlayprovider
