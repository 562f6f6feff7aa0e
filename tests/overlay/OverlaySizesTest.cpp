// File sizes through the overlay over a 1 GiB mem store whose quota the overlay knows: each
// case changes a file of 1 MiB alongside a model of its bytes, then checks what the store and
// the overlay hold, what reached the store, how much of the cached body is on disk, and that
// nothing was logged as an error.
#include "OverlayTestSupport.h"

#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/Exception.h>

#include <sys/stat.h>

#include <functional>
#include <optional>

using namespace overlaytest;
using fsp::ByteStreamOpenOptions;
using fsp::ErrorCode;

namespace {

constexpr long kMiB = 1 << 20;

struct Case {
  const char* name;
  // Acts on the overlay's file and on the model of its bytes alike.
  std::function<void(OverlayOverMem&, std::string& model)> act;
  std::optional<ErrorCode> refusal;  // what the last call is refused with
  std::uint64_t storeTruncations;
  std::optional<std::uint64_t> storeWrites;  // unchecked when empty
};

void writeAt(fsp::ByteStream& stream, long offset, const std::string& bytes, std::string& model) {
  stream.seek(offset, std::ios_base::beg);
  ASSERT_EQ(stream.write(bytes.data(), static_cast<long>(bytes.size())), bytes.size());
  if (model.size() < offset + bytes.size()) model.resize(offset + bytes.size());
  model.replace(offset, bytes.size(), bytes);
}

}  // namespace

TEST(OverlaySizes, TruncationsAndWritesPastTheEndChangeSizesInPlace) {
  const auto file = u"/f";
  const std::vector<Case> cases = {
      {"extend by truncation",
       [&](OverlayOverMem& env, std::string& model) {
         env.overlay->truncateToSize(env.at(file), 64 * kMiB);
         model.resize(64 * kMiB);
       },
       {},
       1,
       0},
      {"shrink cuts queued writes",
       [&](OverlayOverMem& env, std::string& model) {
         env.instrumented->setStreamLatency(std::chrono::milliseconds(20));
         auto stream = env.overlay->openStream(env.at(file), ByteStreamOpenOptions::readWrite());
         writeAt(*stream, 100, std::string(3000, 'a'), model);
         writeAt(*stream, kMiB - 10, std::string(200000, 'b'), model);
         writeAt(*stream, 2 * kMiB, std::string(5000, 'c'), model);
         env.overlay->truncateToSize(env.at(file), kMiB + 50);
         model.resize(kMiB + 50);
         writeAt(*stream, 40, "after", model);
         stream->close();
       },
       {},
       2,
       {}},
      {"write past the end",
       [&](OverlayOverMem& env, std::string& model) {
         auto stream = env.overlay->openStream(env.at(file), ByteStreamOpenOptions::readWrite());
         writeAt(*stream, 40 * kMiB, "xyz", model);
         stream->close();
       },
       {},
       1,
       1},
      {"impossible size",
       [&](OverlayOverMem& env, std::string&) {
         env.overlay->truncateToSize(env.at(file), 999'999'999'999'999ULL);
       },
       ErrorCode::CacheSpaceExhausted, 0, 0},
      {"overwrites take no quota",
       [&](OverlayOverMem& env, std::string& model) {
         ASSERT_TRUE(env.overlay->quotaAccountant()->getSpaceAvailable());
         auto stream = env.overlay->openStream(env.at(file), ByteStreamOpenOptions::readWrite());
         for (int i = 0; i < 2000; ++i) writeAt(*stream, 0, std::string(kMiB, 'a' + i % 26), model);
         stream->close();
         env.overlay->truncateToSize(env.at(file), kMiB / 2);
         model.resize(kMiB / 2);
       },
       {},
       1,
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    OverlayOverMem env({.capacityBytes = 1ULL << 30});
    std::string model(kMiB, 'm');
    env.put(file, model);
    readAll(*env.overlay->openReadOnlyStream(env.at(file)));  // cached whole
    env.instrumented->resetCounters();
    foundation::log::LogCapture capture;
    std::optional<fsp::Exception> refused;
    try {
      c.act(env, model);
    } catch (const fsp::Exception& e) {
      refused = e;
    } catch (const std::exception& e) {
      ADD_FAILURE() << "failed: " << e.what();
      continue;
    }
    EXPECT_EQ(refused.has_value(), c.refusal.has_value()) << (refused ? refused->what() : "");
    if (refused && c.refusal) {
      EXPECT_EQ(refused->getErrorCode(), *c.refusal);
      EXPECT_NE(std::string(refused->what()).find("file too large"), std::string::npos);
    }
    env.overlay->flushFilesystem();
    EXPECT_TRUE(env.stored(file) == model) << "the store holds " << env.stored(file).size();
    EXPECT_TRUE(readAll(*env.overlay->openReadOnlyStream(env.at(file))) == model);
    EXPECT_EQ(env.overlay->getFileAttributes(env.at(file)).getSize(), model.size());
    EXPECT_EQ(env.innerCalls("truncateToSize"), c.storeTruncations);
    if (c.storeWrites) {
      EXPECT_EQ(env.innerCalls("streamWrite"), *c.storeWrites);
    }
    struct stat body {};
    const auto entry = env.overlay->contentCache().find(env.overlay->resolve(env.at(file)));
    ASSERT_TRUE(entry);
    ASSERT_EQ(::stat(entry->resource()->path().c_str(), &body), 0);
    EXPECT_LT(body.st_blocks * 512, 2 * kMiB) << "a hole takes no blocks";
    EXPECT_EQ(capture.count("", foundation::log::error), 0u) << capture.records()[0].message;
  }
}
