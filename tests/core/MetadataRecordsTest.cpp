// FileMetadata and FolderMetadata: chained setters, watermark, frozen flag, and that one
// record is shared, not copied, between holders.
#include "core/metadata/FileMetadata.h"
#include "core/metadata/FolderMetadata.h"

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <thread>

namespace storage::overlayprovider {
namespace {

using boost::posix_time::time_from_string;
using fsp::StorageIRI;

TEST(FileMetadataTest, ChainedSettersAndWatermark) {
  auto record = std::make_shared<FileMetadata>(StorageIRI(u"overlay", u"/docs/a.txt"), false);
  const auto time = time_from_string("2021-03-04 05:06:07.123456");
  record->setLastModified(time).setWritable(false).setSize(42);
  EXPECT_EQ(record->getName(), u"a.txt");
  EXPECT_EQ(record->getIRI(), StorageIRI(u"overlay", u"/docs/a.txt"));
  EXPECT_EQ(record->getLastModified(), time);
  EXPECT_FALSE(record->isWritable());
  EXPECT_EQ(record->getSize(), 42u);

  EXPECT_EQ(record->getWatermark(), "");
  fsp::ExtendedAttributes attributes;
  attributes.setAttribute("WATERMARK", "w-17").setAttribute("other", "x");
  record->setExtendedAttributes(attributes);
  EXPECT_EQ(record->getWatermark(), "w-17");
  EXPECT_EQ(record->getExtendedAttributes(), attributes);
}

TEST(FileMetadataTest, FrozenFlagStartsFromTheConstructorAndIsSharedByHolders) {
  auto record = std::make_shared<FileMetadata>(StorageIRI(u"overlay", u"/a"), true);
  auto other = record;  // a second holder sees the same record
  EXPECT_TRUE(other->isFrozen());
  record->unfreeze();
  EXPECT_FALSE(other->isFrozen());
  std::thread([&] { record->freeze(); }).join();
  EXPECT_TRUE(other->isFrozen());
  EXPECT_FALSE(FileMetadata(StorageIRI(u"overlay", u"/b"), false).isFrozen());
}

TEST(FolderMetadataTest, ChainedSettersAndFrozenFlag) {
  FolderMetadata record(StorageIRI(u"overlay", u"/docs"), true);
  const auto time = time_from_string("2020-01-02 03:04:05");
  fsp::ExtendedAttributes attributes;
  attributes.setAttribute("k", "v");
  record.setLastModified(time).setWritable(false).setExtendedAttributes(attributes);
  EXPECT_EQ(record.getName(), u"docs");
  EXPECT_EQ(record.getLastModified(), time);
  EXPECT_FALSE(record.isWritable());
  EXPECT_EQ(record.getExtendedAttributes().getAttribute("k"), "v");
  EXPECT_TRUE(record.isFrozen());
  record.unfreeze();
  EXPECT_FALSE(record.isFrozen());
  EXPECT_EQ(FolderMetadata(StorageIRI(u"overlay", u"/"), false).getName(), u"");
}

}  // namespace
}  // namespace storage::overlayprovider
