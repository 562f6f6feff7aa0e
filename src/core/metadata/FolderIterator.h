// FolderIterator<Pred>: the iterator the overlay returns for a folder listing served from its
// metadata cache, yielding the children that Pred (ListingPredicates.h) accepts, in the order
// of StorageIRI's operator<.
//
// It owns a copy of the folder entry's child map, taken when the listing is made: which
// children exist is fixed then, and later additions or removals in the cache do not change
// it. The records themselves are shared with the cache and read when a row is produced, so a
// change to a record (size, time, writable) made after the listing began shows in the rows
// produced after it. It never calls the inner store and never fails once made.
//
// Ownership: returned to the caller as a FolderEntryIteratorPtr, who owns it.
// Locks: none of its own; each record field is read through the record's accessor, under the
// record's own lock. Threads: one thread at a time per iterator; clones are independent and
// may be used on other threads.
#pragma once

#include "core/metadata/FileMetadata.h"
#include "core/metadata/FolderMetadata.h"
#include "core/metadata/IFolderEntry.h"

#include <foundation/storage/provider/FolderEntryIterator.h>

#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>
#include <variant>

namespace storage::overlayprovider {

template <class Pred>
class FolderIterator final
    : public foundation::storage::provider::IClonableFolderEntryIterator<FolderIterator<Pred>> {
 public:
  // Takes the children as they are now; the cursor starts on the first child Pred accepts.
  explicit FolderIterator(ChildMap children)
      : children_(std::move(children)), cursor_(children_.cbegin()) {
    skipRejected();
  }
  // The cursor points into children_, so a member-wise copy would point into the original.
  FolderIterator(const FolderIterator&) = delete;
  FolderIterator& operator=(const FolderIterator&) = delete;

  // The row produced by the last next(). Throws std::logic_error before the first next().
  foundation::storage::provider::FolderEntry current() const override {
    if (!current_) throw std::logic_error("FolderIterator: current() called before next()");
    return *current_;
  }

  bool hasNext() const override { return cursor_ != children_.cend(); }

  // Throws std::logic_error when there is no next child.
  void next() override {
    if (!hasNext()) throw std::logic_error("FolderIterator: next() called at the end");
    current_ = std::make_unique<const foundation::storage::provider::FolderEntry>(
        std::visit([](const auto& record) { return rowFor(record); }, cursor_->second));
    ++cursor_;
    skipRejected();
  }

  // An independent iterator over its own copy, at the same position, with no current row.
  std::unique_ptr<FolderIterator> clone() const {
    auto copy = std::make_unique<FolderIterator>(children_);
    copy->cursor_ = std::next(copy->children_.cbegin(), std::distance(children_.cbegin(), cursor_));
    return copy;
  }

 private:
  void skipRejected() {
    while (cursor_ != children_.cend() && !Pred::accepts(cursor_->second)) ++cursor_;
  }

  static foundation::storage::provider::FolderEntry rowFor(
      const std::shared_ptr<FileMetadata>& file) {
    requireRecord(file.get());
    foundation::storage::provider::FileAttributes attributes(
        file->getSize(), file->getLastModified(), file->isWritable());
    return {file->getName(), std::move(attributes), file->getExtendedAttributes()};
  }

  static foundation::storage::provider::FolderEntry rowFor(
      const std::shared_ptr<FolderMetadata>& folder) {
    requireRecord(folder.get());
    foundation::storage::provider::FolderAttributes attributes(folder->getLastModified(),
                                                               folder->isWritable());
    return {folder->getName(), std::move(attributes), folder->getExtendedAttributes()};
  }

  // The cache never stores an empty record; if one slipped in, say so instead of crashing.
  static void requireRecord(const void* record) {
    if (record == nullptr) throw std::logic_error("FolderIterator: a child has no record");
  }

  ChildMap children_;
  ChildMap::const_iterator cursor_;
  // Empty until the first next(). Held by pointer rather than std::optional: g++ 12 warns
  // (-Wmaybe-uninitialized) on destroying a never-engaged optional of this type when the
  // iterator's destructor is inlined.
  std::unique_ptr<const foundation::storage::provider::FolderEntry> current_;
};

}  // namespace storage::overlayprovider
