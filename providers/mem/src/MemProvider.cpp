#include <foundation/storage/provider/mem/MemProvider.h>

#include "MemByteStream.h"
#include "MemLog.h"
#include "MemStore.h"

#include <foundation/storage/provider/Exception.h>

#include <algorithm>
#include <exception>

namespace foundation::storage::provider::mem {

namespace {

using events::Kind;

// Runs one change of the tree under the store's mutex and queues its events, in order.
template <class Change>
void change(MemStore& store, Change&& apply) {
  std::lock_guard lock(store.mutex);
  store.publish(apply(store.tree));
}

// Runs one read of the tree under the store's mutex.
template <class Read>
auto read(MemStore& store, Read&& apply) {
  std::lock_guard lock(store.mutex);
  return apply(store.tree);
}

}  // namespace

MemProvider::MemProvider() : MemProvider(Options{}) {}

MemProvider::MemProvider(Options options)
    : options_(std::move(options)),
      store_(std::make_shared<MemStore>(options_.sensitivity, options_.capacityBytes)) {}

MemProvider::~MemProvider() {
  try {
    // shutdown() stops the framework's change polling before the event thread, while the
    // store that polling lists is still here.
    shutdown();
  } catch (const std::exception& e) {
    FOUNDATION_LOG(memLogger(), log::error) << "Stopping the event thread failed: " << e.what();
  }
}

StorageIRI MemProvider::rootLocation() { return StorageIRI(u"mem", u"/"); }

void MemProvider::checkLocation(const StorageIRI& iri) {
  if (iri.getScheme() != u"mem" || iri.hasInnerIRI()) {
    throw Exception(ErrorCode::InvalidLocation, iri, "not a location of the mem store");
  }
}

void MemProvider::setExtendedAttribute(const StorageIRI& iri, const std::string& name,
                                       std::string value) {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) {
    MemNode& node = tree.entryAt(iri);
    node.xattrs[name] = std::move(value);
    return MemTree::Changes{tree.changeOf(Kind::Changed, node)};
  });
}

void MemProvider::removeExtendedAttribute(const StorageIRI& iri, const std::string& name) {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) {
    MemNode& node = tree.entryAt(iri);
    if (node.xattrs.erase(name) == 0) return MemTree::Changes{};
    return MemTree::Changes{tree.changeOf(Kind::Changed, node)};
  });
}

void MemProvider::waitForEventsDelivered() const { store_->events.waitUntilDelivered(); }

void MemProvider::doCreateFile(const StorageIRI& iri) const {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) { return tree.createFile(iri); });
}

void MemProvider::doCreateFolder(const StorageIRI& iri) const {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) { return tree.createFolder(iri); });
}

void MemProvider::doCreateFolderRecursive(const StorageIRI& iri) const {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) { return tree.createFolderRecursive(iri); });
}

bool MemProvider::doFileExists(const StorageIRI& iri) const {
  checkLocation(iri);
  return read(*store_, [&](const MemTree& tree) {
    const MemNode* node = tree.find(iri);
    return node != nullptr && !node->folder;
  });
}

bool MemProvider::doFolderExists(const StorageIRI& iri) const {
  checkLocation(iri);
  return read(*store_, [&](const MemTree& tree) {
    const MemNode* node = tree.find(iri);
    return node != nullptr && node->folder;
  });
}

void MemProvider::doRemoveFile(const StorageIRI& iri) const {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) { return tree.removeFile(iri); });
}

void MemProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to,
                             const ReplacementPolicy& policy) const {
  checkLocation(from);
  checkLocation(to);
  change(*store_, [&](MemTree& tree) { return tree.moveFile(from, to, policy); });
}

void MemProvider::doRemoveFolder(const StorageIRI& iri) const {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) { return tree.removeFolder(iri, false); });
}

void MemProvider::doRemoveFolderRecursively(const StorageIRI& iri) const {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) { return tree.removeFolder(iri, true); });
}

void MemProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                               const ReplacementPolicy& policy) const {
  checkLocation(from);
  checkLocation(to);
  change(*store_, [&](MemTree& tree) { return tree.moveFolder(from, to, policy); });
}

FileAttributes MemProvider::doGetFileAttributes(const StorageIRI& iri) const {
  checkLocation(iri);
  return read(*store_, [&](const MemTree& tree) {
    const MemNode& node = tree.fileAt(iri);
    return FileAttributes(node.content->bytes.size(), node.lastModified, node.writable);
  });
}

FolderAttributes MemProvider::doGetFolderAttributes(const StorageIRI& iri) const {
  checkLocation(iri);
  return read(*store_, [&](const MemTree& tree) {
    const MemNode& node = tree.folderAt(iri);
    return FolderAttributes(node.lastModified, node.writable);
  });
}

ByteStreamPtr MemProvider::doOpenStream(const StorageIRI& iri,
                                        const ByteStreamOpenOptions& options) const {
  checkLocation(iri);
  std::lock_guard lock(store_->mutex);
  MemTree& tree = store_->tree;
  MemNode* node = tree.find(iri);
  if (node == nullptr && options.create) {
    store_->publish(tree.createFile(iri));
    node = tree.find(iri);
  }
  if (node == nullptr || node->folder) throw Exception(ErrorCode::NotFound, iri);
  bool truncated = options.truncate && !node->content->bytes.empty();
  if (truncated) {
    tree.resize(*node->content, 0);
    node->lastModified = MemTree::now();
  }
  return std::make_unique<MemByteStream>(store_, node->content, options, truncated);
}

ByteStreamPtr MemProvider::doOpenReadOnlyStream(const StorageIRI& iri) const {
  return doOpenStream(iri, ByteStreamOpenOptions::readOnly());
}

FolderEntryIteratorPtr MemProvider::listing(const StorageIRI& iri, bool files, bool folders) const {
  checkLocation(iri);
  return std::make_unique<VectorFolderEntryIterator>(
      read(*store_, [&](const MemTree& tree) { return tree.list(iri, files, folders); }));
}

FolderEntryIteratorPtr MemProvider::doListAll(const StorageIRI& iri) const {
  return listing(iri, true, true);
}

FolderEntryIteratorPtr MemProvider::doListFiles(const StorageIRI& iri) const {
  return listing(iri, true, false);
}

FolderEntryIteratorPtr MemProvider::doListFolders(const StorageIRI& iri) const {
  return listing(iri, false, true);
}

FolderEntryIteratorPtr MemProvider::doListAllRecursive(const StorageIRI& iri) const {
  checkLocation(iri);
  return std::make_unique<VectorFolderEntryIterator>(
      read(*store_, [&](const MemTree& tree) { return tree.listRecursive(iri); }));
}

void MemProvider::doCopyFile(const StorageIRI& from, const StorageIRI& to,
                             const ReplacementPolicy& policy) const {
  checkLocation(from);
  checkLocation(to);
  change(*store_, [&](MemTree& tree) { return tree.copyFile(from, to, policy); });
}

void MemProvider::doSetLastModified(const StorageIRI& iri, const posix_time::ptime& time) const {
  checkLocation(iri);
  if (time.is_special()) throw Exception(ErrorCode::OperationRefused, iri, "not a time");
  change(*store_, [&](MemTree& tree) {
    MemNode& node = tree.entryAt(iri);
    node.lastModified = time;
    return MemTree::Changes{tree.changeOf(Kind::Changed, node)};
  });
}

// The node is resized in place: no copy of the file, and a growth beyond the capacity is
// refused before anything changes, as a write's would be.
void MemProvider::doTruncateToSize(const StorageIRI& iri, std::uint64_t size) const {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) {
    MemNode& node = tree.fileAt(iri);
    if (!tree.fits(*node.content, size)) {
      throw Exception(ErrorCode::QuotaExceeded, iri, "the size exceeds the store's capacity");
    }
    tree.resize(*node.content, size);
    node.lastModified = MemTree::now();
    return MemTree::Changes{tree.changeOf(Kind::Changed, node)};
  });
}

void MemProvider::doWriteWholeFile(const StorageIRI& iri, std::string_view bytes,
                                   const posix_time::ptime& lastModified) const {
  checkLocation(iri);
  if (lastModified.is_special()) throw Exception(ErrorCode::OperationRefused, iri, "not a time");
  std::lock_guard lock(store_->mutex);
  MemTree& tree = store_->tree;
  MemTree::Changes changes;
  if (tree.find(iri) == nullptr) changes = tree.createFile(iri);
  MemNode& node = tree.fileAt(iri);
  // Refused like a stream's write past the capacity, which leaves the file created.
  const bool fits = tree.fits(*node.content, bytes.size());
  if (fits) {
    tree.resize(*node.content, bytes.size());
    std::copy(bytes.begin(), bytes.end(), node.content->bytes.begin());
    node.lastModified = lastModified;
    changes.push_back(tree.changeOf(Kind::Changed, node));
  }
  store_->publish(std::move(changes));
  if (!fits)
    throw Exception(ErrorCode::QuotaExceeded, iri, "the size exceeds the store's capacity");
}

void MemProvider::doSetWritable(const StorageIRI& iri, bool writable) const {
  checkLocation(iri);
  change(*store_, [&](MemTree& tree) {
    MemNode& node = tree.entryAt(iri);
    node.writable = writable;
    return MemTree::Changes{tree.changeOf(Kind::Changed, node)};
  });
}

StorageIRI MemProvider::canonical(const StorageIRI& iri) const {
  return read(*store_, [&](const MemTree& tree) {
    const MemNode* node = tree.find(iri);
    return node != nullptr ? tree.locationOf(*node) : iri;
  });
}

void MemProvider::doPublishFolderEventsFor(const StorageIRI& iri, const EventPublisher& publisher,
                                           const std::vector<events::Kind>& kinds,
                                           RecursiveFileWatching recursive) const {
  checkLocation(iri);
  store_->events.subscriptions().addFolder(canonical(iri), publisher, kinds, recursive);
}

void MemProvider::doPublishFileEventsFor(const StorageIRI& iri, const EventPublisher& publisher,
                                         const std::vector<events::Kind>& kinds) const {
  checkLocation(iri);
  store_->events.subscriptions().addFile(canonical(iri), publisher, kinds);
}

void MemProvider::doStopPublishingEventsFor(const StorageIRI& iri) const {
  checkLocation(iri);
  store_->events.subscriptions().remove(canonical(iri));
}

bool MemProvider::doHasFeature(const ExtendedFeature& feature) const {
  return options_.features.count(feature) != 0;
}

FilenameSensitivity MemProvider::doGetFilenameSensitivity(const StorageIRI& iri) const {
  checkLocation(iri);
  return options_.sensitivity;
}

void MemProvider::doShutdown() { store_->events.stop(); }

ExtendedAttributes MemProvider::doGetExtendedAttributes(const StorageIRI& iri) const {
  checkLocation(iri);
  return read(*store_,
              [&](const MemTree& tree) { return ExtendedAttributes(tree.entryAt(iri).xattrs); });
}

ProviderStorageInfo MemProvider::doGetProviderStorageInfo(const StorageIRI& iri) const {
  checkLocation(iri);
  return read(*store_, [&](const MemTree& tree) {
    return ProviderStorageInfo()
        .withStorageCapacity(tree.capacity())
        .withSpaceOccupied(tree.occupied());
  });
}

}  // namespace foundation::storage::provider::mem
