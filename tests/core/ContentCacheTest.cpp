// ContentCache: its directory, the registry of working files, space by eviction, staleness,
// aborts and moves; and LocalFSCacheSpaceArbitrator with fixed figures (the 98 % threshold,
// the wrap-around leniency, capacity measured once) and over the real filesystem. What the
// cache leaves on disk at the end is checked through the provider
// (OverlayBodies.BodiesPersistAcrossProvidersOnlyWhenAskedTo).
#include "CoreTestSupport.h"
#include "core/contentcache/ContentCache.h"

#include "core/contentcache/CachingErrorException.h"
#include "core/contentcache/LocalFSCacheSpaceArbitrator.h"
#include "core/execution/SynchronousExecutor.h"

#include <foundation/log/LogCapture.h>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <thread>
#include <vector>

namespace storage::overlayprovider {
namespace {

namespace fs = boost::filesystem;
using coretest::ov;

// Grants space while `refusals` is 0, else refuses once per unit; counts releases.
struct FakeArbitrator : ICacheSpaceArbitrator {
  explicit FakeArbitrator(int& refusals, int& releases) : refusals(refusals), releases(releases) {}
  bool hasSpaceFor(std::uint64_t) override {
    if (refusals > 0)
      --refusals;
    else if (refusals == 0)
      return true;
    return false;
  }
  void releaseSpace() override { ++releases; }
  int& refusals;  // -1: refuse for ever
  int& releases;
};

class ContentCacheTest : public ::testing::Test {
 protected:
  ContentCacheTest() : root_(fs::temp_directory_path() / fs::unique_path("cc-test-%%%%-%%%%")) {
    settings_.innerRoot = store_.root;
    settings_.executor =
        std::make_shared<ExecutorSlot>(std::make_shared<SynchronousExecutor>([] {}));
    cache_->setCacheRoot(root_);
    cache_->setArbitratorFactory(
        [this](const fs::path&) { return std::make_unique<FakeArbitrator>(refusals_, releases_); });
  }
  ~ContentCacheTest() override {
    cache_.reset();
    fs::remove_all(root_);
  }

  // As a caller that opens its stream at once, unless `keepPinned` (one about to open).
  std::shared_ptr<WorkingFileEntry> retrieve(const std::u16string& path,
                                             const std::string& watermark = "",
                                             bool keepPinned = false) {
    auto record = std::make_shared<FileMetadata>(ov(path), false);
    fsp::ExtendedAttributes attributes;
    if (!watermark.empty()) attributes.setAttribute("WATERMARK", watermark);
    record->setExtendedAttributes(attributes);
    auto entry = cache_->retrieve(ov(path), record, settings_);
    if (!keepPinned) entry->unpin();
    return entry;
  }

  // Writes through a read-write stream registration and closes it.
  static void write(const std::shared_ptr<WorkingFileEntry>& entry, const std::string& bytes) {
    const auto stream = entry->openReadWrite(fsp::ByteStreamOpenOptions::readWrite(), {});
    entry->writeAt(0, bytes.data(), static_cast<std::int64_t>(bytes.size()));
    entry->close(stream->id());
  }

  coretest::MemStore store_;
  fs::path root_;
  WorkingFileSettings settings_;
  int refusals_ = 0;
  int releases_ = 0;
  std::unique_ptr<ContentCache> cache_ = std::make_unique<ContentCache>();
};

TEST_F(ContentCacheTest, EveryOperationKeepsTheVersionDirectory) {
  EXPECT_FALSE(fs::exists(root_));
  EXPECT_FALSE(cache_->contains(ov(u"/a")));
  EXPECT_TRUE(fs::is_directory(root_ / "V1.0"));
  fs::remove_all(root_);
  EXPECT_FALSE(cache_->contains(ov(u"/a")));
  EXPECT_TRUE(fs::is_directory(root_ / "V1.0")) << "deleted from outside, made again";
  EXPECT_NE(ContentCache().cacheRoot(), ContentCache().cacheRoot());
  EXPECT_EQ(ContentCache().cacheRoot().filename().string().rfind("overlay_cache-", 0), 0u);
}

TEST_F(ContentCacheTest, NoSpaceAndNothingToEvictIsACachingError) {
  refusals_ = -1;
  foundation::log::LogCapture log;
  EXPECT_EQ(coretest::whatOf<CachingErrorException>([&] { retrieve(u"/a"); }),
            "Caching failed due to a lack of filespace.");
  EXPECT_EQ(log.count("Content caching failure (no space)."), 1u);
  EXPECT_FALSE(cache_->contains(ov(u"/a")));
}

// With no entry left, the space is held by bodies that entries leaving the registry kept for
// later use: those go first (except one that a stream still reads, even after the entry left
// the list of released entries), and the caller is served, if need be over the space.
TEST_F(ContentCacheTest, NoSpaceWithNoEntryDeletesUnusedBodiesBeforeFailing) {
  const auto unused = retrieve(u"/a"), reading = retrieve(u"/b");
  write(unused, "aaaa");
  write(reading, "bbbb");
  const auto stream = reading->openReadOnly();
  cache_->removeEntry(ov(u"/b"), false);
  cache_->markActivity();  // the next release lets the earlier released entries go
  cache_->removeEntry(ov(u"/a"), false);
  ASSERT_TRUE(unused->resource()->exists());
  refusals_ = 1;
  EXPECT_NO_THROW(retrieve(u"/c"));
  EXPECT_FALSE(unused->resource()->exists());
  EXPECT_TRUE(reading->resource()->exists());

  // When only bodies still in use hold the space, the cache goes over it until they settle.
  cache_->removeEntry(ov(u"/c"), false);
  refusals_ = 2;
  EXPECT_NO_THROW(retrieve(u"/d"));
  EXPECT_TRUE(reading->resource()->exists());
}

// Only settled entries go: the oldest here is about to be opened (pinned) and stays, and when
// nothing is settled the cache goes over its space rather than fail.
TEST_F(ContentCacheTest, EvictsTheLeastRecentlyAccessedSettledEntryFirst) {
  const auto pinned = retrieve(u"/p", "", true);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const auto b = retrieve(u"/b");
  const auto a = retrieve(u"/a");
  const auto c = retrieve(u"/c");
  write(b, "bbbb");
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  char byte;
  a->readAt(0, &byte, 0);  // touched after b
  c->writeAt(0, "c", 1);   // touched last
  refusals_ = 1;
  foundation::log::LogCapture log;
  retrieve(u"/d");
  EXPECT_EQ(log.count("Content cache out of space. Removing least recently accessed item."), 1u);
  EXPECT_FALSE(cache_->contains(ov(u"/b")));
  EXPECT_TRUE(cache_->contains(ov(u"/a")));
  EXPECT_TRUE(cache_->contains(ov(u"/c")));
  EXPECT_TRUE(cache_->contains(ov(u"/p")));
  EXPECT_EQ(releases_, 1);
  EXPECT_FALSE(b->resource()->exists()) << "an evicted body is deleted";

  const auto open = a->openReadOnly();
  refusals_ = -1;  // no room at all: d goes; a (open), c (a write unsent), p (pinned) stay
  retrieve(u"/e");
  EXPECT_TRUE(cache_->contains(ov(u"/e")));
  EXPECT_FALSE(cache_->contains(ov(u"/d")));
  for (const auto* kept : {u"/a", u"/c", u"/p"}) EXPECT_TRUE(cache_->contains(ov(kept)));
}

TEST_F(ContentCacheTest, InUseMeansAStreamIsOpen) {
  const auto entry = retrieve(u"/a");
  EXPECT_FALSE(cache_->isInUse(ov(u"/a"), false)) << "an entry alone is not in use";
  const auto stream = entry->openReadOnly();
  EXPECT_TRUE(cache_->isInUse(ov(u"/a"), true));
  entry->close(stream->id());
  EXPECT_FALSE(cache_->isInUse(ov(u"/a"), false));
}

TEST_F(ContentCacheTest, ADifferentWatermarkDropsTheEntryAndItsBody) {
  const auto entry = retrieve(u"/a", "v1");
  write(entry, "body");
  cache_->dropIfStale(ov(u"/a"), "v1", true);
  EXPECT_TRUE(cache_->contains(ov(u"/a")));
  EXPECT_TRUE(entry->resource()->exists());
  cache_->dropIfStale(ov(u"/a"), "v2", true);
  EXPECT_FALSE(cache_->contains(ov(u"/a")));
  EXPECT_FALSE(entry->resource()->exists());
}

TEST_F(ContentCacheTest, AnAbortedEntryIsReplacedWithAFreshOne) {
  const auto first = retrieve(u"/a");
  write(first, "old");
  first->abort();
  foundation::log::LogCapture log;
  const auto second = retrieve(u"/a");
  EXPECT_NE(first, second);
  EXPECT_EQ(log.count("Retrieving overlay:/a due to previous abort."), 1u);
  EXPECT_FALSE(second->resource()->exists());
}

TEST_F(ContentCacheTest, MovesReKeyEntriesAndCarryTheirBodies) {
  write(retrieve(u"/d/x"), "x");
  write(retrieve(u"/d/sub/y"), "y");
  write(retrieve(u"/e"), "stale");
  cache_->moveEntry(ov(u"/d/x"), ov(u"/e"));
  EXPECT_FALSE(cache_->contains(ov(u"/d/x")));
  const auto moved = cache_->find(ov(u"/e"));
  ASSERT_NE(moved, nullptr);
  char byte = 0;
  EXPECT_EQ(moved->readAt(0, &byte, 1), 1);
  EXPECT_EQ(byte, 'x') << "the moved body replaced the one at the destination";
  cache_->moveFolderEntries(ov(u"/d"), ov(u"/f"));
  EXPECT_TRUE(cache_->contains(ov(u"/f/sub/y")));
  cache_->removeFolderEntries(ov(u"/f"), true);
  EXPECT_FALSE(cache_->contains(ov(u"/f/sub/y")));
  EXPECT_TRUE(cache_->contains(ov(u"/e")));
}

// Reports `capacity` and `available`, remembering the paths it was asked about.
struct FakeDisk {
  FakeDisk(std::uint64_t capacity, std::uint64_t available)
      : capacity(capacity), available(available) {}

  std::uint64_t capacity;
  std::uint64_t available;
  std::vector<fs::path> asked;

  LocalFSCacheSpaceArbitrator::Measure measure() {
    return [this](const fs::path& path) {
      asked.push_back(path);
      return fs::space_info{capacity, available, available};
    };
  }
};

TEST(CacheSpaceArbitratorTest, GrantsWhileAtMost98PercentWouldBeUsed) {
  struct Case {
    std::uint64_t capacity, available, bytes;
    bool granted;
  };
  const std::vector<Case> cases = {
      {1024, 40, 8, true},    // 96.875 %
      {1024, 40, 19, true},   // 97.95 %
      {1024, 40, 20, false},  // 98.05 %
      {1024, 40, 24, false},  // 98.4375 %
      {100, 1, 0, false},     // already 99 % full
      {1024, 40, 41, true},   // more than is free: the difference wraps and is granted
  };
  for (const auto& c : cases) {
    FakeDisk disk{c.capacity, c.available};
    LocalFSCacheSpaceArbitrator arbitrator("/cache", disk.measure());
    EXPECT_EQ(arbitrator.hasSpaceFor(c.bytes), c.granted)
        << c.capacity << " " << c.available << " " << c.bytes;
  }
}

TEST(CacheSpaceArbitratorTest, CapacityIsMeasuredOnceAndFreeSpaceEveryTime) {
  FakeDisk disk{1024, 40};
  LocalFSCacheSpaceArbitrator arbitrator("/cache", disk.measure());
  disk.capacity = 1u << 30;  // a later capacity is ignored...
  EXPECT_FALSE(arbitrator.hasSpaceFor(24));
  disk.available = 1000;  // ...but free space is read afresh
  arbitrator.releaseSpace();
  EXPECT_TRUE(arbitrator.hasSpaceFor(24));
  EXPECT_EQ(disk.asked, (std::vector<fs::path>(3, "/cache")));
}

TEST(CacheSpaceArbitratorTest, MeasuresTheRealFilesystemAndRefusesAMissingDirectory) {
  EXPECT_NO_THROW(LocalFSCacheSpaceArbitrator arbitrator(fs::temp_directory_path()));
  EXPECT_THROW(LocalFSCacheSpaceArbitrator(fs::temp_directory_path() / fs::unique_path()),
               fs::filesystem_error);
}

}  // namespace
}  // namespace storage::overlayprovider
