// File sizes over a 1 GiB mem store whose quota the overlay knows: each case changes a cached
// 1 MiB file and a model alike, then checks store, overlay, store calls, body blocks and log.
#include "OverlayTestSupport.h"
#include "core/contentcache/ICacheSpaceArbitrator.h"

#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <sys/stat.h>

using namespace overlaytest;
using fsp::ErrorCode;

namespace {

constexpr long kMiB = 1 << 20;
struct Case {
  const char* name;
  std::optional<ErrorCode> refusal;
  std::uint64_t storeTruncations;
  std::int64_t storeWrites;  // -1: not counted
  std::function<void(OverlayOverMem&, fsp::ByteStream&, std::string& model)> act;
};

void writeAt(fsp::ByteStream& stream, long offset, const std::string& bytes, std::string& model) {
  stream.seek(offset, std::ios_base::beg);
  stream.write(bytes.data(), static_cast<long>(bytes.size()));
  model.resize(std::max(model.size(), offset + bytes.size()));
  model.replace(offset, bytes.size(), bytes);
}

struct FullDisk : storage::overlayprovider::ICacheSpaceArbitrator {  // room for opens only
  bool hasSpaceFor(std::uint64_t bytes) override { return bytes >= kMiB; }
  void releaseSpace() override {}
  bool canHold(std::uint64_t bytes) override { return bytes >= kMiB; }
};

}  // namespace

TEST(OverlaySizes, TruncationsAndWritesPastTheEndChangeSizesInPlace) {
  const auto truncate = [](auto& env, std::uint64_t size, auto& model) {
    env.overlay->truncateToSize(env.at(u"/f"), size), model.resize(size);
  };
  const std::vector<Case> cases = {
      {"extend by truncation", std::nullopt, 1, 0,
       [&](auto& env, auto&, auto& model) { truncate(env, 64 * kMiB, model); }},
      {"shrink cuts queued writes", std::nullopt, 2, -1,
       [&](auto& env, auto& stream, auto& model) {
         env.instrumented->setStreamLatency(std::chrono::milliseconds(20));
         writeAt(stream, kMiB - 10, std::string(200000, 'b'), model);
         writeAt(stream, 2 * kMiB, std::string(5000, 'c'), model);
         truncate(env, kMiB + 50, model);
         writeAt(stream, 40, "after", model);
       }},
      {"write past the end", std::nullopt, 1, 1,
       [&](auto&, auto& stream, auto& model) { writeAt(stream, 40 * kMiB, "xyz", model); }},
      {"impossible size", ErrorCode::CacheSpaceExhausted, 0, 0,
       [&](auto& env, auto&, auto&) {
         env.overlay->truncateToSize(env.at(u"/f"), 999'999'999'999'999);
       }},
      {"overwrites take no quota", std::nullopt, 1, -1,
       [&](auto& env, auto& stream, auto& model) {
         for (int i = 0; i < 2000; ++i) writeAt(stream, 0, std::string(kMiB, 'a' + i % 26), model);
         truncate(env, kMiB / 2, model);
       }},
      {"no room for the growth", ErrorCode::CacheSpaceExhausted, 0, 1,
       [&](auto& env, auto& stream, auto& model) {
         env.overlay->contentCache().setArbitratorFactory(
             [](const auto&) { return std::make_unique<FullDisk>(); });
         writeAt(stream, 20, "in place", model);
         writeAt(stream, kMiB, "more", model);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    OverlayOverMem env({.capacityBytes = 1ULL << 30});
    std::string model(kMiB, 'm');
    env.put(u"/f", model);
    env.instrumented->resetCounters();
    foundation::log::LogCapture capture;
    auto stream = env.overlay->openStream(env.at(u"/f"), fsp::ByteStreamOpenOptions::readWrite());
    std::optional<ErrorCode> refused;
    try {
      c.act(env, *stream, model);
    } catch (const fsp::Exception& e) {
      refused = e.getErrorCode();
      EXPECT_NE(std::string(e.what()).find("file too large"), std::string::npos) << e.what();
    } catch (const fsp::ByteStreamFailure& e) {  // a stream's write
      refused = e.getErrorCode();
    }
    stream->close();
    env.overlay->flushFilesystem();
    EXPECT_EQ(refused, c.refusal);
    EXPECT_TRUE(env.stored(u"/f") == model) << "the store holds " << env.stored(u"/f").size();
    EXPECT_TRUE(readAll(*env.overlay->openReadOnlyStream(env.at(u"/f"))) == model);
    EXPECT_EQ(env.innerCalls("truncateToSize"), c.storeTruncations);
    const std::int64_t writes = env.innerCalls("streamWrite");
    EXPECT_TRUE(c.storeWrites < 0 || writes == c.storeWrites) << writes << " store writes";
    struct stat body {};
    const auto entry = env.overlay->contentCache().find(env.overlay->resolve(env.at(u"/f")));
    ::stat(entry->resource()->path().c_str(), &body);
    EXPECT_LT(body.st_blocks * 512, 2 * kMiB) << "a hole takes no blocks";
    EXPECT_EQ(capture.count("", foundation::log::error), 0u) << capture.records()[0].message;
  }
}

// The estimate gets a removed file's space back at once, not only at the next poll: a store
// with room for one file at a time takes a file, its removal and the next file.
TEST(OverlaySizes, RemovalsGiveTheirSpaceBack) {
  OverlayOverMem env({.capacityBytes = 8 * kMiB});
  const std::string bytes(6 * kMiB, 'r');
  for (const auto* name : {u"/a", u"/b", u"/c"}) {
    auto stream =
        env.overlay->openStream(env.at(name), fsp::ByteStreamOpenOptions::readWriteCreate());
    EXPECT_NO_THROW(stream->write(bytes.data(), static_cast<long>(bytes.size())));
    stream->close();
    env.overlay->removeFile(env.at(name));
  }
  env.overlay->flushFilesystem();
}
