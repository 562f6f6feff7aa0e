#include "core/metadata/FolderMetadata.h"

namespace storage::overlayprovider {

FolderMetadata::FolderMetadata(fsp::StorageIRI iri, bool frozen)
    : iri_(std::move(iri)), frozen_(frozen) {}

boost::posix_time::ptime FolderMetadata::getLastModified() const {
  std::lock_guard lock(mutex_);
  return lastModified_;
}

FolderMetadata& FolderMetadata::setLastModified(boost::posix_time::ptime time) {
  std::lock_guard lock(mutex_);
  lastModified_ = time;
  return *this;
}

bool FolderMetadata::isWritable() const {
  std::lock_guard lock(mutex_);
  return writable_;
}

FolderMetadata& FolderMetadata::setWritable(bool writable) {
  std::lock_guard lock(mutex_);
  writable_ = writable;
  return *this;
}

fsp::ExtendedAttributes FolderMetadata::getExtendedAttributes() const {
  std::lock_guard lock(mutex_);
  return extendedAttributes_;
}

FolderMetadata& FolderMetadata::setExtendedAttributes(fsp::ExtendedAttributes attributes) {
  std::lock_guard lock(mutex_);
  extendedAttributes_ = std::move(attributes);
  return *this;
}

bool FolderMetadata::isFrozen() const {
  std::lock_guard lock(mutex_);
  return frozen_;
}

void FolderMetadata::freeze() {
  std::lock_guard lock(mutex_);
  frozen_ = true;
}

void FolderMetadata::unfreeze() {
  std::lock_guard lock(mutex_);
  frozen_ = false;
}

}  // namespace storage::overlayprovider
