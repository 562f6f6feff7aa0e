#include "CoreTestSupport.h"
#include "OverlayTestSupport.h"
#include "core/execution/BackendExecutor.h"

#include <foundation/storage/provider/Exception.h>

#include <atomic>
#include <thread>

using namespace overlaytest;
using fsp::ErrorCode;
using fsp::Exception;
using fsp::StorageIRI;

using coretest::codeOf;

TEST(OverlayProvider, InitialisesOnItsFirstOperationOnly) {
  OverlayOverMem env;
  // Construction asks only how the inner store compares names.
  EXPECT_EQ(env.instrumented->totalCalls(), 1u);
  EXPECT_EQ(env.innerCalls("getFilenameSensitivity"), 1u);
  EXPECT_EQ(env.overlay->executor(), nullptr);
  EXPECT_EQ(env.overlay->quotaAccountant(), nullptr);
  // The first operation initialises; the root itself needs no inner call.
  EXPECT_TRUE(env.overlay->folderExists(env.root));
  EXPECT_FALSE(env.overlay->fileExists(env.root));
  EXPECT_EQ(env.innerCalls("folderExists") + env.innerCalls("fileExists"), 0u);
  const auto executor = env.overlay->executor();
  ASSERT_NE(executor, nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<storage::overlayprovider::BackendExecutor>(executor),
            nullptr);
  EXPECT_NE(env.overlay->quotaAccountant(), nullptr);
  env.overlay->createFile(env.at(u"a.txt"));
  EXPECT_EQ(env.overlay->executor(), executor);
  env.overlay->flushFilesystem();
  EXPECT_TRUE(env.mem->fileExists(StorageIRI(u"mem", u"/a.txt")));
}

TEST(OverlayProvider, ResolvesItsOwnComposedAndInnerLocationsOnly) {
  OverlayOverMem env;
  EXPECT_EQ(env.overlay->resolve(env.at(u"a/b")), StorageIRI(u"overlay", u"/a/b"));
  EXPECT_EQ(env.overlay->resolve(StorageIRI(u"overlay+mem:/a/b")), StorageIRI(u"overlay", u"/a/b"));
  EXPECT_EQ(env.overlay->resolve(StorageIRI(u"mem", u"/a/b")), StorageIRI(u"overlay", u"/a/b"));
  EXPECT_EQ(codeOf([&] { env.overlay->resolve(StorageIRI(u"file", u"/a")); }),
            ErrorCode::InvalidLocation);
  EXPECT_EQ(codeOf([&] { env.overlay->createFile(StorageIRI(u"file", u"/a")); }),
            ErrorCode::InvalidLocation);
  env.overlay->invalidate(env.at(u"a"));
  EXPECT_EQ(codeOf([&] { env.overlay->invalidate(StorageIRI(u"file", u"/a")); }),
            ErrorCode::InvalidLocation);
}

TEST(OverlayProvider, BackslashesBecomeSeparatorsOnlyWhenConfigured) {
  OverlayOverMem env;
  EXPECT_EQ(env.overlay->resolve(env.at(u"a\\b")).getName(), u"a\\b");
  boost::property_tree::ptree config;
  config.put("overlay.backslashToForwardSlash", "true");
  env.overlay->configure(config);
  EXPECT_EQ(env.overlay->resolve(env.at(u"a\\b")), StorageIRI(u"overlay", u"/a/b"));
}

TEST(OverlayProvider, RefusesControlCharactersInNewNamesBeforeTheInnerStoreIsAsked) {
  OverlayOverMem env;
  for (const auto* name : {u"a\tb", u"bell\u0007", u"del\u007f", u"c1\u0085"}) {
    EXPECT_EQ(codeOf([&] { env.overlay->createFile(env.at(name)); }), ErrorCode::InvalidName);
    EXPECT_EQ(codeOf([&] { env.overlay->createFolder(env.at(name)); }), ErrorCode::InvalidName);
  }
  // Refused before initialisation: only the construction's question reached the store.
  EXPECT_EQ(env.instrumented->totalCalls(), 1u);
  // Characters above the C1 range are ordinary.
  env.overlay->createFile(env.at(u"caf\u00e9"));
  env.overlay->flushFilesystem();
  EXPECT_TRUE(env.mem->fileExists(StorageIRI(u"mem", u"/caf\u00e9")));
}

TEST(OverlayProvider, ClaimsOnlyTheReadWriteFeatureOfItsInnerStore) {
  OverlayOverMem env;
  EXPECT_TRUE(env.overlay->hasFeature(fsp::ExtendedFeature::ReadWrite));
  EXPECT_TRUE(env.mem->hasFeature(fsp::ExtendedFeature::RecursiveListing));
  EXPECT_FALSE(env.overlay->hasFeature(fsp::ExtendedFeature::RecursiveListing));
  EXPECT_FALSE(env.overlay->hasFeature(fsp::ExtendedFeature::RemoveWhileOpen));
}

TEST(OverlayProvider, StoreRefusalsOfAReplayedChangeNeverReachTheCaller) {
  OverlayOverMem env;
  EXPECT_EQ(codeOf([&] { env.overlay->createFile(env.at(u"missing/a.txt")); }),
            ErrorCode::NotFound);
  env.overlay->createFile(env.at(u"a.txt"));
  env.instrumented->failNext("removeFile", 1, ErrorCode::ResourceBusy);
  // The overlay has removed the file when the call returns; the store's refusal comes later,
  // to the log, and the store keeps its copy.
  env.overlay->removeFile(env.at(u"a.txt"));
  EXPECT_FALSE(env.overlay->fileExists(env.at(u"a.txt")));
  env.overlay->flushFilesystem();
  EXPECT_EQ(env.innerCalls("removeFile"), 1u);
  EXPECT_TRUE(env.mem->fileExists(StorageIRI(u"mem", u"/a.txt")));
}

TEST(OverlayProvider, DestructionShutsTheInnerProviderDownEvenAfterAnExplicitShutdown) {
  OverlayOverMem env;
  env.overlay->createFile(env.at(u"a.txt"));
  env.overlay.reset();
  EXPECT_EQ(env.innerCalls("shutdown"), 1u);

  OverlayOverMem again;
  again.overlay->createFile(again.at(u"a.txt"));
  again.overlay->shutdown();
  EXPECT_TRUE(again.overlay->executor()->isStopped());
  again.overlay.reset();
  EXPECT_EQ(again.innerCalls("shutdown"), 2u);
}

// Lazy initialisation makes members that shutdown reads; run under ThreadSanitizer, this
// catches their unsynchronised use. Either order of the two must end cleanly.
TEST(OverlayProvider, AShutdownMayRaceTheFirstOperation) {
  for (int round = 0; round < 20; ++round) {
    OverlayOverMem env;
    std::atomic<bool> unexpected{false};
    std::thread first([&] {
      try {
        env.overlay->getProviderStorageInfo(env.at(u""));
      } catch (const Exception&) {
        // Refused because the store was shut down first: fine.
      } catch (...) {
        unexpected = true;
      }
    });
    env.overlay->shutdown();
    first.join();
    EXPECT_FALSE(unexpected);
  }
}

TEST(OverlayProvider, AFailedInitialisationIsTriedAgainByTheNextOperation) {
  OverlayOverMem env;
  // Preparing the metadata tree asks the inner store's features first.
  env.instrumented->failNext("hasFeature", 1, ErrorCode::Unavailable);
  EXPECT_EQ(codeOf([&] { env.overlay->folderExists(env.at(u"a")); }), ErrorCode::Unavailable);
  EXPECT_FALSE(env.overlay->folderExists(env.at(u"a")));
  env.overlay->createFolder(env.at(u"a"));
  EXPECT_TRUE(env.overlay->folderExists(env.at(u"a")));
}
