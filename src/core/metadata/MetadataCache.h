// MetadataCache: the overlay's in-memory picture of the inner store's tree. It answers
// existence checks, attribute reads and listings without a round trip once a folder has been
// listed, records the provider's own mutations at once (before the executor replays them
// against the inner store), keeps those not yet confirmed changes (frozen records) alive
// across invalidations, and drops stale folders when the change-event listener says so.
//
// Locations are overlay IRIs (StorageIRI(u"overlay", path)); the root is "overlay:/". A file's
// record lives in its parent folder's entry; a folder's record both in its own entry and as a
// child of its parent's entry.
//
// Ownership: one cache per OverlayProvider, built from the inner provider's root item and its
// filename sensitivity; shared (std::shared_ptr) with the quota accountant and listings.
//
// Locks, in order (never the other way round):
//   1. mutex_ (this cache): folders_, frozen_, pendingInvalidations_, invalidationsPending_,
//      pendingRemovals_, changesInFlight_, attributeChangesInFlight_, population_.
//   2. an IFolderEntry's own mutex: that entry's folder record and children.
//   3. a FileMetadata's / FolderMetadata's own mutex: that record's fields.
// mutex_ is never held while the inner store is listed or while an entry's listing is waited
// for: lookups create a missing entry under the lock (its listing starts on its own thread, so
// concurrent first lookups share ONE listing) and wait for it after releasing the lock.
// Updates read what they need (source records, the parent's attributes) the same way, then
// change the maps under the lock; entry changes never wait (an entry still listing queues
// them, see IFolderEntry).
//
// Threads: lookups and updates on the host's calling threads; confirmations on the executor's
// worker thread; markForInvalidation on the event listener's thread; folder listings on the
// cache's ListingPool (a few threads), or on the thread of a caller that waits for one not
// started yet; the whole-tree population on its own thread.
//
// Choices where the behaviour is open:
//  - Whole-tree population needs ExtendedFeature::RecursiveListing. When the recursive listing
//    fails (cannot start, or breaks off), the cache is cleared before the failure is stored, so
//    that no half-filled folder is taken for complete; it then fills on demand.
//  - waitForPopulation reports a failed population once; later calls return at once.
//  - moveFolderMetadata lists the whole source subtree first (outside the lock), so that every
//    moved folder gets a complete entry at its new location. ReplacementPolicy::Merge merges
//    into an existing destination entry; every other policy replaces it.
//  - dropPendingState acts on pending invalidations and re-applies the records still frozen,
//    then forgets the collection: a change that is still in flight stays visible, a confirmed
//    one shows the inner store's truth.
//  - Re-applying a frozen folder makes a complete entry of its own only when the folder has no
//    entry and its creation or a move onto it is still on its way; an existing entry keeps
//    its contents, and a folder frozen only for a change of its attributes is listed from the
//    store on demand (its contents are there).
//
// Deliberate deviations, each found by the randomized soak with events acted on while the
// replay lags behind the callers:
//  - Every lookup (records, folder entries) and every update that acts on pending
//    invalidations re-applies the records still frozen under the same hold of the lock,
//    instead of leaving that to the next listing, removal or move. Otherwise an event that
//    invalidates a folder (an echo of the overlay's own replay is enough) makes the next
//    lookup list the store, which does not yet hold what the overlay just created: a folder
//    made a moment ago is reported missing; and a confirmation that lands between the two
//    holds thaws a record that the new listing, read before the store received it, lacks.
//  - confirmRemoval takes the removed child out of its parent's entry (unless the overlay
//    has put a frozen record there since), also from a listing still running: such a listing
//    may have read the store before the removal reached it, and once the removal is no
//    longer pending nothing else would hide the stale row.
#pragma once

#include "core/metadata/IFolderEntry.h"
#include "core/metadata/ListingPool.h"

#include <foundation/storage/provider/StorageItem.h>
#include <foundation/storage/provider/Types.h>

#include <atomic>
#include <boost/thread/once.hpp>
#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class MetadataCache {
 public:
  MetadataCache(std::shared_ptr<fsp::StorageItem> innerRoot, fsp::FilenameSensitivity sensitivity);
  MetadataCache(const MetadataCache&) = delete;
  MetadataCache& operator=(const MetadataCache&) = delete;
  // Waits for the background population; its failure is logged, not thrown.
  virtual ~MetadataCache();

  bool isCaseSensitive() const { return caseSensitive_; }

  // Lookups: empty when the inner store does not know the location (NotFound absorbed).
  std::shared_ptr<FileMetadata> getFileMetadata(const fsp::StorageIRI& iri);
  std::shared_ptr<FolderMetadata> getFolderMetadata(const fsp::StorageIRI& iri);
  // Lists the folder if needed; throws what the listing throws (NotFound after dropping the
  // entry, so that the next lookup lists again; other failures stay cached until invalidated).
  std::shared_ptr<IFolderEntry> getFolderEntry(const fsp::StorageIRI& iri);
  std::uint64_t getFileSize(const fsp::StorageIRI& iri);
  // Cached entries only; nothing is listed.
  std::uint64_t getFolderTreeSize(const fsp::StorageIRI& iri);

  // Updates made by the provider's mutations.
  void addFileMetadata(std::shared_ptr<FileMetadata> record);
  std::shared_ptr<FileMetadata> createFileMetadata(const fsp::StorageIRI& iri);
  std::shared_ptr<FolderMetadata> createFolderMetadata(const fsp::StorageIRI& iri);
  void removeFileMetadata(const fsp::StorageIRI& iri);
  void removeFolderMetadata(const fsp::StorageIRI& iri);
  void moveFileMetadata(const fsp::StorageIRI& from, const fsp::StorageIRI& to);
  void moveFolderMetadata(const fsp::StorageIRI& from, const fsp::StorageIRI& to,
                          fsp::ReplacementPolicy policy);

  // Confirmations: the inner store has done the change (executor thread).
  // A creation of, or a move onto, `iri` has been replayed. Several such changes may be on
  // their way to one location at once (a folder made, removed and made again while the replay
  // lags behind), and a folder move places records at every location below its destination:
  // the record becomes the store's only when the last change onto it or onto a folder above
  // it is confirmed, never by the confirmation of an earlier one.
  void confirmFile(const fsp::StorageIRI& iri);
  void confirmFolder(const fsp::StorageIRI& iri, bool recursive);
  // A change of attributes at `iri` is on its way to the store (called as it is queued). Until
  // its confirmation no other confirmation thaws the record there: the store still holds the
  // old value, and a folder listed again meanwhile would bring it back.
  void beginAttributeChange(const fsp::StorageIRI& iri);
  // A change of attributes at `iri` has been replayed: confirms the record unless another
  // change of its attributes, or a creation or a move onto it or onto a folder above it, is
  // still on its way.
  void confirmAttributes(const fsp::StorageIRI& iri, bool isFile);

  // The removal (or move away) of `iri` has been replayed on the store. Until then the store
  // still holds what the overlay removed, and a listing read again from it must not bring
  // it back: lookups at or below a removed location find only what the overlay has put there
  // since (its frozen records), and listings hide the rest.
  void confirmRemoval(const fsp::StorageIRI& iri);

  // Invalidation.
  void markForInvalidation(const fsp::StorageIRI& iri);
  void invalidate(const fsp::StorageIRI& iri);
  void clear();
  // Flush: acts on pending invalidations now and re-applies what is still frozen.
  void dropPendingState();

  // Whole tree.
  void populateWholeFolderTreeWhenPossible(bool background);
  void waitForPopulation();

 private:
  // Holds mutex_. Entries dropped meanwhile are released only after it is unlocked, since the
  // destructor of an entry still listing waits for its listing.
  class Guard {
   public:
    explicit Guard(MetadataCache& cache) : cache_(cache), lock_(cache.mutex_) {}
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    ~Guard();

   private:
    MetadataCache& cache_;
    std::unique_lock<std::mutex> lock_;
  };
  struct FolderSnapshot {
    fsp::StorageIRI iri;
    std::shared_ptr<FolderMetadata> record;
    ChildMap children;
  };

  static fsp::StorageIRI rootIRI();
  // Under one hold of the lock, as every lookup and every update that reads the tree begins:
  // acts on pending invalidations, then re-applies the records still frozen.
  void prepareLookup();
  // The record a lookup found, or nothing when it lies at or below a removal not yet
  // replayed and is not frozen (there only the overlay's own records are to be believed).
  template <typename Record>
  std::shared_ptr<Record> believed(const fsp::StorageIRI& iri, std::shared_ptr<Record> record);

  // Caller holds mutex_ (MetadataCacheTree.cpp).
  // The key of a location in the maps below: on a case-insensitive store every spelling of a
  // location is one key (its path lower-cased once), so that a lookup, a confirmation or an
  // invalidation named in another spelling finds what is stored.
  fsp::StorageIRI keyOf(const fsp::StorageIRI& iri) const;
  std::shared_ptr<IFolderEntry> findEntryLocked(const fsp::StorageIRI& folder) const;
  std::shared_ptr<IFolderEntry> entryLocked(const fsp::StorageIRI& folder, bool create);
  void invalidateLocked(const fsp::StorageIRI& iri);
  void setEntryLocked(const fsp::StorageIRI& folder, std::shared_ptr<IFolderEntry> entry);
  void actOnPendingInvalidationsLocked();
  void noteRemovalLocked(const fsp::StorageIRI& iri);
  void beginChangeLocked(const fsp::StorageIRI& iri);
  // True when no counted change is left on its way to `iri` or to a folder above it.
  bool endChangeLocked(const fsp::StorageIRI& iri);
  bool changeInFlightLocked(const fsp::StorageIRI& iri) const;
  bool attributeChangeInFlightLocked(const fsp::StorageIRI& iri) const;
  void unfreezeFileLocked(const fsp::StorageIRI& iri);
  void unfreezeFolderLocked(const fsp::StorageIRI& iri, bool recursive);
  // The entry of a folder at or below a pending removal, when the overlay made it since
  // (its record is frozen); NotFound otherwise.
  std::shared_ptr<IFolderEntry> ownEntryLocked(const fsp::StorageIRI& folder);
  bool isRemovedLocked(const fsp::StorageIRI& iri) const;
  void hidePendingRemovalsLocked(IFolderEntry& entry);
  static void hideUnlessFrozen(IFolderEntry& entry, const MetadataNode& node);
  void collectFrozenLocked();
  void reapplyFrozenLocked();
  void reapplyLocked(const MetadataNode& node);
  void addFileMetadataLocked(std::shared_ptr<FileMetadata> record);
  void enterNewFolderLocked(const std::shared_ptr<FolderMetadata>& record);
  void dropFrozenLocked(const fsp::StorageIRI& iri, bool withDescendants);
  std::uint64_t treeSizeLocked(const fsp::StorageIRI& folder) const;
  void unfreezeTreeLocked(const fsp::StorageIRI& folder) const;

  // Lookups proper, without the lock.
  std::shared_ptr<IFolderEntry> lookupEntry(const fsp::StorageIRI& folder);
  std::shared_ptr<FolderMetadata> doGetFolderMetadata(const fsp::StorageIRI& iri);
  fsp::ExtendedAttributes parentAttributes(const fsp::StorageIRI& iri);

  // Folder moves (MetadataCacheMove.cpp).
  std::vector<FolderSnapshot> snapshotTree(const fsp::StorageIRI& folder);
  void moveFolderDetail(const fsp::StorageIRI& from, const fsp::StorageIRI& to,
                        const std::shared_ptr<FolderMetadata>& newRecord,
                        fsp::ReplacementPolicy policy, const std::vector<FolderSnapshot>& tree);

  // Whole-tree population (MetadataCachePopulation.cpp).
  void populateWholeTree();
  void enterRootLocked();
  void enterRow(const fsp::FolderEntry& row);
  void enterPopulatedFolderLocked(const std::shared_ptr<FolderMetadata>& record);

  const std::shared_ptr<fsp::StorageItem> innerRoot_;
  const bool caseSensitive_;
  // Where the folder listings run, a few at a time. Declared before the folders, so that the
  // entries go first: an entry whose listing has not started takes it back unrun.
  ListingPool listings_;
  std::shared_ptr<std::future<void>> population_;
  boost::once_flag populationOnce_ = BOOST_ONCE_INIT;
  // Every map of locations below is keyed by keyOf.
  std::map<fsp::StorageIRI, std::shared_ptr<IFolderEntry>> folders_;
  mutable std::mutex mutex_;
  std::map<fsp::StorageIRI, MetadataNode> frozen_;
  std::set<fsp::StorageIRI> pendingInvalidations_;
  // Removals and moves away not yet replayed, with how many of each are on their way.
  std::map<fsp::StorageIRI, int> pendingRemovals_;
  // Whether pendingRemovals_ holds anything; written under mutex_, read without it.
  std::atomic<bool> removalsPending_{false};
  // Creations and moves onto a location not yet replayed, with how many of each.
  std::map<fsp::StorageIRI, int> changesInFlight_;
  // Changes of attributes at a location not yet replayed, with how many of each.
  std::map<fsp::StorageIRI, int> attributeChangesInFlight_;
  // Frozen records collected by a batch of invalidations and not yet re-applied.
  bool invalidationsPending_ = false;
  std::vector<std::shared_ptr<IFolderEntry>> released_;  // dropped under the lock, see Guard
};

}  // namespace storage::overlayprovider
