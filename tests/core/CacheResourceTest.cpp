// Cache resources over real files in a temporary cache directory: file names, log records,
// the range map under writes and queries, staleness on opening, seeding, moving and failures.
// The resource that caches nothing is checked through the overlay with caching disabled.
#include "core/cacheresources/CacheResourceLog.h"
#include "core/cacheresources/FilesystemCacheResource.h"
#include "core/metadata/FileMetadata.h"

#include "CoreTestSupport.h"

#include <foundation/log/LogCapture.h>

#include <gtest/gtest.h>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem.hpp>
#include <boost/filesystem/fstream.hpp>

#include <sys/stat.h>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

namespace storage::overlayprovider {
namespace {

namespace fs = boost::filesystem;
namespace pt = boost::posix_time;
using coretest::ov;
using Ranges = std::map<std::int64_t, std::int64_t>;
constexpr auto FULL = RangeStatus::FULLY_CACHED;
constexpr auto NOT = RangeStatus::NOT_CACHED;
constexpr auto PARTIAL = RangeStatus::PARTIALLY_CACHED;

const pt::ptime kTime(boost::gregorian::date(2024, 3, 1), pt::hours(12));

struct TempDir {
  TempDir() : path(fs::temp_directory_path() / fs::unique_path("cache-resource-%%%%-%%%%")) {
    fs::create_directories(path);
  }
  ~TempDir() { fs::remove_all(path); }
  fs::path path;
};

std::shared_ptr<FileMetadata> record(const std::u16string& location, std::uint64_t size,
                                     pt::ptime time = kTime) {
  auto metadata = std::make_shared<FileMetadata>(ov(location), false);
  metadata->setSize(size).setLastModified(time);
  return metadata;
}

void putFile(const fs::path& file, const std::string& content) {
  fs::ofstream(file, std::ios::binary) << content;
}

std::string contentOf(const fs::path& file) {
  std::ostringstream text;
  text << fs::ifstream(file, std::ios::binary).rdbuf();
  return text.str();
}

using Writes = std::vector<std::pair<std::int64_t, std::int64_t>>;  // position, count

void writeAll(CacheResource& resource, const Writes& writes) {
  for (const auto& [position, count] : writes) {
    const std::string data(static_cast<std::size_t>(count), 'x');
    resource.write(position, data.data(), count);
  }
}

std::time_t seconds(pt::ptime time) { return pt::to_time_t(time); }

TEST(CacheResourceTest, FileNameIsTheUnpaddedBase64UrlBlake2bOfTheTextForm) {
  // Known answers computed independently (Python hashlib.blake2b, urlsafe_b64encode).
  EXPECT_EQ(cacheFileName(ov(u"/a.txt")),
            "dBmpzM9pOJAsuP5mKcRhSHFmB6VuRWUNHDd0SryL8TFf8Gbazj61oCEMweELsmlUSqtIuiIE_WndtTuub0-"
            "w5g.cache");
  EXPECT_EQ(cacheFileName(ov(u"/docs/\u00e9.txt")),
            "dFcyVWh0xJyzTv8QWXzORH-6_pF0jcnU9hoUtOT1jSJ01IKddzdkSroysYIMaMFymsBTyrpYtAuETnCoSWL8B"
            "g.cache");
  EXPECT_EQ(cacheFileName(ov(u"/a.txt")).size(), 86u + 6u);
}

TEST(CacheResourceTest, LogRecordIsOneLineOfJsonThatReadsBack) {
  const std::string text = makeLogRecord("debug", "say \"hi\"", ov(u"/d/\u00e9.txt"), "/c/x.cache");
  EXPECT_EQ(text.find('\n'), std::string::npos);
  const auto tree = coretest::parseJson(text);
  EXPECT_EQ(tree.get<std::string>("overlay.debug.message"), "say \"hi\"");
  EXPECT_EQ(tree.get<std::string>("overlay.debug.location"), "overlay:/d/\xc3\xa9.txt");
  EXPECT_EQ(tree.get<std::string>("overlay.debug.checkoutPath"), "/c/x.cache");
  EXPECT_EQ(tree.size(), 1u);
  EXPECT_EQ(tree.get_child("overlay.debug").size(), 3u);
}

// Each case writes, then checks the recorded ranges and what a query finds of a range.
TEST(CacheResourceTest, WritesRecordAndMergeRangesAndQueriesFindTheGap) {
  const struct {
    const char* name;
    Writes writes;
    Ranges ranges;
    std::int64_t position, length;
    RangeStatus status;
    std::optional<ByteRange> gap;
  } cases[] = {
      {"gap between", {{0, 10}, {20, 10}}, {{0, 10}, {20, 30}}, 5, 20, PARTIAL, {{10, 20}}},
      // No range holds the request's end: the gap runs to it, over the range in between.
      {"gap before a range", {{0, 10}, {20, 10}}, {{0, 10}, {20, 30}}, 5, 30, PARTIAL, {{10, 35}}},
      {"bridged", {{0, 10}, {20, 10}, {10, 10}}, {{0, 30}}, 2, 28, FULL, std::nullopt},
      // A range written just before another merges with it; the gap ends at the query's end.
      {"touching before", {{10, 10}, {0, 10}}, {{0, 20}}, 10, 15, PARTIAL, {{20, 25}}},
      {"extended in place", {{0, 10}, {5, 45}}, {{0, 50}}, 50, 5, NOT, std::nullopt},
      // Extending the range that holds the write's start merges nothing: the ranges overlap,
      // and the gap runs from the holder's end back to the start of the range holding the end.
      {"extended, not merged",
       {{0, 10}, {20, 10}, {5, 20}},
       {{0, 25}, {20, 30}},
       5,
       24,
       PARTIAL,
       {{25, 20}}},
      // A position inside an overlapped range is held by the first range that covers it.
      {"held by the longer range",
       {{12, 1}, {0, 10}, {5, 25}},
       {{0, 30}, {12, 13}},
       20,
       5,
       FULL,
       std::nullopt},
      {"extended chain",
       {{0, 5}, {8, 1}, {18, 12}, {8, 12}, {3, 7}},
       {{0, 10}, {8, 20}, {18, 30}},
       0,
       30,
       PARTIAL,
       {{10, 18}}},
      // A write that starts outside every range merges its neighbours, overlaps included.
      {"merged by a new range",
       {{10, 10}, {30, 10}, {15, 20}, {0, 5}},
       {{0, 5}, {10, 40}},
       12,
       20,
       FULL,
       std::nullopt},
      {"swallow", {{0, 5}, {10, 5}, {20, 5}, {6, 15}}, {{0, 5}, {6, 25}}, 0, 10, PARTIAL, {{5, 6}}},
      {"zero length", {{7, 0}}, {}, 0, 5, NOT, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    FilesystemCacheResource resource(record(u"/f", 0), dir.path);
    writeAll(resource, c.writes);
    EXPECT_EQ(resource.ranges(), c.ranges);
    EXPECT_FALSE(resource.hasFailed());
    const RangeQuery query = resource.queryRange(c.position, c.length);
    EXPECT_EQ(query.status, c.status);
    EXPECT_EQ(query.gap, c.gap);
  }
}

// A body is trusted only at the record's time (whole seconds) and size: an older one is out of
// date, a newer one was being written or belongs to another file once at that location.
TEST(CacheResourceTest, OpeningTrustsOnlyABodyOfTheRecordsTimeAndSize) {
  struct Case {
    const char* name;
    long bodyAgeSeconds;  // body time = record time - age
    std::uint64_t size;
    pt::ptime recordTime;
    bool kept;
    Ranges expected;
  };
  const std::vector<Case> cases = {
      {"older", 10, 4, kTime, false, {}},
      {"same second", 0, 4, kTime + pt::milliseconds(900), true, {{0, 4}}},
      {"newer", -10, 4, kTime, false, {}},
      {"another size", 0, 5, kTime, false, {}},
      {"record without time", -10, 4, pt::ptime(), false, {}},
  };
  for (const auto& c : cases) {
    TempDir dir;
    const auto metadata = record(u"/f", c.size, c.recordTime);
    const fs::path body = dir.path / cacheFileName(metadata->getIRI());
    putFile(body, "body");
    fs::last_write_time(body, seconds(kTime) - c.bodyAgeSeconds);
    FilesystemCacheResource resource(metadata, dir.path);
    EXPECT_EQ(resource.exists(), c.kept) << c.name;
    EXPECT_EQ(fs::exists(body), c.kept) << c.name;
    EXPECT_EQ(resource.ranges(), c.expected) << c.name;
    EXPECT_EQ(resource.coversWhole(static_cast<std::int64_t>(c.size)), c.kept) << c.name;
  }
}

TEST(CacheResourceTest, BodiesArePrivateAndReadBackWhatWasWritten) {
  TempDir dir;
  FilesystemCacheResource resource(record(u"/f", 0), dir.path);
  resource.write(3, "abcdef", 6);
  struct stat status {};
  ASSERT_EQ(::stat(resource.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);

  char buffer[16] = {};
  EXPECT_EQ(resource.read(5, buffer, 16), 4);  // stops at the end of the file
  EXPECT_EQ(std::string(buffer, 4), "cdef");
  resource.close();
  EXPECT_EQ(resource.seek(0, std::ios_base::end), 9);  // reopens
  EXPECT_EQ(resource.read(3, buffer, 2), 2);
  EXPECT_EQ(std::string(buffer, 2), "ab");
  EXPECT_TRUE(resource.coversWhole(0));
  EXPECT_FALSE(resource.coversWhole(9));  // [0,3) was never written
}

TEST(CacheResourceTest, RemovedBodyIsDeletedAndLaterWritesStartAFreshOne) {
  TempDir dir;
  FilesystemCacheResource resource(record(u"/f", 0), dir.path);
  resource.write(0, "old body", 8);
  resource.doRemove();
  EXPECT_FALSE(resource.exists());
  EXPECT_TRUE(resource.ranges().empty());
  resource.write(0, "new", 3);
  EXPECT_EQ(contentOf(resource.path()), "new");
  EXPECT_EQ(resource.ranges(), (Ranges{{0, 3}}));
}

TEST(CacheResourceTest, SyncStampsTheBodyAndLastModifiedReportsIt) {
  TempDir dir;
  FilesystemCacheResource resource(record(u"/f", 0), dir.path);
  const auto before = pt::microsec_clock::universal_time();
  EXPECT_GE(resource.lastModified(), before - pt::seconds(1));  // no body: now, in UTC
  resource.write(0, "x", 1);
  resource.sync(kTime + pt::milliseconds(700));
  EXPECT_EQ(resource.lastModified(), kTime);
  EXPECT_EQ(fs::last_write_time(resource.path()), seconds(kTime));
}

TEST(CacheResourceTest, MoveReplacesABodyAtTheNewNameAndTheContentFollows) {
  TempDir dir;
  FilesystemCacheResource resource(record(u"/a", 0), dir.path);
  resource.write(0, "alpha", 5);
  const fs::path oldPath = resource.path();
  const fs::path newPath = dir.path / cacheFileName(ov(u"/b"));
  putFile(newPath, "stale body at the target");

  resource.move(ov(u"/b"));
  EXPECT_EQ(resource.path(), newPath);
  EXPECT_FALSE(fs::exists(oldPath));
  EXPECT_EQ(contentOf(newPath), "alpha");
  resource.write(5, "!", 1);  // the open descriptor followed the rename
  EXPECT_EQ(contentOf(newPath), "alpha!");

  resource.move(ov(u"/b"));  // onto its own name: the body stays
  EXPECT_EQ(contentOf(newPath), "alpha!");
}

TEST(CacheResourceTest, SeedingCopiesStampsAndTrustsTheSource) {
  TempDir dir;
  const fs::path source = dir.path / "source";
  putFile(source, "seeded");
  FilesystemCacheResource resource(record(u"/f", 6), dir.path, source);
  EXPECT_EQ(contentOf(resource.path()), "seeded");
  EXPECT_EQ(fs::last_write_time(resource.path()), seconds(kTime));
  EXPECT_EQ(fs::status(resource.path()).permissions(), fs::owner_all);
  EXPECT_TRUE(resource.coversWhole(6));

  FilesystemCacheResource missing(record(u"/g", 6), dir.path, dir.path / "absent");
  EXPECT_FALSE(missing.exists());
  EXPECT_TRUE(missing.ranges().empty());
}

TEST(CacheResourceTest, UnopenableBodyFailsWritesLogsAndReadsNothing) {
  TempDir dir;
  putFile(dir.path / "file", "");
  const fs::path cacheDirectory = dir.path / "file" / "cache";  // parent is not a directory
  const auto metadata = record(u"/f", 0);
  FilesystemCacheResource resource(metadata, cacheDirectory);
  foundation::log::LogCapture capture;

  char buffer[4];
  EXPECT_EQ(resource.read(0, buffer, 4), 0);
  EXPECT_FALSE(resource.hasFailed());  // only writes fail the resource
  EXPECT_EQ(capture.count("Failure in local cache reading", foundation::log::error), 1u);

  resource.write(0, "data", 4);
  EXPECT_TRUE(resource.hasFailed());
  EXPECT_TRUE(resource.ranges().empty());
  const auto errors = capture.matching("Failure in local cache writing", foundation::log::error);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].message, makeLogRecord("error", "Failure in local cache writing",
                                             metadata->getIRI(), resource.path()));
  EXPECT_EQ(capture.count("Exception caught: ", foundation::log::exception), 2u);
  EXPECT_THROW(resource.seek(0, std::ios_base::beg), std::runtime_error);
}

}  // namespace
}  // namespace storage::overlayprovider
