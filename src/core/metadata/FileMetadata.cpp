#include "core/metadata/FileMetadata.h"

namespace storage::overlayprovider {

FileMetadata::FileMetadata(fsp::StorageIRI iri, bool frozen)
    : iri_(std::move(iri)), frozen_(frozen) {}

boost::posix_time::ptime FileMetadata::getLastModified() const {
  std::lock_guard lock(mutex_);
  return lastModified_;
}

FileMetadata& FileMetadata::setLastModified(boost::posix_time::ptime time) {
  std::lock_guard lock(mutex_);
  lastModified_ = time;
  return *this;
}

std::uint64_t FileMetadata::getSize() const {
  std::lock_guard lock(mutex_);
  return size_;
}

FileMetadata& FileMetadata::setSize(std::uint64_t size) {
  std::lock_guard lock(mutex_);
  size_ = size;
  return *this;
}

bool FileMetadata::isWritable() const {
  std::lock_guard lock(mutex_);
  return writable_;
}

FileMetadata& FileMetadata::setWritable(bool writable) {
  std::lock_guard lock(mutex_);
  writable_ = writable;
  return *this;
}

fsp::ExtendedAttributes FileMetadata::getExtendedAttributes() const {
  std::lock_guard lock(mutex_);
  return extendedAttributes_;
}

FileMetadata& FileMetadata::setExtendedAttributes(fsp::ExtendedAttributes attributes) {
  std::lock_guard lock(mutex_);
  extendedAttributes_ = std::move(attributes);
  extendedAttributesUnread_ = false;
  return *this;
}

FileMetadata& FileMetadata::markExtendedAttributesUnread() {
  std::lock_guard lock(mutex_);
  extendedAttributesUnread_ = true;
  return *this;
}

bool FileMetadata::extendedAttributesUnread() const {
  std::lock_guard lock(mutex_);
  return extendedAttributesUnread_;
}

std::string FileMetadata::getWatermark() const {
  std::lock_guard lock(mutex_);
  return extendedAttributes_.getAttribute("WATERMARK");
}

bool FileMetadata::isFrozen() const {
  std::lock_guard lock(mutex_);
  return frozen_ || writeHolds_ > 0;
}

bool FileMetadata::isFrozenByChange() const {
  std::lock_guard lock(mutex_);
  return frozen_;
}

void FileMetadata::holdForWrites() {
  std::lock_guard lock(mutex_);
  ++writeHolds_;
}

void FileMetadata::releaseWrites() {
  std::lock_guard lock(mutex_);
  if (writeHolds_ > 0) --writeHolds_;
}

void FileMetadata::freeze() {
  std::lock_guard lock(mutex_);
  frozen_ = true;
}

void FileMetadata::unfreeze() {
  std::lock_guard lock(mutex_);
  frozen_ = false;
}

}  // namespace storage::overlayprovider
