// File bodies through the overlay: what reaches the inner store (counted by the instrumented
// wrapper), what is served from the cached body, and the caching-error fallback.
#include "CoreTestSupport.h"
#include "OverlayTestSupport.h"

#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/extensions/ILocalReads.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/ptree.hpp>

#include <unistd.h>

#include <future>
#include <optional>
#include <string>

using namespace overlaytest;
using fsp::ByteStreamOpenOptions;
using fsp::StorageIRI;
using fsp::StorageItem;

namespace {

std::string patternOf(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return bytes;
}

}  // namespace

TEST(OverlayBodies, ReadAfterWriteIsServedWithoutTheStore) {
  OverlayOverMem env;
  auto writer = env.overlay->openStream(env.at(u"f.txt"), ByteStreamOpenOptions::overwrite());
  writer->write("hello", 5);
  auto reader = env.overlay->openReadOnlyStream(env.at(u"f.txt"));
  EXPECT_EQ("hello", readAll(*reader)) << "before close, before the store has it";
  writer->close();
  reader->close();
  EXPECT_EQ(env.innerCalls("openReadOnlyStream"), 0u);
  EXPECT_EQ(env.innerCalls("streamRead"), 0u);
  env.overlay->flushFilesystem();
  EXPECT_EQ("hello", env.stored(u"/f.txt"));
}

// How caller writes become store writes: contiguous bytes are coalesced into one block of at
// most the write payload size; anything else hands the block over first.
TEST(OverlayBodies, WritesReachTheStoreInCoalescedBlocks) {
  struct Case {
    const char* name;
    std::map<std::string, std::string> settings;
    std::vector<std::pair<long, std::string>> writes;  // offset, bytes
    std::uint64_t storeWrites;
    std::string content;
  };
  const std::string h(100, 'h');
  // 33 one-byte writes with a gap after each: one more than a file keeps pending blocks.
  std::vector<std::pair<long, std::string>> scattered;
  std::string scatteredContent;
  for (int i = 0; i < 33; ++i) {
    scattered.emplace_back(2 * i, std::string(1, static_cast<char>('A' + i)));
    scatteredContent +=
        std::string(1, static_cast<char>('A' + i)) + (i < 32 ? std::string(1, '\0') : "");
  }
  const std::vector<Case> cases = {
      {"contiguous", {}, {{0, h}, {100, h}, {200, h}}, 1, h + h + h},
      {"overwrite elsewhere", {}, {{0, h}, {50, "xy"}}, 2, h.substr(0, 50) + "xy" + h.substr(52)},
      {"gap is a hole, then the write", {}, {{0, "ab"}, {5, "c"}}, 2, std::string("ab\0\0\0c", 6)},
      {"block is full",
       {{"overlay.maxWritePayloadSize", "250"}},
       {{0, h}, {100, h}, {200, h}},
       2,
       h + h + h},
      {"a write that would fill the block starts the next",
       {{"overlay.maxWritePayloadSize", "200"}},
       {{0, h}, {100, h}, {200, h}, {300, h}},
       4,
       h + h + h + h},
      {"merging: writes fill blocks exactly",
       {{"overlay.maxWritePayloadSize", "200"}, {"overlay.absorbChanges", "true"}},
       {{0, h}, {100, h}, {200, h}, {300, h}},
       2,
       h + h + h + h},
      {"merging: an overwrite inside the block joins it",
       {{"overlay.absorbChanges", "true"}},
       {{0, h}, {50, "xy"}},
       1,
       h.substr(0, 50) + "xy" + h.substr(52)},
      {"merging: pages out of order join when the gap is filled",
       {{"overlay.absorbChanges", "true"}},
       {{0, "ab"}, {6, "gh"}, {4, "ef"}, {2, "cd"}},
       1,
       "abcdefgh"},
      {"merging: a hole that stays one stays a hole",
       {{"overlay.absorbChanges", "true"}},
       {{0, "ab"}, {5, "c"}},
       2,
       std::string("ab\0\0\0c", 6)},
      {"merging: more scattered writes than blocks are kept",
       {{"overlay.absorbChanges", "true"}},
       scattered,
       33,
       scatteredContent},
      {"merging: blocks are cut at multiples of the payload size",
       {{"overlay.absorbChanges", "true"}, {"overlay.maxWritePayloadSize", "4"}},
       {{0, "ab"}, {2, "cdef"}, {8, "ij"}, {6, "gh"}, {10, "kl"}},
       3,
       "abcdefghijkl"},
      {"write-through",
       {{"overlay.disableContentCache", "true"}},
       {{0, h}, {100, h}, {200, h}},
       3,
       h + h + h},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    OverlayOverMem env;
    env.configure(c.settings);
    auto stream = env.overlay->openStream(env.at(u"f"), ByteStreamOpenOptions::overwrite());
    for (const auto& [offset, bytes] : c.writes) {
      ASSERT_EQ(stream->seek(offset, std::ios_base::beg), offset);
      ASSERT_EQ(stream->write(bytes.data(), static_cast<long>(bytes.size())),
                static_cast<long>(bytes.size()));
    }
    stream->close();
    env.overlay->flushFilesystem();
    // Merging, a new file written in one block may reach the store as one whole-file write.
    EXPECT_EQ(env.innerCalls("streamWrite") + env.innerCalls("writeWholeFile"), c.storeWrites);
    EXPECT_EQ(c.content, env.stored(u"/f"));
    auto reader = env.overlay->openReadOnlyStream(env.at(u"f"));
    EXPECT_EQ(c.content, readAll(*reader));
  }
}

TEST(OverlayBodies, ColdReadsFetchWhatTheyNeedOnce) {
  OverlayOverMem env;
  const auto body = patternOf(1 << 20);
  env.put(u"/big", body);
  auto stream = env.overlay->openReadOnlyStream(env.at(u"big"));
  std::string tail(4096, '\0');
  ASSERT_EQ(stream->seek(-4096, std::ios_base::end), (1 << 20) - 4096);
  ASSERT_EQ(stream->read(tail.data(), 4096), 4096);
  EXPECT_EQ(body.substr(body.size() - 4096), tail);
  EXPECT_EQ(env.innerCalls("streamRead"), 1u) << "the end of a large file, not its body";
  EXPECT_EQ(stream->read(tail.data(), 1), -1) << "at the end";

  // Only what the body holds is handed out as a local file, and only all of it.
  auto& local = dynamic_cast<fsp::extensions::ILocalReads&>(*stream);
  const auto locatedBytes = [&](long offset, long count) -> std::optional<std::string> {
    stream->seek(offset, std::ios_base::beg);
    const auto located = local.readLocally(count);
    if (!located) return std::nullopt;
    EXPECT_EQ(stream->seek(0, std::ios_base::cur), offset + located->count);
    std::string bytes(static_cast<std::size_t>(located->count), '\0');
    if (bytes.empty()) return bytes;
    EXPECT_EQ(::pread(located->descriptor, bytes.data(), bytes.size(), located->offset),
              static_cast<ssize_t>(bytes.size()));
    return bytes;
  };
  EXPECT_EQ(locatedBytes((1 << 20) - 4096, 8192), body.substr(body.size() - 4096));
  EXPECT_EQ(locatedBytes(1 << 20, 10), std::string()) << "at the end";
  EXPECT_EQ(locatedBytes(0, 4096), std::nullopt) << "not fetched yet";
  EXPECT_EQ(locatedBytes((1 << 20) - 8192, 8192), std::nullopt) << "half fetched";

  // A sequential reader in small reads is served in few, growing store requests.
  stream->seek(0, std::ios_base::beg);
  std::string all;
  char buffer[4096];
  for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) all.append(buffer, n);
  EXPECT_EQ(body, all);
  EXPECT_LE(env.innerCalls("streamRead"), 6u);
  const auto reads = env.innerCalls("streamRead");
  stream->seek(0, std::ios_base::beg);
  EXPECT_EQ(body, readAll(*stream));
  EXPECT_EQ(env.innerCalls("streamRead"), reads) << "a cached body is read locally";
  EXPECT_EQ(locatedBytes(0, 1 << 20), body);
  stream->close();
}

// A write beyond the store's room is refused at once. A store with a local cache of its own is
// asked for that cache's room; any other store is not asked at all (for a remote store it
// would be a round trip per write), and the quota accountant's estimate refuses instead.
TEST(OverlayBodies, RefusedWritesBecomeWriteFailuresWithTheirCode) {
  const struct {
    bool storeHasCache;
    fsp::ErrorCode expected;
  } cases[] = {{false, fsp::ErrorCode::QuotaExceeded}, {true, fsp::ErrorCode::CacheSpaceExhausted}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.storeHasCache ? "store with a cache" : "store without a cache");
    fsp::mem::MemProvider::Options small;
    small.capacityBytes = 100;
    if (c.storeHasCache) small.features.insert(fsp::ExtendedFeature::CacheUsage);
    OverlayOverMem env(small);
    auto stream = env.overlay->openStream(env.at(u"f"), ByteStreamOpenOptions::overwrite());
    const std::string bytes(200, 'x');
    EXPECT_EQ(
        fsp::test::errorOf<fsp::ByteStreamWriteFailure>([&] { stream->write(bytes.data(), 200); }),
        c.expected);
    EXPECT_EQ(env.innerCalls("getProviderCacheUsage") > 0, c.storeHasCache);
    EXPECT_EQ(env.overlay->getFileAttributes(env.at(u"f")).getSize(), 0u);
  }
}

TEST(OverlayBodies, AFileOpenForWritingReportsItsWorkingSize) {
  OverlayOverMem env;
  env.instrumented->setStreamLatency(std::chrono::milliseconds(50));
  auto stream = env.overlay->openStream(env.at(u"f"), ByteStreamOpenOptions::overwrite());
  stream->write("0123456789", 10);
  EXPECT_EQ(env.overlay->getFileAttributes(env.at(u"f")).getSize(), 10u);
  stream->close();
}

// Two writing sessions close before the first one's close is replayed. Until the second's
// writes reach the store, a folder listed again from the store must keep the written size.
TEST(OverlayBodies, AWrittenSizeOutlivesRelistingsUntilTheStoreHasIt) {
  OverlayOverMem env;
  env.put(u"/f", "old");
  env.instrumented->setStreamLatency(std::chrono::milliseconds(100));
  const std::string last(100, 'b');
  for (const auto& bytes : {std::string("a"), last}) {
    auto stream = env.overlay->openStream(env.at(u"f"), ByteStreamOpenOptions::readWrite());
    stream->write(bytes.data(), static_cast<long>(bytes.size()));
    stream->close();
  }
  auto flushed = std::async(std::launch::async, [&] { env.overlay->flushFilesystem(); });
  while (flushed.wait_for(std::chrono::milliseconds(2)) != std::future_status::ready) {
    env.overlay->metadataCache()->markForInvalidation(StorageIRI(u"overlay", u"/f"));
    ASSERT_EQ(env.overlay->getFileAttributes(env.at(u"f")).getSize(), last.size());
  }
  flushed.get();
  EXPECT_EQ(last, env.stored(u"/f"));
}

TEST(OverlayBodies, ADroppedStreamStillDeliversItsWrites) {
  OverlayOverMem env;
  {
    auto stream = env.overlay->openStream(env.at(u"f"), ByteStreamOpenOptions::overwrite());
    stream->write("kept", 4);
  }
  env.overlay->flushFilesystem();
  EXPECT_EQ("kept", env.stored(u"/f"));
  EXPECT_NO_THROW(env.overlay->removeFile(env.at(u"f"))) << "no longer counted as open";
}

// A file whose body the overlay does not hold, moved over another: until the move is replayed
// the store holds the replaced file's bytes there, which a read must never be served.
TEST(OverlayBodies, AReadAfterAQueuedMoveGetsTheMovedBytes) {
  OverlayOverMem env;
  env.put(u"/source", "moved bytes");
  env.put(u"/target", "replaced");
  env.instrumented->setCallLatency(std::chrono::milliseconds(20));
  env.overlay->moveFile(env.at(u"source"), env.at(u"target"), fsp::ReplacementPolicy::Overwrite);
  EXPECT_EQ("moved bytes", readAll(*env.overlay->openReadOnlyStream(env.at(u"target"))));
}

// Queued writes refer to their bytes in the cached body; whatever takes the body away first
// must leave the bytes with the writes.
TEST(OverlayBodies, QueuedBytesSurviveTheirBodyGoing) {
  const auto body = patternOf(3 << 20);
  struct Case {
    const char* name;
    std::function<void(OverlayOverMem&)> takeBodyAway;
    std::string content;
  };
  const std::vector<Case> cases = {
      {"evicted",
       [](OverlayOverMem& env) {
         env.overlay->contentCache().find(StorageIRI(u"overlay", u"/f"))->removeCachedBody();
       },
       body},
      {"invalidated", [](OverlayOverMem& env) { env.overlay->invalidate(env.at(u"")); }, body},
      // As a cleaner of old temporary folders does: the queued writes keep their bytes.
      {"its folder deleted from outside",
       [](OverlayOverMem& env) {
         boost::filesystem::remove_all(env.overlay->contentCache().versionDirectory());
       },
       body},
      {"emptied by a new open",
       [](OverlayOverMem& env) {
         auto again = env.overlay->openStream(env.at(u"f"), ByteStreamOpenOptions::overwrite());
         again->write("new", 3);
         again->close();
       },
       "new"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    OverlayOverMem env;
    env.instrumented->setStreamLatency(std::chrono::milliseconds(30));
    auto stream = env.overlay->openStream(env.at(u"f"), ByteStreamOpenOptions::overwrite());
    for (std::size_t offset = 0; offset < body.size(); offset += 64 << 10) {
      stream->write(body.data() + offset, 64 << 10);
    }
    stream->close();
    c.takeBodyAway(env);
    env.overlay->flushFilesystem();
    EXPECT_EQ(c.content, env.stored(u"/f"));
    auto reader = env.overlay->openReadOnlyStream(env.at(u"f"));
    EXPECT_EQ(c.content, readAll(*reader));
  }
}

TEST(OverlayBodies, CopyGoesThroughTheOverlaysOwnStreams) {
  OverlayOverMem env;
  env.put(u"/src", "source bytes");
  env.overlay->copyFile(env.at(u"src"), env.at(u"dst"), fsp::ReplacementPolicy::Fail);
  EXPECT_EQ(env.innerCalls("copyFile"), 0u);
  auto reader = env.overlay->openReadOnlyStream(env.at(u"dst"));
  EXPECT_EQ("source bytes", readAll(*reader));
  env.overlay->flushFilesystem();
  EXPECT_EQ("source bytes", env.stored(u"/dst"));
}

TEST(OverlayBodies, BodiesPersistAcrossProvidersOnlyWhenAskedTo) {
  const fsp::test::TempDir directory;
  const boost::filesystem::path root = directory.path().string();
  {
    // A root the cache made up itself goes whole at shutdown: nobody else knows its name.
    OverlayOverMem made;
    made.overlay->createFile(made.at(u"f"));
    const auto madeRoot = made.overlay->contentCache().cacheRoot();
    EXPECT_TRUE(boost::filesystem::is_directory(madeRoot / "V1.0"));
    made.overlay->shutdown();
    EXPECT_FALSE(boost::filesystem::exists(madeRoot));
  }
  for (const bool persistent : {false, true}) {
    SCOPED_TRACE(persistent ? "persistent" : "temporary");
    const std::map<std::string, std::string> settings = {
        {"overlay.cacheRoot", root.string()},
        {"overlay.persistContentCache", persistent ? "1" : "0"}};
    OverlayOverMem first;
    first.configure(settings);
    auto writer = first.overlay->openStream(first.at(u"f"), ByteStreamOpenOptions::overwrite());
    writer->write("cached", 6);
    writer->close();
    first.overlay->flushFilesystem();
    first.overlay->shutdown();
    first.overlay.reset();
    const auto bodies = [&] {
      return std::distance(boost::filesystem::directory_iterator(root / "V1.0"),
                           boost::filesystem::directory_iterator());
    };
    EXPECT_EQ(bodies(), persistent ? 1 : 0);

    OverlayOverMem second(first.mem);
    second.configure(settings);
    auto reader = second.overlay->openReadOnlyStream(second.at(u"f"));
    EXPECT_EQ("cached", readAll(*reader));
    EXPECT_EQ(second.innerCalls("streamRead"), persistent ? 0u : 1u);
    second.overlay->shutdown();
    // A body found on disk goes with its file, though no entry of this run ever used it.
    OverlayOverMem third(first.mem);
    third.configure(settings);
    third.overlay->removeFile(third.at(u"f"));
    EXPECT_EQ(bodies(), 0);
    EXPECT_TRUE(boost::filesystem::is_directory(root / "V1.0")) << "a configured root stays";
  }
}

// With the cache unusable, opening a stream logs the fallback, flushes, and from then on the
// provider forwards every operation to the inner store.
TEST(OverlayBodies, ACachingErrorMakesTheProviderAForwarder) {
  OverlayOverMem env;
  env.configure({{"overlay.cacheRoot", "/proc/version/cache"}});
  foundation::log::LogCapture log;
  auto stream = env.overlay->openStream(env.at(u"f"), ByteStreamOpenOptions::overwrite());
  EXPECT_EQ(log.count("Caching error when opening stream. Falling back."), 1u);
  EXPECT_EQ(log.count("Flushing filesystem"), 1u);
  EXPECT_TRUE(env.overlay->isPassThrough());
  stream->write("direct", 6);
  stream->close();
  EXPECT_EQ("direct", env.stored(u"/f")) << "the inner store's own stream";
  env.overlay->createFile(env.at(u"g"));
  EXPECT_TRUE(env.mem->fileExists(StorageIRI(u"mem", u"/g")));
  auto reader = env.overlay->openReadOnlyStream(env.at(u"f"));
  EXPECT_EQ("direct", readAll(*reader));
  EXPECT_EQ(log.count("Caching error when opening read-only stream. Falling back."), 0u);
}
