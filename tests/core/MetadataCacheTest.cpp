// MetadataCache over an in-memory inner store: one listing per folder (also for concurrent
// first lookups), lookups by case, failures of listings, the provider's own updates, frozen
// records across invalidations, confirmations, and the whole-tree population.
#include "CoreTestSupport.h"
#include "core/metadata/MetadataCache.h"

#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/FolderEntryIterator.h>
#include <gtest/gtest.h>

#include <future>
#include <latch>
#include <thread>

namespace storage::overlayprovider {
namespace {

using coretest::codeOf;
using coretest::mem;
using coretest::ov;
using foundation::log::LogCapture;
using fsp::ErrorCode;
using fsp::FolderEntry;
using fsp::StorageIRI;
using fsp::mem::MemProvider;

// Forwards what the cache asks of an inner store, after a hook that a test may use to hold a
// call or make it throw; listAll rows pass through a filter a test may set. Everything else
// is refused: the cache must not need it.
class HookedProvider final : public fsp::IProvider {
 public:
  using Rows = std::vector<FolderEntry>;
  explicit HookedProvider(std::shared_ptr<fsp::IProvider> inner) : inner_(std::move(inner)) {}

  std::function<void(std::string_view, const StorageIRI&)> before = [](auto, const auto&) {};
  std::function<Rows(const StorageIRI&, Rows)> rowFilter = [](const auto&, Rows rows) {
    return rows;
  };

 protected:
  using Iterator = fsp::FolderEntryIteratorPtr;
  fsp::FileAttributes doGetFileAttributes(const StorageIRI& i) const override {
    before("getFileAttributes", i);
    return inner_->getFileAttributes(i);
  }
  fsp::FolderAttributes doGetFolderAttributes(const StorageIRI& i) const override {
    before("getFolderAttributes", i);
    return inner_->getFolderAttributes(i);
  }
  fsp::ExtendedAttributes doGetExtendedAttributes(const StorageIRI& i) const override {
    before("getExtendedAttributes", i);
    return inner_->getExtendedAttributes(i);
  }
  Iterator doListAll(const StorageIRI& i) const override {
    before("listAll", i);
    auto rows = inner_->listAll(i);
    return std::make_unique<fsp::VectorFolderEntryIterator>(rowFilter(i, fsp::collectRows(*rows)));
  }
  Iterator doListAllRecursiveWildcards(const StorageIRI& i, std::u16string p) const override {
    before("listAllRecursive", i);
    return inner_->listAllRecursive(i, p);
  }
  bool doHasFeature(const fsp::ExtendedFeature& f) const override { return inner_->hasFeature(f); }
  void doShutdown() override {}

  [[noreturn]] static void refuse(const StorageIRI& i) {
    throw fsp::Exception(ErrorCode::NotSupported, i, "not used by the cache");
  }
  using Kinds = std::vector<foundation::storage::events::Kind>;
#define REFUSED(Result, Slot, ...) \
  Result Slot(const StorageIRI& i __VA_OPT__(, ) __VA_ARGS__) const override { refuse(i); }
  REFUSED(void, doCreateFile)
  REFUSED(void, doCreateFolder)
  REFUSED(void, doCreateFolderRecursive)
  REFUSED(bool, doFileExists)
  REFUSED(bool, doFolderExists)
  REFUSED(void, doRemoveFile)
  REFUSED(void, doMoveFile, const StorageIRI&, const fsp::ReplacementPolicy&)
  REFUSED(void, doRemoveFolder)
  REFUSED(void, doRemoveFolderRecursively)
  REFUSED(void, doMoveFolder, const StorageIRI&, const fsp::ReplacementPolicy&)
  REFUSED(fsp::ByteStreamPtr, doOpenStream, const fsp::ByteStreamOpenOptions&)
  REFUSED(fsp::ByteStreamPtr, doOpenReadOnlyStream)
  REFUSED(Iterator, doListFiles)
  REFUSED(Iterator, doListFolders)
  REFUSED(void, doCopyFile, const StorageIRI&, const fsp::ReplacementPolicy&)
  REFUSED(void, doSetLastModified, const fsp::posix_time::ptime&)
  REFUSED(void, doSetWritable, bool)
  REFUSED(void, doPublishFolderEventsFor, const fsp::EventPublisher&, const Kinds&,
          fsp::RecursiveFileWatching)
  REFUSED(void, doPublishFileEventsFor, const fsp::EventPublisher&, const Kinds&)
  REFUSED(void, doStopPublishingEventsFor)
  REFUSED(fsp::ProviderStorageInfo, doGetProviderStorageInfo)
#undef REFUSED

 private:
  std::shared_ptr<fsp::IProvider> inner_;
};

// Holds the first matching call until released.
struct Gate {
  std::promise<void> entered;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<bool> armed{true};
  void pass() {
    if (!armed.exchange(false)) return;
    entered.set_value();
    released.wait();
  }
};

class MetadataCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store.mem->createFolder(mem(u"/a"));
    store.mem->createFolder(mem(u"/a/sub"));
    store.mem->createFolder(mem(u"/ab"));
    store.write(u"/a/b.txt", "12345");
    store.write(u"/a/sub/c.txt", "123");
    store.write(u"/ab/x.txt", "1");
  }
  MetadataCache& cache(
      fsp::FilenameSensitivity sensitivity = fsp::FilenameSensitivity::CaseSensitive) {
    if (!cache_) cache_ = std::make_unique<MetadataCache>(root, sensitivity);
    return *cache_;
  }
  std::uint64_t listings() const { return store.counted->callCount("listAll"); }
  std::set<std::u16string> names(const std::u16string& folder) {
    std::set<std::u16string> result;
    for (const auto& [iri, node] : cache().getFolderEntry(ov(folder))->getChildren()) {
      result.insert(iri.getName());
    }
    return result;
  }

  coretest::MemStore store;
  std::shared_ptr<HookedProvider> hooked = std::make_shared<HookedProvider>(store.counted);
  std::shared_ptr<fsp::StorageItem> root =
      std::make_shared<fsp::StorageItem>(hooked, MemProvider::rootLocation());
  std::unique_ptr<MetadataCache> cache_;
};

TEST_F(MetadataCacheTest, FolderIsListedOnceAndThenAnsweredFromTheCache) {
  EXPECT_EQ(cache().getFileMetadata(ov(u"/a/b.txt"))->getSize(), 5u);
  EXPECT_EQ(cache().getFileSize(ov(u"/a/b.txt")), 5u);
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/a/none.txt")));
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/a/sub")));  // a folder is not a file
  EXPECT_EQ(cache().getFileSize(ov(u"/a/none.txt")), 0u);
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/a/B.TXT")));  // a case-sensitive store's
  EXPECT_EQ(listings(), 1u);
  EXPECT_TRUE(cache().getFolderMetadata(ov(u"/a/sub")));
  EXPECT_EQ(listings(), 1u);
  EXPECT_TRUE(cache().getFolderMetadata(ov(u"/a")));  // lists the root
  EXPECT_EQ(listings(), 2u);
}

TEST_F(MetadataCacheTest, RootFolderComesFromItsOwnEntryAndIsNoFile) {
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/")));
  EXPECT_EQ(listings(), 0u);
  auto rootRecord = cache().getFolderMetadata(ov(u"/"));
  ASSERT_TRUE(rootRecord);
  EXPECT_EQ(rootRecord->getIRI(), ov(u"/"));
  EXPECT_EQ(names(u"/"), (std::set<std::u16string>{u"a", u"ab"}));
  EXPECT_EQ(listings(), 1u);
}

TEST_F(MetadataCacheTest, ConcurrentFirstLookupsShareOneListing) {
  Gate gate;
  hooked->before = [&](std::string_view op, const StorageIRI&) {
    if (op == "listAll") gate.pass();
  };
  auto first =
      std::async(std::launch::async, [&] { return cache().getFileMetadata(ov(u"/a/b.txt")); });
  gate.entered.get_future().wait();  // the listing of /a is under way and held
  std::latch started(1);
  auto second = std::async(std::launch::async, [&] {
    started.count_down();
    return cache().getFileMetadata(ov(u"/a/b.txt"));
  });
  started.wait();
  gate.release.set_value();
  EXPECT_EQ(first.get()->getSize(), 5u);
  EXPECT_EQ(second.get(), cache().getFileMetadata(ov(u"/a/b.txt")));
  EXPECT_EQ(listings(), 1u);
}

TEST(MetadataCacheCaseTest, CaseInsensitiveStoreFindsDifferentlySpelledNames) {
  MemProvider::Options options;
  options.sensitivity = fsp::FilenameSensitivity::CaseInsensitive;
  coretest::MemStore store(options);
  store.mem->createFolder(mem(u"/a"));
  store.mem->createFile(mem(u"/a/b.txt"));
  MetadataCache cache(store.root, fsp::FilenameSensitivity::CaseInsensitive);
  EXPECT_FALSE(cache.isCaseSensitive());
  auto record = cache.getFileMetadata(ov(u"/A/B.TXT"));
  ASSERT_TRUE(record);
  EXPECT_EQ(cache.getFileMetadata(ov(u"/a/b.txt")), record);
  EXPECT_EQ(store.counted->callCount("listAll"), 1u);  // "/A" and "/a" are one folder

  // A move named in another spelling moves the stored record and leaves nothing behind, and
  // its confirmation reaches the record.
  cache.moveFileMetadata(ov(u"/A/B.TXT"), ov(u"/a/c.txt"));
  EXPECT_FALSE(cache.getFileMetadata(ov(u"/a/b.txt")));
  const auto moved = cache.getFileMetadata(ov(u"/a/c.txt"));
  ASSERT_TRUE(moved);
  EXPECT_TRUE(moved->isFrozen());
  cache.confirmFile(ov(u"/A/c.txt"));
  EXPECT_FALSE(moved->isFrozen());

  // Folders too are found by any spelling: the tree size, an invalidation, and a creation's
  // confirmation, which must also end what was counted under the other spelling.
  auto created = cache.createFileMetadata(ov(u"/a/big.bin"));
  created->setSize(7);
  EXPECT_EQ(cache.getFolderTreeSize(ov(u"/a")), 7u);  // first listed as "/A"
  cache.confirmFile(ov(u"/A/BIG.bin"));
  EXPECT_FALSE(created->isFrozen());
  cache.invalidate(ov(u"/a"));
  cache.getFileMetadata(ov(u"/a/c.txt"));
  EXPECT_EQ(store.counted->callCount("listAll"), 2u);  // "/a" was dropped and listed again
}

TEST_F(MetadataCacheTest, MissingFolderGivesEmptyResultAndIsListedAgainNextTime) {
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/nope/x.txt")));
  EXPECT_FALSE(cache().getFolderMetadata(ov(u"/nope/y")));
  EXPECT_EQ(codeOf([&] { cache().getFolderEntry(ov(u"/nope")); }), ErrorCode::NotFound);
  EXPECT_EQ(store.counted->callCount("getFolderAttributes"), 3u);
  store.mem->createFolder(mem(u"/nope"));
  store.write(u"/nope/x.txt", "xy");
  EXPECT_EQ(cache().getFileSize(ov(u"/nope/x.txt")), 2u);
}

TEST_F(MetadataCacheTest, OtherListingFailureStaysUntilInvalidated) {
  store.counted->failNext("listAll", 1, ErrorCode::IOError);
  EXPECT_EQ(codeOf([&] { cache().getFileMetadata(ov(u"/a/b.txt")); }), ErrorCode::IOError);
  EXPECT_EQ(codeOf([&] { cache().getFolderMetadata(ov(u"/a/sub")); }), ErrorCode::IOError);
  EXPECT_EQ(codeOf([&] { cache().getFolderEntry(ov(u"/a")); }), ErrorCode::IOError);
  EXPECT_EQ(listings(), 1u);
  cache().invalidate(ov(u"/a"));
  EXPECT_EQ(cache().getFileSize(ov(u"/a/b.txt")), 5u);
  EXPECT_EQ(listings(), 2u);
}

TEST_F(MetadataCacheTest, ChildWhoseMetadataCannotBeReadIsSkipped) {
  store.write(u"/a/bad.txt", "zz");
  // The store reports no size for bad.txt, and reading its attributes again fails.
  hooked->rowFilter = [](const StorageIRI&, HookedProvider::Rows rows) {
    for (auto& row : rows) {
      if (row.getName() == u"bad.txt") {
        row = FolderEntry(
            row.getName(),
            fsp::FileAttributes(std::nullopt, row.getFileAttributes().getLastModified(), true));
      }
    }
    return rows;
  };
  hooked->before = [](std::string_view op, const StorageIRI& iri) {
    if (op == "getFileAttributes" && iri.getName() == u"bad.txt") {
      throw fsp::Exception(ErrorCode::IOError, iri);
    }
  };
  LogCapture capture;
  EXPECT_EQ(names(u"/a"), (std::set<std::u16string>{u"b.txt", u"sub"}));
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/a/bad.txt")));
  EXPECT_EQ(capture.count("Couldn't read file/folder metadata during a backend folder listing "
                          "operation. This is possibly due to a bad filename (k7305521).",
                          foundation::log::error),
            1u);
}

TEST_F(MetadataCacheTest, InvalidatingAFolderKeepsSiblingsWithTheSamePrefix) {
  cache().getFolderEntry(ov(u"/a"));
  cache().getFolderEntry(ov(u"/a/sub"));
  cache().getFolderEntry(ov(u"/ab"));
  EXPECT_EQ(listings(), 3u);
  cache().invalidate(ov(u"/a"));
  cache().getFolderEntry(ov(u"/ab"));
  EXPECT_EQ(listings(), 3u);
  cache().getFolderEntry(ov(u"/a/sub"));
  cache().getFolderEntry(ov(u"/a"));
  EXPECT_EQ(listings(), 5u);
}

TEST_F(MetadataCacheTest, InvalidatingTheRootOrClearingEmptiesTheCache) {
  cache().getFolderEntry(ov(u"/"));
  cache().getFolderEntry(ov(u"/ab"));
  LogCapture capture;
  cache().invalidate(ov(u"/"));
  EXPECT_EQ(capture.count("Invalidating root.", foundation::log::notice), 1u);
  cache().getFolderEntry(ov(u"/"));
  cache().getFolderEntry(ov(u"/ab"));
  EXPECT_EQ(listings(), 4u);
  cache().clear();
  cache().getFolderEntry(ov(u"/ab"));
  EXPECT_EQ(listings(), 5u);
}

TEST_F(MetadataCacheTest, EventMarksAreActedUponAtTheNextLookup) {
  cache().getFolderEntry(ov(u"/a"));
  store.write(u"/a/later.txt", "abc");
  cache().markForInvalidation(ov(u"/a/later.txt"));
  EXPECT_EQ(listings(), 1u);  // nothing happens before a lookup
  EXPECT_EQ(cache().getFileSize(ov(u"/a/later.txt")), 3u);
  EXPECT_EQ(listings(), 2u);

  // A batch of marks is acted upon in one walk over the cached records, not one walk each.
  cache().getFolderEntry(ov(u"/a/sub"));
  cache().getFolderEntry(ov(u"/ab"));
  LogCapture capture;
  cache().markForInvalidation(ov(u"/a/sub/c.txt"));
  cache().markForInvalidation(ov(u"/ab/x.txt"));
  EXPECT_EQ(cache().getFileSize(ov(u"/a/b.txt")), 5u);
  EXPECT_EQ(capture.count("overlay:/a/b.txt is not frozen.", foundation::log::debug), 1u);
}

TEST_F(MetadataCacheTest, FrozenFileSurvivesInvalidationUntilConfirmed) {
  auto created = cache().createFileMetadata(ov(u"/a/new.txt"));
  EXPECT_TRUE(created->isFrozen());
  LogCapture capture;
  cache().markForInvalidation(ov(u"/a/new.txt"));
  // The store does not hold the file yet; the fresh listing lacks it, the cache keeps it,
  // for a lookup of the record as for a listing.
  EXPECT_EQ(cache().getFileMetadata(ov(u"/a/new.txt")), created);
  EXPECT_TRUE(names(u"/a").count(u"new.txt"));
  EXPECT_EQ(listings(), 2u);
  EXPECT_EQ(capture.count("overlay:/a/new.txt is frozen.", foundation::log::debug), 1u);
  EXPECT_EQ(capture.count("overlay:/a/b.txt is not frozen.", foundation::log::debug), 1u);

  cache().confirmFile(ov(u"/a/new.txt"));
  EXPECT_FALSE(created->isFrozen());
  cache().markForInvalidation(ov(u"/a/new.txt"));
  EXPECT_FALSE(names(u"/a").count(u"new.txt"));  // the inner store's truth
}

// Writes through a stream hold the store's record frozen: a relisting from a store that has
// not received them yet keeps the written size, and only the end of the writes thaws it.
TEST_F(MetadataCacheTest, FileHeldForWritesSurvivesInvalidationUntilReleased) {
  auto record = cache().getFileMetadata(ov(u"/a/b.txt"));
  record->holdForWrites();
  record->setSize(9);
  cache().markForInvalidation(ov(u"/a/b.txt"));
  EXPECT_EQ(cache().getFileSize(ov(u"/a/b.txt")), 9u);
  cache().confirmFile(ov(u"/a/b.txt"));  // another change's confirmation
  EXPECT_TRUE(record->isFrozen());
  record->releaseWrites();
  cache().markForInvalidation(ov(u"/a/b.txt"));
  EXPECT_EQ(cache().getFileSize(ov(u"/a/b.txt")), 5u);
}

// Two attribute changes on their way: the first one's confirmation (or a creation's) must
// not thaw the record while the store still lacks the second, or a relisting undoes it.
TEST_F(MetadataCacheTest, AnAttributeChangeKeepsItsRecordFrozenUntilItIsConfirmed) {
  auto record = cache().getFileMetadata(ov(u"/a/b.txt"));
  for (int change = 0; change < 2; ++change) cache().beginAttributeChange(ov(u"/a/b.txt"));
  record->setWritable(false).freeze();
  cache().confirmAttributes(ov(u"/a/b.txt"), true);
  cache().confirmFile(ov(u"/a/b.txt"));
  cache().markForInvalidation(ov(u"/a/b.txt"));
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/a/b.txt"))->isWritable());
  cache().confirmAttributes(ov(u"/a/b.txt"), true);
  cache().markForInvalidation(ov(u"/a/b.txt"));
  EXPECT_TRUE(cache().getFileMetadata(ov(u"/a/b.txt"))->isWritable());  // the store's truth
}

TEST_F(MetadataCacheTest, CreatedFileTakesParentAttributesAndSetsItsTime) {
  store.mem->setExtendedAttribute(mem(u"/a"), "team", "blue");
  auto created = cache().createFileMetadata(ov(u"/a/new.txt"));
  EXPECT_EQ(created->getSize(), 0u);
  EXPECT_TRUE(created->isWritable());
  EXPECT_EQ(created->getExtendedAttributes().getAttribute("team"), "blue");
  auto entry = cache().getFolderEntry(ov(u"/a"));
  EXPECT_EQ(entry->getFileMetadata(ov(u"/a/new.txt"), true), created);
  EXPECT_EQ(entry->getFolderMetadata()->getLastModified(), created->getLastModified());
}

// A created folder needs no listing; frozen, it and its file survive an invalidation of the
// parent's listing, which the store does not hold them in yet.
TEST_F(MetadataCacheTest, CreatedFolderIsCompleteWithoutTheStoreAndSurvivesInvalidation) {
  auto folder = cache().createFolderMetadata(ov(u"/a/fresh"));
  EXPECT_TRUE(folder->isFrozen());
  const auto calls = store.counted->totalCalls();
  auto entry = cache().getFolderEntry(ov(u"/a/fresh"));
  EXPECT_TRUE(entry->isEmpty());
  EXPECT_EQ(entry->getFolderMetadata(), folder);
  EXPECT_EQ(cache().getFolderMetadata(ov(u"/a/fresh")), folder);
  auto file = cache().createFileMetadata(ov(u"/a/fresh/f.txt"));
  EXPECT_EQ(cache().getFileMetadata(ov(u"/a/fresh/f.txt")), file);
  EXPECT_EQ(store.counted->totalCalls(), calls);

  cache().markForInvalidation(ov(u"/a/fresh"));
  cache().markForInvalidation(ov(u"/a/sub"));
  EXPECT_EQ(cache().getFolderMetadata(ov(u"/a/fresh")), folder);
  EXPECT_TRUE(names(u"/a").count(u"fresh"));
  EXPECT_EQ(names(u"/a/fresh"), (std::set<std::u16string>{u"f.txt"}));

  // Also when another caller's removal comes between the mark and the next lookup.
  cache().markForInvalidation(ov(u"/a/fresh"));
  cache().removeFolderMetadata(ov(u"/ab"));
  EXPECT_EQ(cache().getFolderMetadata(ov(u"/a/fresh")), folder);
  EXPECT_EQ(cache().getFileMetadata(ov(u"/a/fresh/f.txt")), file);
}

TEST_F(MetadataCacheTest, RemovedFileIsGoneAndNotBroughtBackByReapplication) {
  cache().createFileMetadata(ov(u"/a/new.txt"));
  cache().markForInvalidation(ov(u"/a/new.txt"));
  cache().getFileMetadata(ov(u"/a/b.txt"));  // collects the frozen record
  cache().removeFileMetadata(ov(u"/a/new.txt"));
  EXPECT_FALSE(names(u"/a").count(u"new.txt"));
  cache().removeFileMetadata(ov(u"/a/b.txt"));
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/a/b.txt")));

  // Nor by a folder move while the store, listed again after an event, still holds the file.
  cache().markForInvalidation(ov(u"/a"));
  cache().moveFolderMetadata(ov(u"/a"), ov(u"/moved"), fsp::ReplacementPolicy::Fail);
  EXPECT_EQ(names(u"/moved"), (std::set<std::u16string>{u"sub"}));
}

TEST_F(MetadataCacheTest, MovedFileKeepsItsMetadataFrozenAtTheDestination) {
  cache().moveFileMetadata(ov(u"/a/b.txt"), ov(u"/ab/b2.txt"));
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/a/b.txt")));
  auto moved = cache().getFileMetadata(ov(u"/ab/b2.txt"));
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved->getSize(), 5u);
  EXPECT_TRUE(moved->isFrozen());
  cache().moveFileMetadata(ov(u"/ab/b2.txt"), ov(u"/ab/x.txt"));  // replaces x.txt
  EXPECT_EQ(cache().getFileSize(ov(u"/ab/x.txt")), 5u);
  EXPECT_EQ(names(u"/ab"), (std::set<std::u16string>{u"x.txt"}));
}

TEST_F(MetadataCacheTest, MovedFolderTreeIsRebuiltFrozenAndConfirmedRecursively) {
  cache().getFolderEntry(ov(u"/"));
  cache().moveFolderMetadata(ov(u"/a"), ov(u"/ab/moved"), fsp::ReplacementPolicy::Fail);
  EXPECT_FALSE(cache().getFolderMetadata(ov(u"/a")));
  EXPECT_FALSE(names(u"/").count(u"a"));
  EXPECT_EQ(names(u"/ab"), (std::set<std::u16string>{u"moved", u"x.txt"}));
  const auto calls = listings();
  auto c = cache().getFileMetadata(ov(u"/ab/moved/sub/c.txt"));
  ASSERT_TRUE(c);
  EXPECT_EQ(c->getSize(), 3u);
  EXPECT_TRUE(c->isFrozen());
  EXPECT_EQ(listings(), calls);  // the destination needs no listing
  EXPECT_EQ(cache().getFolderTreeSize(ov(u"/ab/moved")), 8u);
  EXPECT_EQ(cache().getFolderTreeSize(ov(u"/ab")), 9u);

  // A later move inside the tree is still on its way when the first is confirmed: what it
  // placed stays frozen until its own confirmation.
  cache().moveFolderMetadata(ov(u"/ab/moved/sub"), ov(u"/ab/moved/sub2"),
                             fsp::ReplacementPolicy::Fail);
  const auto c2 = cache().getFileMetadata(ov(u"/ab/moved/sub2/c.txt"));
  cache().confirmFolder(ov(u"/ab/moved"), true);
  EXPECT_TRUE(c2->isFrozen());
  cache().confirmFolder(ov(u"/ab/moved/sub2"), true);
  EXPECT_FALSE(c2->isFrozen());
  EXPECT_FALSE(cache().getFolderMetadata(ov(u"/ab/moved"))->isFrozen());
}

TEST_F(MetadataCacheTest, FolderTreeSizeCountsOnlyCachedFolders) {
  EXPECT_EQ(cache().getFolderTreeSize(ov(u"/a")), 0u);
  cache().getFolderEntry(ov(u"/a"));
  EXPECT_EQ(cache().getFolderTreeSize(ov(u"/a")), 5u);
  cache().getFolderEntry(ov(u"/a/sub"));
  EXPECT_EQ(cache().getFolderTreeSize(ov(u"/a")), 8u);
  EXPECT_EQ(listings(), 2u);
}

TEST_F(MetadataCacheTest, RemovedFolderDropsItsSubtree) {
  cache().getFolderEntry(ov(u"/"));
  cache().getFolderEntry(ov(u"/a/sub"));
  cache().removeFolderMetadata(ov(u"/a"));
  EXPECT_FALSE(cache().getFolderMetadata(ov(u"/a")));
  EXPECT_EQ(listings(), 2u);
  // Until the removal has been replayed the store still holds the folder: nothing below it
  // is listed from there, nor shown.
  EXPECT_THROW(cache().getFolderEntry(ov(u"/a/sub")), fsp::Exception);
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/a/b.txt")));
  EXPECT_FALSE(cache().getFolderEntry(ov(u"/"))->hasChild(ov(u"/a")));
  EXPECT_EQ(listings(), 2u);
  cache().confirmRemoval(ov(u"/a"));
  cache().getFolderEntry(ov(u"/a/sub"));  // replayed elsewhere, say: listed afresh
  EXPECT_EQ(listings(), 3u);
}

TEST_F(MetadataCacheTest, UpdateWhileTheParentIsListedIsNotLost) {
  Gate gate;
  hooked->before = [&](std::string_view op, const StorageIRI&) {
    if (op == "listAll") gate.pass();
  };
  auto lookup = std::async(std::launch::async, [&] { return names(u"/a"); });
  gate.entered.get_future().wait();
  auto record = std::make_shared<FileMetadata>(ov(u"/a/streamed.txt"), true);
  record->setSize(9);
  cache().addFileMetadata(record);  // must not wait for the held listing
  gate.release.set_value();
  EXPECT_EQ(lookup.get(), (std::set<std::u16string>{u"b.txt", u"sub", u"streamed.txt"}));
  EXPECT_EQ(cache().getFileSize(ov(u"/a/streamed.txt")), 9u);
}

// A removal and the re-creation after it, both confirmed while a lookup waits for the
// parent's listing: the folder exists, whatever the lookup saw of the removal before it waited.
TEST_F(MetadataCacheTest, ConfirmationsDuringALookupDoNotHideTheFolder) {
  cache().getFolderEntry(ov(u"/a"));
  cache().removeFolderMetadata(ov(u"/a/sub"));
  const auto again = cache().createFolderMetadata(ov(u"/a/sub"));
  Gate gate;
  hooked->before = [&](std::string_view op, const StorageIRI&) {
    if (op == "listAll") gate.pass();
  };
  cache().markForInvalidation(ov(u"/a/sub"));
  auto lookup =
      std::async(std::launch::async, [&] { return cache().getFolderMetadata(ov(u"/a/sub")); });
  gate.entered.get_future().wait();
  cache().confirmRemoval(ov(u"/a/sub"));
  cache().confirmFolder(ov(u"/a/sub"), false);
  gate.release.set_value();
  EXPECT_EQ(lookup.get(), again);
}

// A listing that read the store before a removal reached it must not bring the removed file
// back once the removal is confirmed.
TEST_F(MetadataCacheTest, ARemovalConfirmedDuringAListingLeavesNoStaleRow) {
  cache().getFolderEntry(ov(u"/a"));
  cache().removeFileMetadata(ov(u"/a/b.txt"));
  Gate gate;
  hooked->before = [&](std::string_view op, const StorageIRI&) {
    if (op == "listAll") gate.pass();
  };
  cache().markForInvalidation(ov(u"/a/b.txt"));
  auto lookup = std::async(std::launch::async, [&] { return names(u"/a"); });
  gate.entered.get_future().wait();
  cache().confirmRemoval(ov(u"/a/b.txt"));
  gate.release.set_value();
  EXPECT_EQ(lookup.get(), (std::set<std::u16string>{u"sub"}));
  EXPECT_FALSE(cache().getFileMetadata(ov(u"/a/b.txt")));
}

TEST_F(MetadataCacheTest, PopulationFillsTheTreeFromOneRecursiveListing) {
  store.mem->createFolder(mem(u"/lazy"));
  store.write(u"/lazy/l.txt", "l");
  store.mem->setExtendedAttribute(mem(u"/lazy"), "initiallyInvalid", "1");
  cache().populateWholeFolderTreeWhenPossible(true);
  cache().waitForPopulation();
  EXPECT_EQ(store.counted->callCount("listAllRecursive"), 1u);
  EXPECT_EQ(cache().getFileSize(ov(u"/a/sub/c.txt")), 3u);
  EXPECT_EQ(cache().getFileSize(ov(u"/ab/x.txt")), 1u);
  EXPECT_EQ(names(u"/"), (std::set<std::u16string>{u"a", u"ab", u"lazy"}));
  EXPECT_EQ(names(u"/a"), (std::set<std::u16string>{u"b.txt", u"sub"}));
  EXPECT_EQ(cache().getFileSize(ov(u"/lazy/l.txt")), 1u);
  EXPECT_EQ(listings(), 1u);  // only the folder marked initially invalid lists itself
}

TEST_F(MetadataCacheTest, PopulationFailureIsReportedOnceAndTheCacheFillsOnDemand) {
  store.counted->failNext("listAllRecursive", 1, ErrorCode::IOError);
  cache().populateWholeFolderTreeWhenPossible(true);
  EXPECT_EQ(codeOf([&] { cache().waitForPopulation(); }), ErrorCode::IOError);
  cache().waitForPopulation();
  EXPECT_EQ(cache().getFileSize(ov(u"/a/b.txt")), 5u);
  EXPECT_EQ(listings(), 1u);
}

TEST_F(MetadataCacheTest, NoPopulationWithoutRecursiveListing) {
  MemProvider::Options options;
  options.features = {fsp::ExtendedFeature::ReadWrite};
  coretest::MemStore plain(options);
  MetadataCache flat(plain.root, fsp::FilenameSensitivity::CaseSensitive);
  flat.populateWholeFolderTreeWhenPossible(true);
  flat.waitForPopulation();
  flat.populateWholeFolderTreeWhenPossible(false);
  EXPECT_EQ(plain.counted->callCount("listAllRecursive"), 0u);
  EXPECT_EQ(plain.counted->callCount("listAll"), 0u);
  cache().populateWholeFolderTreeWhenPossible(false);  // lists the root at once
  EXPECT_EQ(listings(), 1u);
}

}  // namespace
}  // namespace storage::overlayprovider
