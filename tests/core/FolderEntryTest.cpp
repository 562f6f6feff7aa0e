// IFolderEntry and FutureFolderEntry: child lookups by kind and case, the folder's time on
// changes, records filled from an inner store's listing, extended-attribute failures. Failed
// listings, and the frozen state of a folder, are checked through the metadata cache; the
// children's snapshot, through the folder iterator.
#include "CoreTestSupport.h"
#include "core/metadata/FutureFolderEntry.h"
#include "core/metadata/IFolderEntry.h"

#include <foundation/log/LogCapture.h>
#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

namespace storage::overlayprovider {
namespace {

using boost::posix_time::time_from_string;
using coretest::codeOf;
using coretest::mem;
using coretest::ov;
using foundation::log::LogCapture;
using fsp::ErrorCode;

std::shared_ptr<FileMetadata> file(const std::u16string& path, const char* time) {
  auto record = std::make_shared<FileMetadata>(ov(path), false);
  record->setLastModified(time_from_string(time));
  return record;
}

std::shared_ptr<FolderMetadata> folder(const std::u16string& path, const char* time) {
  auto record = std::make_shared<FolderMetadata>(ov(path), false);
  record->setLastModified(time_from_string(time));
  return record;
}

class PlainEntryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    entry->setFolderMetadata(folder(u"/a", "2024-01-01 00:00:00"));
    entry->addFile(file(u"/a/b.txt", "2023-05-05 00:00:00"), true);
    entry->addFolder(folder(u"/a/sub", "2022-02-02 00:00:00"), true);
  }
  std::shared_ptr<IFolderEntry> entry = std::make_shared<IFolderEntry>(ov(u"/a"));
};

TEST_F(PlainEntryTest, ChildrenAreFoundOnlyAsTheirOwnKind) {
  EXPECT_EQ(entry->getFileMetadata(ov(u"/a/b.txt"), true)->getName(), u"b.txt");
  EXPECT_EQ(entry->getFolderMetadata(ov(u"/a/sub"), true)->getName(), u"sub");
  EXPECT_EQ(codeOf([&] { entry->getFileMetadata(ov(u"/a/sub"), true); }), ErrorCode::NotFound);
  EXPECT_EQ(codeOf([&] { entry->getFolderMetadata(ov(u"/a/b.txt"), true); }), ErrorCode::NotFound);
  EXPECT_EQ(codeOf([&] { entry->findChild(ov(u"/a/none"), NodeKind::File, true); }),
            ErrorCode::NotFound);
  EXPECT_TRUE(entry->hasChild(ov(u"/a/b.txt")));
  EXPECT_FALSE(entry->hasChild(ov(u"/a/sub")));
  EXPECT_FALSE(entry->hasChild(ov(u"/a/B.txt")));
}

TEST_F(PlainEntryTest, CaseInsensitiveLookupFindsDifferentlySpelledName) {
  EXPECT_EQ(entry->getFileMetadata(ov(u"/A/B.TXT"), false)->getIRI(), ov(u"/a/b.txt"));
  EXPECT_EQ(codeOf([&] { entry->getFileMetadata(ov(u"/A/B.TXT"), true); }), ErrorCode::NotFound);
  // Adding a differently spelled name in a case-insensitive folder replaces the old child.
  entry->addFile(file(u"/a/B.TXT", "2023-06-06 00:00:00"), false);
  EXPECT_EQ(entry->getChildren().size(), 2u);
  EXPECT_EQ(entry->getFileMetadata(ov(u"/a/b.txt"), false)->getIRI(), ov(u"/a/B.TXT"));

  // Two spellings side by side (added case-sensitively): the first in location order answers,
  // and once it goes, the other; the folded index follows every change.
  entry->addFile(file(u"/a/b.TXT", "2023-07-07 00:00:00"), true);
  EXPECT_EQ(entry->getFileMetadata(ov(u"/a/B.txt"), false)->getIRI(), ov(u"/a/B.TXT"));
  entry->removeFile(ov(u"/a/B.TXT"), true);
  EXPECT_EQ(entry->getFileMetadata(ov(u"/a/B.txt"), false)->getIRI(), ov(u"/a/b.TXT"));
  entry->removeFile(ov(u"/A/B.TXT"), false);
  EXPECT_EQ(codeOf([&] { entry->getFileMetadata(ov(u"/a/b.txt"), false); }), ErrorCode::NotFound);
}

TEST_F(PlainEntryTest, FolderTimeFollowsAddedChildEvenWhenOlder) {
  EXPECT_EQ(entry->getFolderMetadata()->getLastModified(), time_from_string("2022-02-02 00:00:00"));
  entry->addFile(file(u"/a/old.txt", "1999-01-01 00:00:00"), true);
  EXPECT_EQ(entry->getFolderMetadata()->getLastModified(), time_from_string("1999-01-01 00:00:00"));
}

TEST_F(PlainEntryTest, RemovalSetsFolderTimeToNowAndRefusesAbsentChildren) {
  const auto before = boost::posix_time::microsec_clock::universal_time();
  entry->removeFile(ov(u"/a/b.txt"), true);
  EXPECT_GE(entry->getFolderMetadata()->getLastModified(), before);
  EXPECT_EQ(codeOf([&] { entry->removeFile(ov(u"/a/b.txt"), true); }), ErrorCode::NotFound);
  EXPECT_EQ(codeOf([&] { entry->removeFile(ov(u"/a/sub"), true); }), ErrorCode::NotFound);
  entry->removeFolder(ov(u"/A/SUB"), false);
  EXPECT_TRUE(entry->isEmpty());
}

class FutureEntryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store.mem->createFolder(mem(u"/docs"));
    store.mem->createFolder(mem(u"/docs/sub"));
    store.write(u"/docs/a.txt", "hello");
    store.mem->setWritable(mem(u"/docs/a.txt"), false);
    store.mem->setExtendedAttribute(mem(u"/docs/a.txt"), "WATERMARK", "w1");
    store.mem->setExtendedAttribute(mem(u"/docs"), "owner", "team");
  }
  std::shared_ptr<FutureFolderEntry> entryFor(const std::u16string& path) {
    return std::make_shared<FutureFolderEntry>(ov(path), store.root);
  }

  coretest::MemStore store;
};

TEST_F(FutureEntryTest, ListingFillsRecordsFromTheInnerStore) {
  auto entry = entryFor(u"/docs");
  auto a = entry->getFileMetadata(ov(u"/docs/a.txt"), true);
  EXPECT_EQ(a->getSize(), 5u);
  EXPECT_FALSE(a->isWritable());
  EXPECT_EQ(a->getWatermark(), "w1");
  EXPECT_FALSE(a->isFrozen());
  EXPECT_EQ(a->getLastModified(),
            store.mem->getFileAttributes(mem(u"/docs/a.txt")).getLastModified());
  EXPECT_FALSE(entry->getFolderMetadata(ov(u"/docs/sub"), true)->isFrozen());
  auto own = entry->getFolderMetadata();
  ASSERT_TRUE(own);
  EXPECT_EQ(own->getIRI(), ov(u"/docs"));
  EXPECT_EQ(own->getExtendedAttributes().getAttribute("owner"), "team");
  EXPECT_EQ(entry->getChildren().size(), 2u);
  EXPECT_EQ(store.counted->callCount("listAll"), 1u);
}

TEST_F(FutureEntryTest, ExtendedAttributeFailureIsLoggedAndLeavesThemEmpty) {
  LogCapture capture;
  store.counted->failNext("getExtendedAttributes", 1, ErrorCode::IOError);
  auto entry = entryFor(u"/docs");
  EXPECT_TRUE(entry->getFolderMetadata()->getExtendedAttributes().empty());
  EXPECT_EQ(entry->getChildren().size(), 2u);
  EXPECT_EQ(
      capture.count("Problem retrieving extended attributes (folder)", foundation::log::error), 1u);
  EXPECT_EQ(capture.count("Exception caught: IOError", foundation::log::exception), 1u);
}

}  // namespace
}  // namespace storage::overlayprovider
