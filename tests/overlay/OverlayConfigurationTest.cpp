#include "OverlayTestSupport.h"
#include "core/execution/SynchronousExecutor.h"

#include <foundation/log/LogCapture.h>

#include <boost/filesystem.hpp>
#include <optional>

using namespace overlaytest;
using boost::property_tree::ptree;
using foundation::log::LogCapture;
namespace flog = foundation::log;
using storage::overlayprovider::SynchronousExecutor;

namespace {

ptree configWith(std::initializer_list<std::pair<const char*, const char*>> keys) {
  ptree config;
  for (const auto& [key, value] : keys) config.put(key, value);
  return config;
}

}  // namespace

TEST(OverlayConfiguration, EveryTreeReachesTheInnerProviderAndTheKeysAreReadAndEchoed) {
  OverlayOverMem env;
  env.overlay->configure(ptree());
  EXPECT_EQ(env.innerCalls("configure"), 1u);
  EXPECT_DOUBLE_EQ(env.overlay->maxQueueWeight(), 0.0);
  EXPECT_FALSE(env.overlay->isSynchronous());

  LogCapture capture(flog::info | flog::error);
  env.overlay->configure(configWith({{"overlay.cacheRoot", "/tmp/cache"},
                                     {"overlay.maxQueueWeight", "12.5"},
                                     {"overlay.minQueueItemWeight", "0.5"},
                                     {"overlay.maxReadPayloadSize", "1024"},
                                     {"overlay.maxWritePayloadSize", "2048"},
                                     {"overlay.disableContentCache", "true"}}));
  EXPECT_EQ(env.innerCalls("configure"), 2u);
  EXPECT_EQ(env.overlay->configuredCacheRoot(), "/tmp/cache");
  EXPECT_DOUBLE_EQ(env.overlay->maxQueueWeight(), 12.5);
  EXPECT_DOUBLE_EQ(env.overlay->minQueueItemWeight(), 0.5);
  EXPECT_EQ(env.overlay->maxReadPayloadSize(), 1024u);
  EXPECT_EQ(env.overlay->maxWritePayloadSize(), 2048u);
  EXPECT_TRUE(env.overlay->isContentCacheDisabled());
  EXPECT_EQ(capture.count("cacheRoot", flog::info), 1u);
  EXPECT_EQ(capture.count("maxQueueWeight\":\"12.5", flog::info), 1u);
  EXPECT_EQ(capture.count("maxWritePayloadSize", flog::info), 1u);
}

// A maximum set after initialisation reaches the running executor; a negative one is stored
// but kept from it.
TEST(OverlayConfiguration, AMaximumSetLaterReachesTheRunningExecutorUnlessNegative) {
  OverlayOverMem env;
  env.overlay->createFile(env.at(u"a"));  // initialises with a background executor
  LogCapture capture(flog::notice | flog::error);
  env.overlay->configure(configWith({{"overlay.maxQueueWeight", "5"}}));
  EXPECT_EQ(capture.count("Updating BackendExecutor max queue weight to 5", flog::notice), 1u);
  env.overlay->configure(configWith({{"overlay.maxQueueWeight", "-1"}}));
  EXPECT_DOUBLE_EQ(env.overlay->maxQueueWeight(), -1.0);
  EXPECT_EQ(capture.count("overlay.maxQueueWeight < 0. Value must be >= 0", flog::error), 1u);
  EXPECT_EQ(capture.count("Updating BackendExecutor max queue weight"), 1u);
}

TEST(OverlayConfiguration, ABadValueStopsTheReadingAtItsKey) {
  OverlayOverMem env;
  LogCapture capture(flog::error);
  env.overlay->configure(configWith({{"overlay.cacheRoot", "/tmp/c"},
                                     {"overlay.maxQueueWeight", "abc"},
                                     {"overlay.minQueueItemWeight", "3"}}));
  EXPECT_EQ(env.overlay->configuredCacheRoot(), "/tmp/c");
  EXPECT_DOUBLE_EQ(env.overlay->minQueueItemWeight(), 0.0);
  EXPECT_EQ(capture.count("Exception caught: stod", flog::error), 1u);
}

TEST(OverlayConfiguration, FlagsAcceptOnlyAlphabeticTrueAndNeverTurnBackOff) {
  OverlayOverMem env;
  env.overlay->configure(configWith({{"overlay.synchronous", "1"}}));
  EXPECT_FALSE(env.overlay->isSynchronous());
  EXPECT_EQ(env.overlay->executor(), nullptr);
  env.overlay->configure(configWith({{"overlay.synchronous", "true"}}));
  EXPECT_TRUE(env.overlay->isSynchronous());
  EXPECT_NE(std::dynamic_pointer_cast<SynchronousExecutor>(env.overlay->executor()), nullptr);
  env.overlay->configure(configWith({{"overlay.synchronous", "false"}}));
  EXPECT_TRUE(env.overlay->isSynchronous());
  // Initialisation keeps the configured executor.
  env.overlay->createFile(env.at(u"a"));
  EXPECT_NE(std::dynamic_pointer_cast<SynchronousExecutor>(env.overlay->executor()), nullptr);
}

TEST(OverlayConfiguration, PersistenceAcceptsOneAndTrueButNotUpperCase) {
  for (const auto& [text, expected] :
       std::vector<std::pair<const char*, bool>>{{"1", true}, {"true", true}, {"TRUE", false}}) {
    OverlayOverMem env;
    env.overlay->configure(configWith({{"overlay.persistContentCache", text}}));
    EXPECT_EQ(env.overlay->persistContentCache(), expected) << text;
  }
}

TEST(OverlayConfiguration, SwitchingToSynchronousAfterInitialisationLosesNoQueuedWork) {
  OverlayOverMem env;
  env.overlay->createFile(env.at(u"a"));
  const auto background = env.overlay->executor();
  std::atomic<int> ran{0};
  for (int i = 0; i < 10; ++i) {
    background->execute([&] { ++ran; },
                        storage::overlayprovider::ObservableTransactionType::FILE_WRITE, 1.0);
  }
  env.overlay->configure(configWith({{"overlay.synchronous", "true"}}));
  EXPECT_EQ(ran.load(), 10);
  EXPECT_TRUE(background->isStopped());
  EXPECT_NE(std::dynamic_pointer_cast<SynchronousExecutor>(env.overlay->executor()), nullptr);
}

// The journal needs persistent bodies to refer to, and one process per cache root: otherwise
// the first operation is refused with a clear error, and tried again by the next.
TEST(OverlayConfiguration, TheJournalIsRefusedWhereItCouldNotKeepItsPromise) {
  const auto root = boost::filesystem::temp_directory_path() /
                    boost::filesystem::unique_path("overlay-journal-%%%%-%%%%");
  struct Case {
    const char* name;
    bool persistent, contentCache, rootHeldElsewhere;
    std::optional<fsp::ErrorCode> refusal;
  };
  for (const auto& c : std::vector<Case>{
           {"temporary cache", false, true, false, fsp::ErrorCode::OperationRefused},
           {"no content cache", true, false, false, fsp::ErrorCode::OperationRefused},
           {"root held by another provider", true, true, true, fsp::ErrorCode::ResourceBusy},
           {"persistent cache of its own", true, true, false, std::nullopt}}) {
    OverlayOverMem holder, env;
    const auto keys =
        configWith({{"overlay.cacheRoot", root.c_str()},
                    {"overlay.persistContentCache", c.persistent ? "true" : "false"},
                    {"overlay.disableContentCache", c.contentCache ? "false" : "true"},
                    {"overlay.journal", "true"}});
    if (c.rootHeldElsewhere) {
      holder.overlay->configure(keys);
      holder.overlay->folderExists(holder.root);
    }
    env.overlay->configure(keys);
    try {
      env.overlay->folderExists(env.root);
      EXPECT_FALSE(c.refusal) << c.name;
    } catch (const fsp::Exception& refused) {
      EXPECT_EQ(std::optional(refused.getErrorCode()), c.refusal)
          << c.name << ": " << refused.what();
    }
  }
  boost::filesystem::remove_all(root);
}
