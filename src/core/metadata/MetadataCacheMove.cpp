// MetadataCache: folder moves. The source subtree is read first without the cache's lock
// (listing what is not cached yet), then rebuilt at the destination under the lock.
#include "core/metadata/MetadataCache.h"

#include <foundation/storage/provider/Exception.h>

#include <deque>

namespace storage::overlayprovider {

namespace {

// `iri` (at or below `from`) moved below `to`.
fsp::StorageIRI rebase(const fsp::StorageIRI& iri, const fsp::StorageIRI& from,
                       const fsp::StorageIRI& to) {
  const auto skip = from.getPathView().size();
  std::u16string relative;
  std::size_t index = 0;
  for (const auto& part : iri.getPathView()) {
    if (index++ < skip) continue;
    if (!relative.empty()) relative += u'/';
    relative += part;
  }
  return relative.empty() ? to : fsp::StorageIRI(to, relative);
}

std::shared_ptr<FileMetadata> frozenCopy(const FileMetadata& source, fsp::StorageIRI iri) {
  auto copy = std::make_shared<FileMetadata>(std::move(iri), true);
  copy->setSize(source.getSize())
      .setWritable(source.isWritable())
      .setLastModified(source.getLastModified())
      .setExtendedAttributes(source.getExtendedAttributes());
  return copy;
}

std::shared_ptr<FolderMetadata> frozenCopy(const FolderMetadata& source, fsp::StorageIRI iri) {
  auto copy = std::make_shared<FolderMetadata>(std::move(iri), true);
  copy->setWritable(source.isWritable())
      .setLastModified(source.getLastModified())
      .setExtendedAttributes(source.getExtendedAttributes());
  return copy;
}

}  // namespace

std::vector<MetadataCache::FolderSnapshot> MetadataCache::snapshotTree(
    const fsp::StorageIRI& folder) {
  std::vector<FolderSnapshot> tree;
  std::deque<fsp::StorageIRI> pending{folder};
  while (!pending.empty()) {
    const auto current = pending.front();
    pending.pop_front();
    FolderSnapshot snapshot{current, nullptr, {}};
    try {
      // As a listing shows it: a store that lags behind the replay may still list a child
      // whose removal is on its way, and a copy moved from there would outlive the removal.
      auto entry = getFolderEntry(current);
      snapshot.record = entry->getFolderMetadata();
      snapshot.children = entry->getChildren();
    } catch (const fsp::Exception& e) {
      // A sub-folder the inner store does not hold (yet) moves as an empty folder.
      if (current == folder || e.getErrorCode() != fsp::ErrorCode::NotFound) throw;
    }
    if (!snapshot.record) snapshot.record = std::make_shared<FolderMetadata>(current, false);
    for (const auto& [iri, node] : snapshot.children) {
      if (node.index() == 1) pending.push_back(iri);
    }
    tree.push_back(std::move(snapshot));
  }
  return tree;
}

void MetadataCache::moveFolderDetail(const fsp::StorageIRI& from, const fsp::StorageIRI& to,
                                     const std::shared_ptr<FolderMetadata>& newRecord,
                                     fsp::ReplacementPolicy policy,
                                     const std::vector<FolderSnapshot>& tree) {
  const bool merge = policy == fsp::ReplacementPolicy::Merge;
  if (!merge) invalidateLocked(to);
  entryLocked(to.getParent(), true)->addFolder(newRecord, caseSensitive_);
  std::map<fsp::StorageIRI, std::shared_ptr<FolderMetadata>> placed{{to, newRecord}};
  for (const auto& snapshot : tree) {  // breadth-first: a folder is placed before its contents
    const auto target = rebase(snapshot.iri, from, to);
    const auto& record = placed.at(target);
    auto entry = merge ? findEntryLocked(target) : nullptr;
    if (!entry) {
      entry = std::make_shared<IFolderEntry>(target);
      setEntryLocked(target, entry);
    }
    entry->setFolderMetadata(record);
    for (const auto& [iri, node] : snapshot.children) {
      const auto childTarget = rebase(iri, from, to);
      if (node.index() == 0) {
        entry->putChild(MetadataNode(frozenCopy(*std::get<0>(node), childTarget)), caseSensitive_);
        continue;
      }
      auto folder = frozenCopy(*std::get<1>(node), childTarget);
      placed.emplace(childTarget, folder);
      entry->putChild(MetadataNode(folder), caseSensitive_);
    }
  }
  if (keyOf(from) == keyOf(to)) return;  // the same folder, spelt anew: it stays where it is
  if (auto parent = entryLocked(from.getParent(), false)) {
    parent->removeIfPresent(from, NodeKind::Folder, caseSensitive_);
  }
  invalidateLocked(from);
  dropFrozenLocked(from, true);
}

}  // namespace storage::overlayprovider
