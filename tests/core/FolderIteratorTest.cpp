// FolderIterator over folder entries: which children each listing kind yields and in what
// order, snapshots against later changes, and clones. (Entries filled from a store list their
// children the same way; the contract suite lists folders through the overlay.)
#include "core/metadata/FolderIterator.h"

#include "CoreTestSupport.h"

#include "core/metadata/IFolderEntry.h"
#include "core/metadata/ListingPredicates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace storage::overlayprovider {
namespace {

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::test::rowNames;
using ::testing::ElementsAre;

const StorageIRI kFolder(u"overlay", u"/d");

std::shared_ptr<FileMetadata> file(const std::u16string& name, std::uint64_t size) {
  auto record = std::make_shared<FileMetadata>(StorageIRI(kFolder, name), false);
  record->setSize(size);
  return record;
}

std::shared_ptr<FolderMetadata> folder(const std::u16string& name) {
  return std::make_shared<FolderMetadata>(StorageIRI(kFolder, name), false);
}

// Children added in an order different from their IRI order: files ahead of the folders.
std::shared_ptr<IFolderEntry> mixedEntry() {
  auto entry = std::make_shared<IFolderEntry>(kFolder);
  entry->addFolder(folder(u"n"), true);
  entry->addFile(file(u"z.txt", 3), true);
  entry->addFolder(folder(u"m"), true);
  entry->addFile(file(u"b.txt", 2), true);
  entry->addFile(file(u"a.txt", 1), true);
  return entry;
}

// Each kind yields its own children in IRI order, whatever order they were added in; the
// folder listing must start past the files that come first in IRI order.
TEST(FolderIteratorTest, EachKindYieldsItsChildrenInIriOrder) {
  using Names = std::vector<std::u16string>;
  const auto filesOnly = std::make_shared<IFolderEntry>(kFolder);
  filesOnly->addFile(file(u"b.txt", 1), true);
  filesOnly->addFile(file(u"a.txt", 1), true);
  const struct {
    const char* name;
    std::shared_ptr<IFolderEntry> entry;
    Names all, files, folders;
  } cases[] = {
      {"empty", std::make_shared<IFolderEntry>(kFolder), {}, {}, {}},
      {"files only", filesOnly, {u"a.txt", u"b.txt"}, {u"a.txt", u"b.txt"}, {}},
      {"mixed",
       mixedEntry(),
       {u"a.txt", u"b.txt", u"m", u"n", u"z.txt"},
       {u"a.txt", u"b.txt", u"z.txt"},
       {u"m", u"n"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FolderIterator<ListAllPred> all(c.entry->getChildren());
    EXPECT_EQ(rowNames(all), c.all);
    FolderIterator<ListFilesPred> files(c.entry->getChildren());
    EXPECT_EQ(rowNames(files), c.files);
    FolderIterator<ListFoldersPred> folders(c.entry->getChildren());
    EXPECT_EQ(rowNames(folders), c.folders);
  }
}

TEST(FolderIteratorTest, LaterRecordChangesShowButLaterChildrenDoNot) {
  auto entry = mixedEntry();
  FolderIterator<ListFilesPred> it(entry->getChildren());
  it.next();
  entry->getFileMetadata(StorageIRI(kFolder, u"b.txt"), true)->setSize(99);
  entry->addFile(file(u"c.txt", 7), true);
  entry->removeFile(StorageIRI(kFolder, u"z.txt"), true);

  it.next();
  EXPECT_EQ(it.current().getName(), u"b.txt");
  EXPECT_EQ(it.current().getFileAttributes().getSize(), 99u);
  EXPECT_THAT(rowNames(it), ElementsAre(u"z.txt"));
  FolderIterator<ListFilesPred> fresh(entry->getChildren());
  EXPECT_THAT(rowNames(fresh), ElementsAre(u"a.txt", u"b.txt", u"c.txt"));
}

TEST(FolderIteratorTest, CloneContinuesFromTheSamePositionIndependently) {
  const auto entry = mixedEntry();
  FolderIterator<ListAllPred> it(entry->getChildren());
  it.next();
  it.next();
  const auto copy = it.cloneIterator();
  EXPECT_THROW(copy->current(), std::logic_error);
  EXPECT_THAT(rowNames(*copy), ElementsAre(u"m", u"n", u"z.txt"));
  EXPECT_EQ(it.current().getName(), u"b.txt");
  EXPECT_THAT(rowNames(it), ElementsAre(u"m", u"n", u"z.txt"));

  FolderIterator<ListFoldersPred> folders(entry->getChildren());
  folders.next();
  EXPECT_THAT(rowNames(*folders.clone()), ElementsAre(u"n"));
}

}  // namespace
}  // namespace storage::overlayprovider
