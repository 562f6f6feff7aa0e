// MetadataCache: whole-tree population from one recursive listing of the inner store, and the
// wait for it.
#include "core/metadata/FutureFolderEntry.h"
#include "core/metadata/MetadataCache.h"
#include "core/support/InnerLocation.h"
#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/FolderEntryIterator.h>

namespace storage::overlayprovider {

void MetadataCache::populateWholeFolderTreeWhenPossible(bool background) {
  if (!innerRoot_->hasFeature(fsp::ExtendedFeature::RecursiveListing)) return;
  if (!background) {
    getFolderEntry(rootIRI());
    return;
  }
  auto population = std::make_shared<std::future<void>>(
      std::async(std::launch::async, [this] { populateWholeTree(); }));
  Guard guard(*this);
  population_ = std::move(population);
}

void MetadataCache::waitForPopulation() {
  boost::call_once(populationOnce_, [this] {
    std::shared_ptr<std::future<void>> population;
    {
      Guard guard(*this);
      population = population_;
    }
    // get() consumes the failure: a failed wait is reported once, the next call returns.
    if (population && population->valid()) population->get();
  });
}

void MetadataCache::populateWholeTree() {
  try {
    {
      Guard guard(*this);
      enterRootLocked();
    }
    auto rows = innerRoot_->listAllRecursive(u"*");
    while (rows->hasNext()) {
      rows->next();
      enterRow(rows->current());
    }
  } catch (...) {
    // Folders entered as complete may be missing rows: forget them all, fill on demand.
    clear();
    throw;
  }
}

void MetadataCache::enterRootLocked() {
  if (findEntryLocked(rootIRI())) return;
  auto record = std::make_shared<FolderMetadata>(rootIRI(), false);
  const auto attributes = innerRoot_->getFolderAttributes();
  record->setLastModified(attributes.getLastModified())
      .setWritable(attributes.isWritable())
      .setExtendedAttributes(readExtendedAttributes(*innerRoot_, true));
  auto entry = std::make_shared<IFolderEntry>(rootIRI());
  entry->setFolderMetadata(std::move(record));
  setEntryLocked(rootIRI(), std::move(entry));
}

void MetadataCache::enterRow(const fsp::FolderEntry& row) {
  MetadataNode node;
  try {
    fsp::StorageIRI iri(rootIRI(), row.getName());
    const auto item = innerItemFor(*innerRoot_, iri);
    node = row.isFile() ? MetadataNode(fileRecordFromRow(iri, row, item))
                        : MetadataNode(folderRecordFromRow(iri, row, item));
  } catch (const std::exception& e) {
    OVERLAY_LOG(foundation::log::error)
        << "Couldn't read file/folder metadata during a backend folder recursive listing "
           "operation. This is possibly due to a bad filename (k7305521).";
    OVERLAY_LOG(foundation::log::exception) << "Exception caught: " << e.what();
    return;
  }
  try {
    Guard guard(*this);
    if (node.index() == 0) {
      addFileMetadataLocked(std::get<0>(node));
    } else {
      enterPopulatedFolderLocked(std::get<1>(node));
    }
  } catch (const std::exception& e) {
    OVERLAY_LOG(foundation::log::error) << "Recursive folder listing failure " << e.what();
  }
}

void MetadataCache::enterPopulatedFolderLocked(const std::shared_ptr<FolderMetadata>& record) {
  const auto& iri = record->getIRI();
  if (!findEntryLocked(iri)) {
    std::shared_ptr<IFolderEntry> entry;
    if (record->getExtendedAttributes().hasAttribute("initiallyInvalid")) {
      entry = std::make_shared<FutureFolderEntry>(iri, innerRoot_, &listings_);
    } else {
      entry = std::make_shared<IFolderEntry>(iri);  // completed by the rows that follow
      entry->setFolderMetadata(record);
    }
    setEntryLocked(iri, std::move(entry));
  }
  entryLocked(iri.getParent(), true)->putChild(MetadataNode(record), caseSensitive_);
}

}  // namespace storage::overlayprovider
