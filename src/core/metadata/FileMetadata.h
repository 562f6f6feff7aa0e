// FileMetadata: what the overlay knows about one file of the inner store (time, size,
// writable flag, extended attributes) and whether a change of the overlay's own to it is still
// waiting to be replayed against the inner store (the frozen flag).
//
// Ownership: created with std::make_shared and shared by the metadata cache, its folder
// entries, listings in progress and the provider's operations; never copied, so that a change
// made through one holder is seen by all. A record outlives its removal from the cache for as
// long as somebody holds it.
// Locks: one mutex of its own, guarding every field; each accessor takes it for its single
// read or write and never calls out while holding it. It is the innermost lock of the
// provider (cache, then folder entry, then record).
// Threads: any thread (listing threads fill records, the executor's thread unfreezes them,
// the host's threads read them).
#pragma once

#include <foundation/storage/provider/Attributes.h>
#include <foundation/storage/provider/StorageIRI.h>

#include <boost/date_time/posix_time/ptime.hpp>
#include <cstdint>
#include <mutex>
#include <string>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class FileMetadata {
 public:
  FileMetadata(fsp::StorageIRI iri, bool frozen);
  FileMetadata(const FileMetadata&) = delete;
  FileMetadata& operator=(const FileMetadata&) = delete;

  const fsp::StorageIRI& getIRI() const { return iri_; }
  // The last component of the location.
  std::u16string getName() const { return iri_.getName(); }

  boost::posix_time::ptime getLastModified() const;
  FileMetadata& setLastModified(boost::posix_time::ptime time);
  std::uint64_t getSize() const;
  FileMetadata& setSize(std::uint64_t size);
  bool isWritable() const;
  FileMetadata& setWritable(bool writable);
  fsp::ExtendedAttributes getExtendedAttributes() const;
  FileMetadata& setExtendedAttributes(fsp::ExtendedAttributes attributes);
  // The store changed the file's extended attributes (a replayed close) and they have not been
  // read back yet: whoever asks for them reads them from the store first.
  FileMetadata& markExtendedAttributesUnread();
  bool extendedAttributesUnread() const;
  // The "WATERMARK" extended attribute; empty text when the file has none (a file that was
  // never stamped simply has no watermark yet, which is not an error for its readers).
  std::string getWatermark() const;

  // Frozen: a change of the overlay's own (a creation, a move onto the file, an attribute
  // change, or writes through a stream) has not reached the store yet, so a listing read
  // again from the store must not replace this record.
  bool isFrozen() const;
  // Only the mutation's flag, not the writes' holds: whether the store may lack the file as
  // the overlay made it (created, moved there, emptied) rather than just its latest bytes.
  bool isFrozenByChange() const;
  void freeze();
  void unfreeze();
  // A working file with a stream open for writing, or writes still on their way to the
  // store, holds the record frozen until the store has them all. Counted apart from the
  // flag above, so that the confirmation of a creation does not thaw a record whose writes
  // are still queued, nor the end of the writes a creation that is.
  void holdForWrites();
  void releaseWrites();

 private:
  const fsp::StorageIRI iri_;  // immutable, so read without the lock
  boost::posix_time::ptime lastModified_;
  std::uint64_t size_ = 0;
  bool writable_ = true;
  fsp::ExtendedAttributes extendedAttributes_;
  bool extendedAttributesUnread_ = false;
  bool frozen_;
  int writeHolds_ = 0;
  mutable std::mutex mutex_;
};

}  // namespace storage::overlayprovider
