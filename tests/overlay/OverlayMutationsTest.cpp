// The overlay's mutations as write-behind transactions: refusals that leave everything as it
// was, removal of open files by the store's capabilities, the one move that is never
// replayed, nothing queued after shutdown, and a burst of creates whose echoes from the
// store cost one relisting.
#include "OverlayTestSupport.h"

#include "CoreTestSupport.h"

#include <foundation/text/Unicode.h>

#include <cstdlib>
#include <functional>
#include <thread>

namespace {

using namespace overlaytest;
using coretest::codeOf;
using fsp::ErrorCode;
using fsp::ExtendedFeature;
using fsp::StorageIRI;

StorageIRI memAt(const std::u16string& path) { return StorageIRI(u"mem", path); }

TEST(OverlayMutations, RefusalsNameTheRightLocationAndChangeNothing) {
  OverlayOverMem env;
  env.overlay->createFolder(env.at(u"full"));
  env.overlay->createFile(env.at(u"full/child"));
  env.overlay->createFolder(env.at(u"gone"));
  env.overlay->removeFolder(env.at(u"gone"));  // its removal may still be on its way
  struct Case {
    const char* what;
    std::function<void()> call;
    ErrorCode code;
    std::u16string location;
  };
  const std::vector<Case> cases = {
      {"create in a missing folder", [&] { env.overlay->createFile(env.at(u"nowhere/a.txt")); },
       ErrorCode::NotFound, u"nowhere"},
      {"remove a full folder", [&] { env.overlay->removeFolder(env.at(u"full")); },
       ErrorCode::FolderNotEmpty, u"full"},
      {"create over a folder", [&] { env.overlay->createFile(env.at(u"full")); },
       ErrorCode::AlreadyExists, u"full"},
      {"remove a missing file", [&] { env.overlay->removeFile(env.at(u"none")); },
       ErrorCode::NotFound, u"none"},
      {"list a removed folder", [&] { env.overlay->listAll(env.at(u"gone")); }, ErrorCode::NotFound,
       u"gone"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(fsp::test::refusalOf(c.call), std::pair(c.code, env.at(c.location))) << c.what;
  }
  env.overlay->flushFilesystem();
  EXPECT_TRUE(env.mem->fileExists(memAt(u"/full/child")));
  EXPECT_FALSE(env.mem->folderExists(memAt(u"/nowhere")));
  EXPECT_EQ(env.innerCalls("removeFolder"), 1u);
  EXPECT_EQ(env.innerCalls("removeFile"), 0u);
}

TEST(OverlayMutations, AFileOpenForWritingIsRemovedOnlyWhereTheStoreAllowsIt) {
  struct Case {
    std::set<ExtendedFeature> features;
    bool removed;
  };
  const std::vector<Case> cases = {
      {{}, false},
      {{ExtendedFeature::RemoveWhileOpen}, true},
      {{ExtendedFeature::RemoveWhileClosing}, false},  // open and not closing
      {{ExtendedFeature::RemoveWhileOpen, ExtendedFeature::RemoveWhileClosing}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.features.size());
    fsp::mem::MemProvider::Options options;
    options.features.insert(c.features.begin(), c.features.end());
    OverlayOverMem env(options);
    const auto stream =
        env.overlay->openStream(env.at(u"open.txt"), fsp::ByteStreamOpenOptions::overwrite());
    if (c.removed) {
      env.overlay->removeFile(env.at(u"open.txt"));
      EXPECT_FALSE(env.overlay->fileExists(env.at(u"open.txt")));
    } else {
      EXPECT_EQ(codeOf([&] { env.overlay->removeFile(env.at(u"open.txt")); }),
                ErrorCode::ResourceBusy);
      EXPECT_TRUE(env.overlay->fileExists(env.at(u"open.txt")));
    }
    stream->close();
  }
}

TEST(OverlayMutations, AMoveToAFuseHiddenNameIsNeverReplayed) {
  OverlayOverMem env;
  env.overlay->createFile(env.at(u"a.txt"));
  env.overlay->moveFile(env.at(u"a.txt"), env.at(u".fuse_hidden0001"),
                        fsp::ReplacementPolicy::Fail);
  EXPECT_TRUE(env.overlay->fileExists(env.at(u".fuse_hidden0001")));
  EXPECT_FALSE(env.overlay->fileExists(env.at(u"a.txt")));
  env.overlay->flushFilesystem();
  EXPECT_EQ(env.innerCalls("moveFile"), 0u);
  // Any other name is replayed, even one holding the text further on.
  env.overlay->createFile(env.at(u"b.txt"));
  env.overlay->moveFile(env.at(u"b.txt"), env.at(u"x.fuse_hidden"), fsp::ReplacementPolicy::Fail);
  env.overlay->flushFilesystem();
  EXPECT_TRUE(env.mem->fileExists(memAt(u"/x.fuse_hidden")));
}

TEST(OverlayMutations, AfterShutdownTheCachesChangeButNothingIsQueued) {
  OverlayOverMem env;
  env.overlay->createFolder(env.at(u"d"));
  env.overlay->flushFilesystem();
  env.overlay->shutdown();
  env.overlay->createFile(env.at(u"d/late.txt"));
  EXPECT_TRUE(env.overlay->fileExists(env.at(u"d/late.txt")));
  env.overlay->flushFilesystem();  // returns: the executor has stopped
  EXPECT_FALSE(env.mem->fileExists(memAt(u"/d/late.txt")));
}

TEST(OverlayMutations, ABurstOfCreatesCostsAtMostOneRelistingOfItsFolder) {
  ::setenv("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT", "100", 1);
  OverlayOverMem env;
  env.overlay->createFolder(env.at(u"burst"));  // the first operation reads the quiet period
  ::unsetenv("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT");
  env.overlay->flushFilesystem();
  const auto listingsBefore = env.innerCalls("listAll");
  constexpr int kFiles = 1000;
  for (int i = 0; i < kFiles; ++i) {
    env.overlay->createFile(env.at(u"burst/f" + foundation::text::toUtf16(std::to_string(i))));
  }
  env.overlay->flushFilesystem();
  env.mem->waitForEventsDelivered();
  // The listener resumes a quiet period after the last create and queues its jobs.
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  env.overlay->flushFilesystem();
  const auto listing = env.overlay->listAll(env.at(u"burst"));
  EXPECT_EQ(fsp::collectRows(*listing).size(), static_cast<std::size_t>(kFiles));
  EXPECT_LE(env.innerCalls("listAll") - listingsBefore, 1u);
}

}  // namespace
