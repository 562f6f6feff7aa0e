#include "core/metadata/FutureFolderEntry.h"

#include "core/support/InnerLocation.h"
#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/FolderEntryIterator.h>

#include <foundation/storage/provider/Exception.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace storage::overlayprovider {

namespace {

bool usable(const boost::posix_time::ptime& time) { return !time.is_special(); }

}  // namespace

fsp::ExtendedAttributes readExtendedAttributes(const fsp::StorageItem& item, bool folder) {
  try {
    // A store that keeps none (sftp) is not asked: it would only refuse.
    if (!item.getProvider()->hasFeature(fsp::ExtendedFeature::ExtendedAttributes)) return {};
    return item.getExtendedAttributes();
  } catch (const std::exception& e) {
    OVERLAY_LOG(foundation::log::error)
        << "Problem retrieving extended attributes (" << (folder ? "folder" : "file") << ")";
    OVERLAY_LOG(foundation::log::exception) << "Exception caught: " << e.what();
  }
  return {};
}

std::shared_ptr<FileMetadata> fileRecordFromRow(fsp::StorageIRI iri, const fsp::FolderEntry& row,
                                                const fsp::StorageItem& item) {
  auto attributes = row.getFileAttributes();
  if (!attributes.getSize() || !usable(attributes.getLastModified())) {
    attributes = item.getFileAttributes();
  }
  auto record = std::make_shared<FileMetadata>(std::move(iri), false);
  record->setSize(attributes.getSize().value_or(0))
      .setWritable(attributes.isWritable())
      .setLastModified(attributes.getLastModified())
      .setExtendedAttributes(row.getExtendedAttributes());
  return record;
}

std::shared_ptr<FolderMetadata> folderRecordFromRow(fsp::StorageIRI iri,
                                                    const fsp::FolderEntry& row,
                                                    const fsp::StorageItem& item) {
  auto attributes = row.getFolderAttributes();
  if (!usable(attributes.getLastModified())) attributes = item.getFolderAttributes();
  auto record = std::make_shared<FolderMetadata>(std::move(iri), false);
  record->setWritable(attributes.isWritable())
      .setLastModified(attributes.getLastModified())
      .setExtendedAttributes(row.getExtendedAttributes());
  return record;
}

FutureFolderEntry::FutureFolderEntry(fsp::StorageIRI folderIri,
                                     std::shared_ptr<fsp::StorageItem> innerRoot, ListingPool* pool)
    : IFolderEntry(std::move(folderIri), false), innerRoot_(std::move(innerRoot)) {
  if (pool) {
    task_ = pool->submit([this] { listKeepingFailure(); });
    return;
  }
  detail_ = std::async(std::launch::async | std::launch::deferred, [this] {
              listKeepingFailure();
            }).share();
}

FutureFolderEntry::~FutureFolderEntry() {
  try {
    // The listing works on this entry's members: one not started yet never will, one running
    // is waited for.
    if (task_) task_->cancelOrWait();
    if (detail_.valid()) detail_.wait();
  } catch (...) {
    logCaughtException("Waiting for a folder listing failed.");
  }
}

void FutureFolderEntry::waitForDetail() {
  if (task_) {
    // Still queued, it runs here: a waiter never depends on a free pool thread.
    task_->runOrWait();
  } else {
    auto detail = detail_;
    detail.get();
  }
  if (throwFailure_) throwFailure_();
}

void FutureFolderEntry::listKeepingFailure() {
  try {
    buildFolderDetail();
  } catch (const fsp::Exception& e) {
    throwFailure_ = [e] { throw e; };
  } catch (const std::exception& e) {
    throwFailure_ = [what = std::string(e.what())] { throw std::runtime_error(what); };
  } catch (...) {
    throwFailure_ = [] { throw std::runtime_error("The folder listing failed"); };
  }
}

bool FutureFolderEntry::isDetailReady() {
  if (task_) return task_->isDone();
  return detail_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

void FutureFolderEntry::buildFolderDetail() {
  const auto folderItem = innerItemFor(*innerRoot_, getIRI());
  const auto attributes = folderItem.getFolderAttributes();
  auto record = std::make_shared<FolderMetadata>(getIRI(), false);
  record->setLastModified(attributes.getLastModified())
      .setWritable(attributes.isWritable())
      .setExtendedAttributes(readExtendedAttributes(folderItem, true));
  ChildMap children;
  auto rows = folderItem.listAll(u"");
  while (rows->hasNext()) {
    rows->next();
    addRow(rows->current(), children);
  }
  fill(std::move(record), std::move(children));
}

void FutureFolderEntry::addRow(const fsp::FolderEntry& row, ChildMap& children) const {
  try {
    fsp::StorageIRI iri(getIRI(), row.getName());
    const auto item = innerItemFor(*innerRoot_, iri);
    if (row.isFile()) {
      children.insert_or_assign(iri, MetadataNode(fileRecordFromRow(iri, row, item)));
    } else {
      children.insert_or_assign(iri, MetadataNode(folderRecordFromRow(iri, row, item)));
    }
  } catch (const std::exception& e) {
    OVERLAY_LOG(foundation::log::error)
        << "Couldn't read file/folder metadata during a backend folder listing operation. This "
           "is possibly due to a bad filename (k7305521).";
    OVERLAY_LOG(foundation::log::exception) << "Exception caught: " << e.what();
  }
}

}  // namespace storage::overlayprovider
