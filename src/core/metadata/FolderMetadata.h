// FolderMetadata: what the overlay knows about one folder of the inner store (time, writable
// flag, extended attributes) and whether a change of the overlay's own to it is still waiting
// to be replayed against the inner store (the frozen flag). A folder record has no size.
//
// Ownership: created with std::make_shared; one record is shared by the folder's own entry,
// its parent's entry, listings and the provider's operations; never copied.
// Locks: one mutex of its own, guarding every field; each accessor takes it for its single
// read or write and never calls out while holding it (innermost lock: cache, then folder
// entry, then record).
// Threads: any thread.
#pragma once

#include <foundation/storage/provider/Attributes.h>
#include <foundation/storage/provider/StorageIRI.h>

#include <boost/date_time/posix_time/ptime.hpp>
#include <mutex>
#include <string>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class FolderMetadata {
 public:
  FolderMetadata(fsp::StorageIRI iri, bool frozen);
  FolderMetadata(const FolderMetadata&) = delete;
  FolderMetadata& operator=(const FolderMetadata&) = delete;

  const fsp::StorageIRI& getIRI() const { return iri_; }
  // The last component of the location; empty for the root.
  std::u16string getName() const { return iri_.getName(); }

  boost::posix_time::ptime getLastModified() const;
  FolderMetadata& setLastModified(boost::posix_time::ptime time);
  bool isWritable() const;
  FolderMetadata& setWritable(bool writable);
  fsp::ExtendedAttributes getExtendedAttributes() const;
  FolderMetadata& setExtendedAttributes(fsp::ExtendedAttributes attributes);

  bool isFrozen() const;
  void freeze();
  void unfreeze();

 private:
  const fsp::StorageIRI iri_;  // immutable, so read without the lock
  boost::posix_time::ptime lastModified_;
  bool writable_ = true;
  fsp::ExtendedAttributes extendedAttributes_;
  bool frozen_;
  mutable std::mutex mutex_;
};

}  // namespace storage::overlayprovider
