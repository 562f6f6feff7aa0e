// ContentCache: the on-disk area where file bodies are kept, and the registry of the working
// file entries that use it (one per overlay file whose body is cached or open).
//
// Layout: a cache root (by default a fresh "overlay_cache-<random UUID>" directory in the
// system's temporary directory, or "overlay.cacheRoot"), holding a "V1.0" directory in which
// every body lies as "<base64url Blake2b of the file's IRI>.cache". There is no index: what
// is cached is known from the body files and the entries in memory. The version directory is
// recreated by every operation, so one deleted from outside comes back. A body that a
// removal, re-creation or replacing move discards is renamed into "discarded" beside it at
// once and deleted there by the BodyDisposal's thread (a deletion is several times dearer).
// The names of the bodies found at the first use and of those made since are kept, so that a
// name that never had a body costs no look at the disk.
//
// Space: before an entry is made, the arbitrator is asked for the file's whole size; while it
// refuses, the least recently accessed settled entry is evicted (its body deleted). Settled
// means no stream open, nothing queued for the store and the file's record confirmed. When no
// entry is settled, the cache goes over its space for now rather than fail the caller. A body
// that grows afterwards (a write past the file's end) asks for its new bytes the same way
// (grantGrowth), and is refused only when the disk could not hold them at all. A truncation
// that extends a file asks for nothing: the body gets a hole, which takes no space.
//
// Deliberate deviation: entries in use or ahead of the store are never evicted. A read after
// an eviction goes to the store, and while the file's changes are still queued the store holds
// older bytes, or nothing at all for a file whose creation or move has not been replayed: the
// reader would get old bytes or NotFound, and a truncate of the evicted file would fail.
// Second deviation: with no entry left and still no space, the bodies made here that no
// entry uses (kept on disk for a later entry of the same file) are deleted before the cache
// gives up. Those bodies are what holds the space then, and giving up turns the provider into
// pass-through for good: every later call waits for the store, and its failures reach callers.
// For the same reason, when what holds the space is bodies whose released entries still have
// a stream open or writes queued, the cache goes over its space until they settle, as it does
// when no registered entry is settled.
// Entries that leave the registry are kept alive in a release list until the next flush or
// invalidation, or until the executor reports new activity, so that a transaction or a
// caller that fetched one may still use it.
//
// Choices where the behaviour is ours to make:
//  - Temporary mode deletes, when the provider shuts down and again when the cache is
//    destroyed, every body file it made. A root the cache made itself (the default one) goes
//    whole with them: nobody else knows its name, so nothing else would ever delete it. A
//    root that was configured stays with its "V1.0", since it may hold what others put there.
//    Persistent mode deletes nothing.
//  - removeEntry hands the entry's pending writes to the executor; it does not wait for
//    them (the cache's mutex must not be held for the store's time).
//  - moveEntry and moveFolderEntries re-key the entries and move their bodies; they do not
//    abort them, so streams open on a moved file keep working.
//  - An entry that leaves the registry is told to (WorkingFileEntry::detach), so that a
//    partial body left on disk is never taken for whole later.
//
// Ownership: the provider owns its content cache through std::unique_ptr and destroys it
// after its executor. The cache shares ownership of its entries with their streams.
// Locks: mutex_ for every operation, for its whole duration, then an entry's own lock (never
// the other way round); the arbitrator is called under mutex_. markActivity takes no lock.
// What mutex_ guards is annotated, so a clang build checks it (core/support/Mutex.h).
// Threads: the host's threads (opening streams, mutations, flush), the executor's activity
// callback (markActivity).
#pragma once

#include "core/cacheresources/CacheMode.h"
#include "core/contentcache/BodyDisposal.h"
#include "core/contentcache/ICacheSpaceArbitrator.h"
#include "core/support/Mutex.h"
#include "core/workingfiles/WorkingFileEntry.h"
#include "core/workingfiles/WorkingFileSettings.h"

#include <foundation/storage/provider/StorageIRI.h>

#include <atomic>
#include <boost/filesystem/path.hpp>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace storage::overlayprovider {

class ContentCache {
 public:
  // Makes the arbitrator for a version directory (replaceable for tests).
  using ArbitratorFactory =
      std::function<std::unique_ptr<ICacheSpaceArbitrator>(const boost::filesystem::path&)>;

  ContentCache();
  ContentCache(const ContentCache&) = delete;
  ContentCache& operator=(const ContentCache&) = delete;
  // Temporary mode: deletes the bodies it made. Catches and logs everything.
  ~ContentCache();

  // Configuration, before first use.
  void setCacheRoot(boost::filesystem::path root);
  void setPersistent();
  void setArbitratorFactory(ArbitratorFactory factory);
  CacheMode mode() const;
  boost::filesystem::path cacheRoot() const;
  boost::filesystem::path versionDirectory() const;

  // Creates the version directory when missing and the arbitrator when there is none.
  void ensureInitialized();
  // The entry of a file, made when missing (throws CachingErrorException). It comes pinned
  // (WorkingFileEntry::pin): the caller unpins it once its stream is open or the open failed.
  std::shared_ptr<WorkingFileEntry> retrieve(const fsp::StorageIRI& iri,
                                             const std::shared_ptr<FileMetadata>& metadata,
                                             const WorkingFileSettings& settings);
  // Room for `bytes` more bytes of a body that grows (a write past a file's end): asked of the
  // arbitrator, evicting settled entries while it refuses. When none is left to evict, the
  // growth is granted only if the disk can hold it at all (ICacheSpaceArbitrator::canHold):
  // entries in use may take the cache over its share for a while, as at retrieve, but no
  // growth may fill the disk. Never throws; a failure to measure grants the room (and is
  // logged).
  bool grantGrowth(std::uint64_t bytes);
  bool contains(const fsp::StorageIRI& iri);
  // The entry of a file, if there is one; nothing is made.
  std::shared_ptr<WorkingFileEntry> find(const fsp::StorageIRI& iri);
  // An entry exists with a stream open (and, with checkState, not closing).
  bool isInUse(const fsp::StorageIRI& iri, bool checkState);
  // Drops the entry and its body when its record's "WATERMARK" differs from `watermark`.
  void dropIfStale(const fsp::StorageIRI& iri, const std::string& watermark, bool notify);
  // Drops an idle entry whose record says another size or last-modified time than `current`,
  // the file's record as the metadata cache now holds it (someone else changed the file in
  // the store, and the change event made the cache read it again).
  void dropIfOutdated(const fsp::StorageIRI& iri, const std::shared_ptr<FileMetadata>& current);
  void removeEntry(const fsp::StorageIRI& iri, bool notify);
  // As removeEntry, and the body on disk goes too, with or without an entry: the file is
  // removed, replaced or made anew, so no later entry may take that body for its own.
  void discardEntry(const fsp::StorageIRI& iri, bool notify);
  // Returns the entry now at `to`, if any (the moved one).
  std::shared_ptr<WorkingFileEntry> moveEntry(const fsp::StorageIRI& from,
                                              const fsp::StorageIRI& to);
  void removeFolderEntries(const fsp::StorageIRI& folder, bool notify);
  void moveFolderEntries(const fsp::StorageIRI& from, const fsp::StorageIRI& to);
  // Drops every entry (whole-overlay invalidation).
  void clear();
  // The provider shuts down: every entry is dropped and, in temporary mode, every body made
  // so far is deleted (streams still open keep reading through their open descriptors).
  void discard();
  // The entries now registered, for handing their pending writes over at a flush.
  std::vector<std::shared_ptr<WorkingFileEntry>> entries();
  void releasePending();
  // The executor has work again: the next deferred release may free the older ones.
  void markActivity() { activitySeen_.store(true); }

 private:
  using EntryMap = std::map<fsp::StorageIRI, std::shared_ptr<WorkingFileEntry>>;

  void ensureInitializedLocked() OVERLAY_REQUIRES(mutex_);
  void makeRoomLocked(std::uint64_t bytes) OVERLAY_REQUIRES(mutex_);
  // Evicts the least recently accessed entry that may go; false when none may.
  bool evictOneLocked() OVERLAY_REQUIRES(mutex_);
  // Remembers the entry's body, and the entry made over it.
  void noteBodyLocked(const std::shared_ptr<WorkingFileEntry>& entry) OVERLAY_REQUIRES(mutex_);
  // With no entry left: deletes the bodies made here that no live entry still uses.
  struct Reclaimed {
    bool deleted = false;  // a body went
    bool inUse = false;    // a body stays for an entry with a stream or queued work
  };
  Reclaimed reclaimUnusedBodiesLocked() OVERLAY_REQUIRES(mutex_);
  void removeBodyFileLocked(const fsp::StorageIRI& iri) OVERLAY_REQUIRES(mutex_);
  void removeBodyFileLocked(const boost::filesystem::path& body) OVERLAY_REQUIRES(mutex_);
  // Settled: no stream open, nothing queued for the store, and the file's record confirmed,
  // so that a read after the eviction finds in the store what the body held.
  static bool isEvictable(WorkingFileEntry& entry);
  // Takes the entry at `it` out of the registry (deferred release); returns the next one.
  EntryMap::iterator eraseLocked(EntryMap::iterator it) OVERLAY_REQUIRES(mutex_);
  void dropEntryLocked(EntryMap::iterator it, bool notify) OVERLAY_REQUIRES(mutex_);
  void deferRelease(std::shared_ptr<WorkingFileEntry> entry) OVERLAY_REQUIRES(mutex_);
  void deleteMadeBodies() noexcept OVERLAY_REQUIRES(mutex_);
  static void removeMadeRoot(const boost::filesystem::path& root) noexcept;

  mutable Mutex mutex_;
  CacheMode mode_ OVERLAY_GUARDED_BY(mutex_) = CacheMode::TEMPORARY;
  boost::filesystem::path cacheRoot_ OVERLAY_GUARDED_BY(mutex_);
  // The root is the default one, made up by this cache: it is removed with the bodies.
  bool madeRoot_ OVERLAY_GUARDED_BY(mutex_) = true;
  EntryMap entries_ OVERLAY_GUARDED_BY(mutex_);
  std::size_t entryCount_ OVERLAY_GUARDED_BY(mutex_) = 0;
  std::vector<std::shared_ptr<WorkingFileEntry>> pendingRelease_ OVERLAY_GUARDED_BY(mutex_);
  std::atomic<bool> activitySeen_{false};
  ArbitratorFactory arbitratorFactory_ OVERLAY_GUARDED_BY(mutex_);
  std::unique_ptr<ICacheSpaceArbitrator> arbitrator_ OVERLAY_GUARDED_BY(mutex_);
  bool initialized_ OVERLAY_GUARDED_BY(mutex_) = false;
  // Native path strings: hashing a string is far cheaper than ordering paths component by
  // component, and every create and rename adds one.
  // Each with the entries made over it: one that left the registry may still have queued
  // writes that read their bytes from the body.
  std::unordered_map<std::string, std::vector<std::weak_ptr<WorkingFileEntry>>> madeBodies_
      OVERLAY_GUARDED_BY(mutex_);
  // The body files in the version directory when the cache was first used.
  std::unordered_set<std::string> foundBodies_ OVERLAY_GUARDED_BY(mutex_);
  bool bodiesFound_ OVERLAY_GUARDED_BY(mutex_) = false;
  // Bodies that a removal, re-creation or replacing move discards leave their names at once
  // and are deleted on the disposal's own thread. Declared last: destroyed first, after the
  // destructor's discard() has drained it.
  BodyDisposal disposal_;
};

}  // namespace storage::overlayprovider
