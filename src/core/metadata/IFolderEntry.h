// IFolderEntry: one folder of the metadata cache: the folder's own record and the records of
// its direct children. A plain IFolderEntry is complete from the start (a folder the overlay
// created itself, or one filled by the whole-tree population); FutureFolderEntry fills itself
// from a listing of the inner store.
//
// Changes (add/remove) never wait for a listing: on an entry whose listing has not arrived yet
// they are queued and applied, in order, on top of the listing when it arrives (a queued
// removal of a name the listing lacks is then a no-op instead of NotFound). This lets the cache
// record its own mutations under its lock without ever waiting for the inner store there.
// Reading operations wait for the listing (waitForDetail) and see the result with the queued
// changes applied. The peek/collect operations never wait; they serve the cache's bookkeeping.
//
// Ownership: created with std::make_shared; held by the MetadataCache's folder map and by
// callers that looked it up (a dropped entry keeps serving its old snapshot to them).
// Locks: one mutex of its own, guarding the folder record pointer and the children map. It
// comes after the cache's lock and before the records' locks; no two entries' locks are ever
// held together. waitForDetail is always called before the lock is taken, never under it.
// Threads: any thread; FutureFolderEntry's listing fills the entry on its own thread.
#pragma once

#include "core/metadata/FileMetadata.h"
#include "core/metadata/FolderMetadata.h"

#include <foundation/storage/provider/StorageIRI.h>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <variant>
#include <vector>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

// Alternative 0 a file, alternative 1 a folder.
using MetadataNode = std::variant<std::shared_ptr<FileMetadata>, std::shared_ptr<FolderMetadata>>;
using ChildMap = std::map<fsp::StorageIRI, MetadataNode>;
enum class NodeKind { File, Folder };

// The key of case-insensitive comparisons: the hash of the lower-cased text form. Two
// locations are taken as the same name when these are equal.
std::size_t caseFoldedHash(const fsp::StorageIRI& iri);
// The record's location, whichever kind of record the node holds.
const fsp::StorageIRI& nodeIRI(const MetadataNode& node);
bool nodeIsFrozen(const MetadataNode& node);

class IFolderEntry {
 public:
  explicit IFolderEntry(fsp::StorageIRI folderIri);
  IFolderEntry(const IFolderEntry&) = delete;
  IFolderEntry& operator=(const IFolderEntry&) = delete;
  virtual ~IFolderEntry();

  // Blocks until the entry's contents are known; rethrows a failed listing. Returns at once
  // for a plain entry.
  virtual void waitForDetail();
  // True when waitForDetail would return (or throw) without blocking. Lets the cache change
  // an entry under its own lock without ever waiting there.
  virtual bool isDetailReady();

  const fsp::StorageIRI& getIRI() const { return iri_; }
  // The folder's own record (empty until known).
  std::shared_ptr<FolderMetadata> getFolderMetadata();
  void setFolderMetadata(std::shared_ptr<FolderMetadata> record);
  // Forwarded to the folder's own record; an entry without one is not frozen.
  bool isFrozen();
  void unfreeze();

  // Absent, or of the other kind: throws fsp::Exception(NotFound, iri).
  MetadataNode findChild(const fsp::StorageIRI& iri, NodeKind kind, bool caseSensitive);
  // The same, empty when absent: lookups that expect a miss (every creation checks that its
  // name is free) take no exception, whose message alone costs more than the lookup.
  std::optional<MetadataNode> tryFindChild(const fsp::StorageIRI& iri, NodeKind kind,
                                           bool caseSensitive);
  std::shared_ptr<FileMetadata> getFileMetadata(const fsp::StorageIRI& iri, bool caseSensitive);
  std::shared_ptr<FolderMetadata> getFolderMetadata(const fsp::StorageIRI& iri, bool caseSensitive);
  // A file child with exactly that location (case-sensitive).
  bool hasChild(const fsp::StorageIRI& iri);
  bool isEmpty();

  // Insert or replace the child; the folder's time becomes the child's time, even an older one.
  void addFile(std::shared_ptr<FileMetadata> record, bool caseSensitive);
  void addFolder(std::shared_ptr<FolderMetadata> record, bool caseSensitive);
  // Erase the child (NotFound when absent); the folder's time becomes now (UTC).
  void removeFile(const fsp::StorageIRI& iri, bool caseSensitive);
  void removeFolder(const fsp::StorageIRI& iri, bool caseSensitive);
  // The same, where absent is no error and changes nothing.
  void removeIfPresent(const fsp::StorageIRI& iri, NodeKind kind, bool caseSensitive);
  // The store no longer holds `iri`: a child of that name (either kind) goes unless it is
  // frozen, or, while the listing runs, unless the overlay has queued one since (that one is
  // newer than what the listing read). Absent is no error, and the folder's time stays.
  void forgetUnlessFrozen(const fsp::StorageIRI& iri, bool caseSensitive);

  // A copy of the children map; the records themselves are shared.
  ChildMap getChildren();

  // Without waiting: insert or replace a child, leaving the folder's time alone (the whole-tree
  // population enters sub-folders this way, with their times as the inner store reports them).
  void putChild(MetadataNode node, bool caseSensitive);
  // Without waiting: the folder's own record, and the child with exactly that location
  // (children and queued insertions; empty when not known yet).
  std::shared_ptr<FolderMetadata> peekFolderMetadata();
  std::optional<MetadataNode> peekChild(const fsp::StorageIRI& iri);
  // Without waiting: the own record, every child and every queued insertion.
  std::vector<MetadataNode> collectRecords();

 protected:
  // For entries that fill themselves later (filled == false).
  IFolderEntry(fsp::StorageIRI folderIri, bool filled);
  // Stores a finished listing in one step and applies the changes queued meanwhile (used by
  // the listing thread).
  void fill(std::shared_ptr<FolderMetadata> record, ChildMap children);

 private:
  struct QueuedChange {
    std::optional<MetadataNode> insert;  // empty: erase
    fsp::StorageIRI iri;
    NodeKind kind;
    std::optional<boost::posix_time::ptime> time;  // folder's new time, if it changes
    bool caseSensitive;
    bool forget = false;        // an erasure of either kind, absent or not (forgetUnlessFrozen)
    bool absentIsError = true;  // an erasure of a name the filled entry lacks throws NotFound
  };
  // Caller holds mutex_. end() when there is no child of that name; case-insensitively, the
  // first match in location order.
  ChildMap::iterator locate(const fsp::StorageIRI& iri, bool caseSensitive);
  // Caller holds mutex_. Every change of children_ goes through these, so that the folded
  // index (once built) stays true.
  void insertChildLocked(const fsp::StorageIRI& iri, MetadataNode node);
  void eraseChildLocked(ChildMap::iterator it);
  void buildFoldedIndexLocked();
  // Caller holds mutex_; queues the change while the listing has not arrived.
  void change(QueuedChange change);
  void apply(QueuedChange& change);

  const fsp::StorageIRI iri_;
  std::mutex mutex_;
  bool filled_;
  std::shared_ptr<FolderMetadata> folder_;
  ChildMap children_;
  // Case-insensitive lookups: each child's lower-cased name, folded once, to the children of
  // that name in location order. Built by the first such lookup (a case-sensitive store never
  // pays for it) and kept up to date from then on.
  std::map<std::u16string, std::set<fsp::StorageIRI>> folded_;
  bool foldedBuilt_ = false;
  std::vector<QueuedChange> queued_;
};

}  // namespace storage::overlayprovider
