#include "OverlayTestSupport.h"

#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/Exception.h>

#include <algorithm>

using namespace overlaytest;
using fsp::ErrorCode;
using fsp::StorageIRI;
namespace flog = foundation::log;

TEST(OverlayQueries, AFolderListedOnceAnswersEveryLaterQueryFromMemory) {
  OverlayOverMem env;
  env.mem->createFolder(StorageIRI(u"mem", u"/docs"));
  env.put(u"/docs/a.txt", "hello");
  env.mem->createFolder(StorageIRI(u"mem", u"/docs/sub"));

  EXPECT_TRUE(env.overlay->fileExists(env.at(u"docs/a.txt")));
  env.instrumented->resetCounters();
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(env.overlay->fileExists(env.at(u"docs/a.txt")));
    EXPECT_FALSE(env.overlay->fileExists(env.at(u"docs/missing")));
    EXPECT_TRUE(env.overlay->folderExists(env.at(u"docs/sub")));
    EXPECT_EQ(env.overlay->getFileAttributes(env.at(u"docs/a.txt")).getSize(), 5u);
    EXPECT_EQ(fsp::collectRows(*env.overlay->listAll(env.at(u"docs"))).size(), 2u);
  }
  EXPECT_EQ(env.instrumented->totalCalls(), 0u) << "everything came from the cache";
}

TEST(OverlayQueries, StorageInformationComesFromTheQuotaEstimate) {
  OverlayOverMem env({.capacityBytes = 100});
  env.put(u"/sixty", std::string(60, 'x'));
  const auto info = env.overlay->getProviderStorageInfo(env.root);
  EXPECT_EQ(info.getStorageCapacity(), 100u);
  EXPECT_EQ(info.getSpaceOccupied(), 60u);
}

TEST(OverlayQueries, MissingQuotaFiguresAreRefusedWithCodeNine) {
  OverlayOverMem env;
  // The accountant's first poll fails with the framework's exception: it never has figures.
  env.instrumented->failNext("getProviderStorageInfo", 1, ErrorCode::IOError);
  flog::LogCapture capture(flog::error | flog::notice);
  EXPECT_EQ(fsp::test::errorOf([&] { env.overlay->getProviderStorageInfo(env.root); }),
            ErrorCode::Unavailable);
  EXPECT_EQ(capture.count("Quota information unavailable", flog::error), 1u);
}

// Every listing opens a trace record that names the provider's source and the listing's
// predicate, also when the provider forwards it to the inner store.
TEST(OverlayQueries, EveryListingOpensATraceRecordNamingItsPredicate) {
  for (const bool passThrough : {false, true}) {
    OverlayOverMem env;
    if (passThrough) {
      env.configure({{"overlay.cacheRoot", "/proc/version/cache"}});
      env.overlay->openStream(env.at(u"f"), fsp::ByteStreamOpenOptions::overwrite())->close();
    }
    for (const std::string predicate : {"ListAllPred", "ListFilesPred", "ListFoldersPred"}) {
      flog::LogCapture log;
      if (predicate == "ListAllPred") env.overlay->listAll(env.at(u""));
      if (predicate == "ListFilesPred") env.overlay->listFiles(env.at(u""));
      if (predicate == "ListFoldersPred") env.overlay->listFolders(env.at(u""));
      const auto records = log.records();
      const auto expected = "[with Pred = storage::overlayprovider::" + predicate;
      EXPECT_TRUE(std::any_of(records.begin(), records.end(),
                              [&](const auto& record) {
                                return record.file == "src/core/OverlayProvider" &&
                                       record.function.find(expected) != std::string::npos;
                              }))
          << predicate << (passThrough ? ", pass-through" : "");
    }
    EXPECT_EQ(env.overlay->isPassThrough(), passThrough);
  }
}
