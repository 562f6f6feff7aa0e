// FutureFolderEntry: a folder entry that fills itself from one listing of the inner store,
// queued at construction on the metadata cache's ListingPool (or, without a pool, started on
// a thread of its own). The first caller to wait for a listing that no pool thread has taken
// yet runs it itself. Callers go through waitForDetail (every reading
// operation of IFolderEntry does) and so see either the whole listing or its failure.
//
// A child row's attributes are read again through the child's own item when the row's are not
// usable: a file row without a size, or any row whose time is not a valid date. One child whose
// metadata cannot be read is logged and skipped; the listing goes on.
//
// Ownership: created with std::make_shared by the MetadataCache; holds the inner root item
// (shared with the cache). The destructor waits for the listing before the members go away.
// Locks: the entry's own mutex (IFolderEntry), taken once by the listing thread to store the
// finished result; records are filled before they are published, so without their owners
// contending.
// Threads: the listing runs on a pool thread, on the first waiter's, or on a thread of its own
// without a pool; waitForDetail from any thread, several at once.
//
// A failed listing is kept as a value and each waiter throws its own copy: one exception object
// rethrown on several threads is reference-counted inside the C++ runtime, where the thread
// sanitizer cannot see the synchronisation and reports its release as a race.
#pragma once

#include "core/metadata/IFolderEntry.h"
#include "core/metadata/ListingPool.h"

#include <foundation/storage/provider/FolderEntry.h>
#include <foundation/storage/provider/StorageItem.h>

#include <functional>
#include <future>
#include <memory>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

// The extended attributes behind an inner item; on failure logs and returns none, since
// missing attributes must never make a lookup fail.
fsp::ExtendedAttributes readExtendedAttributes(const fsp::StorageItem& item, bool folder);
// Records built from one listing row (unfrozen). `item` is the row's own inner item, asked
// when the row's attributes are not usable. Throw what reading the attributes throws.
std::shared_ptr<FileMetadata> fileRecordFromRow(fsp::StorageIRI iri, const fsp::FolderEntry& row,
                                                const fsp::StorageItem& item);
std::shared_ptr<FolderMetadata> folderRecordFromRow(fsp::StorageIRI iri,
                                                    const fsp::FolderEntry& row,
                                                    const fsp::StorageItem& item);

class FutureFolderEntry : public IFolderEntry {
 public:
  // `pool` may be null: the listing then runs on a thread of its own.
  FutureFolderEntry(fsp::StorageIRI folderIri, std::shared_ptr<fsp::StorageItem> innerRoot,
                    ListingPool* pool = nullptr);
  ~FutureFolderEntry() override;

  // Blocks until the listing has finished; rethrows its failure, on every call.
  void waitForDetail() override;
  bool isDetailReady() override;

 private:
  void buildFolderDetail();
  // Runs the listing; a failure is stored in throwFailure_ before the shared state is ready.
  void listKeepingFailure();
  // Adds the row's record to `children`, or logs and skips the row.
  void addRow(const fsp::FolderEntry& row, ChildMap& children) const;

  std::shared_ptr<fsp::StorageItem> innerRoot_;
  // Set at most once by the listing thread, before detail_ is ready; read only after it is.
  std::function<void()> throwFailure_;
  // One of the two: the pool's task, or the thread's.
  std::shared_ptr<ListingTask> task_;
  std::shared_future<void> detail_;
};

}  // namespace storage::overlayprovider
