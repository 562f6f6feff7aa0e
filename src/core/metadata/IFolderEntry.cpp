#include "core/metadata/IFolderEntry.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/text/Unicode.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <functional>

namespace storage::overlayprovider {

namespace {

bool isKind(const MetadataNode& node, NodeKind kind) {
  return node.index() == (kind == NodeKind::File ? 0u : 1u);
}

}  // namespace

std::size_t caseFoldedHash(const fsp::StorageIRI& iri) {
  using foundation::text::toLower;
  using foundation::text::toUtf16;
  return std::hash<std::u16string>{}(toLower(toUtf16(iri.toString())));
}

const fsp::StorageIRI& nodeIRI(const MetadataNode& node) {
  return std::visit([](const auto& record) -> const fsp::StorageIRI& { return record->getIRI(); },
                    node);
}

bool nodeIsFrozen(const MetadataNode& node) {
  return std::visit([](const auto& record) { return record->isFrozen(); }, node);
}

IFolderEntry::IFolderEntry(fsp::StorageIRI folderIri) : IFolderEntry(std::move(folderIri), true) {}

IFolderEntry::IFolderEntry(fsp::StorageIRI folderIri, bool filled)
    : iri_(std::move(folderIri)), filled_(filled) {}

IFolderEntry::~IFolderEntry() = default;

void IFolderEntry::waitForDetail() {}

bool IFolderEntry::isDetailReady() { return true; }

std::shared_ptr<FolderMetadata> IFolderEntry::getFolderMetadata() {
  waitForDetail();
  std::lock_guard lock(mutex_);
  return folder_;
}

void IFolderEntry::setFolderMetadata(std::shared_ptr<FolderMetadata> record) {
  std::lock_guard lock(mutex_);
  folder_ = std::move(record);
}

bool IFolderEntry::isFrozen() {
  auto record = getFolderMetadata();
  return record && record->isFrozen();
}

void IFolderEntry::unfreeze() {
  if (auto record = getFolderMetadata()) record->unfreeze();
}

namespace {

std::u16string foldedName(const fsp::StorageIRI& iri) {
  return foundation::text::toLower(iri.getName());
}

}  // namespace

ChildMap::iterator IFolderEntry::locate(const fsp::StorageIRI& iri, bool caseSensitive) {
  if (caseSensitive) return children_.find(iri);
  if (!foldedBuilt_) buildFoldedIndexLocked();
  const auto same = folded_.find(foldedName(iri));
  if (same == folded_.end() || same->second.empty()) return children_.end();
  return children_.find(*same->second.begin());
}

void IFolderEntry::buildFoldedIndexLocked() {
  folded_.clear();
  for (const auto& [iri, node] : children_) folded_[foldedName(iri)].insert(iri);
  foldedBuilt_ = true;
}

void IFolderEntry::insertChildLocked(const fsp::StorageIRI& iri, MetadataNode node) {
  const auto [it, inserted] = children_.insert_or_assign(iri, std::move(node));
  if (inserted && foldedBuilt_) folded_[foldedName(iri)].insert(iri);
}

void IFolderEntry::eraseChildLocked(ChildMap::iterator it) {
  if (foldedBuilt_) {
    const auto same = folded_.find(foldedName(it->first));
    if (same != folded_.end()) {
      same->second.erase(it->first);
      if (same->second.empty()) folded_.erase(same);
    }
  }
  children_.erase(it);
}

std::optional<MetadataNode> IFolderEntry::tryFindChild(const fsp::StorageIRI& iri, NodeKind kind,
                                                       bool caseSensitive) {
  waitForDetail();
  std::lock_guard lock(mutex_);
  auto it = locate(iri, caseSensitive);
  if (it == children_.end() || !isKind(it->second, kind)) return std::nullopt;
  return it->second;
}

MetadataNode IFolderEntry::findChild(const fsp::StorageIRI& iri, NodeKind kind,
                                     bool caseSensitive) {
  auto found = tryFindChild(iri, kind, caseSensitive);
  if (!found) throw fsp::Exception(fsp::ErrorCode::NotFound, iri);
  return std::move(*found);
}

std::shared_ptr<FileMetadata> IFolderEntry::getFileMetadata(const fsp::StorageIRI& iri,
                                                            bool caseSensitive) {
  return std::get<0>(findChild(iri, NodeKind::File, caseSensitive));
}

std::shared_ptr<FolderMetadata> IFolderEntry::getFolderMetadata(const fsp::StorageIRI& iri,
                                                                bool caseSensitive) {
  return std::get<1>(findChild(iri, NodeKind::Folder, caseSensitive));
}

bool IFolderEntry::hasChild(const fsp::StorageIRI& iri) {
  waitForDetail();
  std::lock_guard lock(mutex_);
  auto it = children_.find(iri);
  return it != children_.end() && isKind(it->second, NodeKind::File);
}

bool IFolderEntry::isEmpty() {
  waitForDetail();
  std::lock_guard lock(mutex_);
  return children_.empty();
}

void IFolderEntry::apply(QueuedChange& change) {
  auto it = locate(change.iri, change.caseSensitive);
  if (change.forget) {
    if (it != children_.end()) eraseChildLocked(it);
    return;
  }
  if (change.insert) {
    // Differently spelled, same name: the new record takes the old one's place.
    if (it != children_.end()) eraseChildLocked(it);
    insertChildLocked(change.iri, std::move(*change.insert));
  } else {
    if (it == children_.end() || !isKind(it->second, change.kind)) {
      // A queued removal of a name the listing did not have is no error either.
      if (filled_ && change.absentIsError) {
        throw fsp::Exception(fsp::ErrorCode::NotFound, change.iri);
      }
      return;
    }
    eraseChildLocked(it);
  }
  if (folder_ && change.time) folder_->setLastModified(*change.time);
}

void IFolderEntry::change(QueuedChange change) {
  if (filled_) {
    apply(change);
  } else {
    queued_.push_back(std::move(change));
  }
}

void IFolderEntry::addFile(std::shared_ptr<FileMetadata> record, bool caseSensitive) {
  auto iri = record->getIRI();
  const auto time = record->getLastModified();
  std::lock_guard lock(mutex_);
  change({MetadataNode(std::in_place_index<0>, std::move(record)), std::move(iri), NodeKind::File,
          time, caseSensitive});
}

void IFolderEntry::addFolder(std::shared_ptr<FolderMetadata> record, bool caseSensitive) {
  auto iri = record->getIRI();
  const auto time = record->getLastModified();
  std::lock_guard lock(mutex_);
  change({MetadataNode(std::in_place_index<1>, std::move(record)), std::move(iri), NodeKind::Folder,
          time, caseSensitive});
}

void IFolderEntry::putChild(MetadataNode node, bool caseSensitive) {
  auto iri = nodeIRI(node);
  const auto kind = node.index() == 0 ? NodeKind::File : NodeKind::Folder;
  std::lock_guard lock(mutex_);
  change({std::move(node), std::move(iri), kind, std::nullopt, caseSensitive});
}

void IFolderEntry::removeFile(const fsp::StorageIRI& iri, bool caseSensitive) {
  const auto now = boost::posix_time::microsec_clock::universal_time();
  std::lock_guard lock(mutex_);
  change({std::nullopt, iri, NodeKind::File, now, caseSensitive});
}

void IFolderEntry::removeFolder(const fsp::StorageIRI& iri, bool caseSensitive) {
  const auto now = boost::posix_time::microsec_clock::universal_time();
  std::lock_guard lock(mutex_);
  change({std::nullopt, iri, NodeKind::Folder, now, caseSensitive});
}

void IFolderEntry::removeIfPresent(const fsp::StorageIRI& iri, NodeKind kind, bool caseSensitive) {
  const auto now = boost::posix_time::microsec_clock::universal_time();
  std::lock_guard lock(mutex_);
  change({std::nullopt, iri, kind, now, caseSensitive, false, false});
}

void IFolderEntry::forgetUnlessFrozen(const fsp::StorageIRI& iri, bool caseSensitive) {
  std::lock_guard lock(mutex_);
  if (filled_) {
    const auto it = locate(iri, caseSensitive);
    if (it != children_.end() && !nodeIsFrozen(it->second)) eraseChildLocked(it);
    return;
  }
  // Still listing: what the overlay queued for that name is newer than the store's answer
  // and stays; otherwise the listing's row goes when it arrives.
  const auto same = [&](const fsp::StorageIRI& other) {
    return caseSensitive ? other == iri : foldedName(other) == foldedName(iri);
  };
  for (const auto& queued : queued_) {
    if (queued.insert && same(queued.iri)) return;
  }
  queued_.push_back({std::nullopt, iri, NodeKind::File, std::nullopt, caseSensitive, true});
}

std::shared_ptr<FolderMetadata> IFolderEntry::peekFolderMetadata() {
  std::lock_guard lock(mutex_);
  return folder_;
}

std::optional<MetadataNode> IFolderEntry::peekChild(const fsp::StorageIRI& iri) {
  std::lock_guard lock(mutex_);
  for (auto it = queued_.rbegin(); it != queued_.rend(); ++it) {
    if (it->iri == iri) return it->insert;
  }
  auto found = children_.find(iri);
  if (found == children_.end()) return std::nullopt;
  return found->second;
}

std::vector<MetadataNode> IFolderEntry::collectRecords() {
  std::lock_guard lock(mutex_);
  std::vector<MetadataNode> records;
  if (folder_) records.emplace_back(std::in_place_index<1>, folder_);
  for (const auto& [iri, node] : children_) records.push_back(node);
  for (const auto& queued : queued_) {
    if (queued.insert) records.push_back(*queued.insert);
  }
  return records;
}

ChildMap IFolderEntry::getChildren() {
  waitForDetail();
  std::lock_guard lock(mutex_);
  return children_;
}

void IFolderEntry::fill(std::shared_ptr<FolderMetadata> record, ChildMap children) {
  std::lock_guard lock(mutex_);
  folder_ = std::move(record);
  children_ = std::move(children);
  foldedBuilt_ = false;  // rebuilt from the new children by the next folded lookup
  for (auto& queued : queued_) apply(queued);
  queued_.clear();
  filled_ = true;
}

}  // namespace storage::overlayprovider
