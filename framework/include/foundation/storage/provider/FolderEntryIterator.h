// The iterator interfaces that listing operations return, and VectorFolderEntryIterator,
// the iterator over rows already collected (used by the framework's default listings and by
// providers that list eagerly).
//
// Protocol: while (it->hasNext()) { it->next(); use(it->current()); }
// An iterator is used by one thread at a time; clones are independent.
#pragma once

#include <foundation/storage/provider/FolderEntry.h>

#include <memory>
#include <vector>

namespace foundation::storage::provider {

class IFolderEntryIterator {
 public:
  virtual ~IFolderEntryIterator() = default;
  // The row produced by the last next(); call next() first.
  virtual FolderEntry current() const = 0;
  virtual bool hasNext() const = 0;
  virtual void next() = 0;
  // An independent iterator at the same position.
  virtual std::unique_ptr<IFolderEntryIterator> cloneIterator() const = 0;
};

using FolderEntryIteratorPtr = std::unique_ptr<IFolderEntryIterator>;

// Base for iterators that can copy themselves: Derived provides `clone()` returning
// std::unique_ptr<Derived>.
template <class Derived>
class IClonableFolderEntryIterator : public IFolderEntryIterator {
 public:
  std::unique_ptr<IFolderEntryIterator> cloneIterator() const final {
    return static_cast<const Derived*>(this)->clone();
  }
};

class VectorFolderEntryIterator final
    : public IClonableFolderEntryIterator<VectorFolderEntryIterator> {
 public:
  explicit VectorFolderEntryIterator(std::vector<FolderEntry> rows)
      : rows_(std::make_shared<const std::vector<FolderEntry>>(std::move(rows))) {}

  FolderEntry current() const override { return (*rows_)[position_ - 1]; }
  bool hasNext() const override { return position_ < rows_->size(); }
  void next() override { ++position_; }
  std::unique_ptr<VectorFolderEntryIterator> clone() const {
    return std::make_unique<VectorFolderEntryIterator>(*this);
  }

 private:
  std::shared_ptr<const std::vector<FolderEntry>> rows_;
  std::size_t position_ = 0;
};

// Drains an iterator into a vector (for callers that want all rows at once).
inline std::vector<FolderEntry> collectRows(IFolderEntryIterator& it) {
  std::vector<FolderEntry> rows;
  while (it.hasNext()) {
    it.next();
    rows.push_back(it.current());
  }
  return rows;
}

}  // namespace foundation::storage::provider
