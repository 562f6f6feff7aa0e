#include "OverlayTestSupport.h"

#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/Exception.h>

using namespace overlaytest;
using fsp::ErrorCode;
using fsp::StorageIRI;
namespace flog = foundation::log;

namespace {

StorageIRI memAt(const char16_t* path) { return StorageIRI(u"mem", path); }

void putInMem(fsp::mem::MemProvider& mem, const char16_t* path, std::string_view bytes) {
  auto stream = mem.openStream(memAt(path), fsp::ByteStreamOpenOptions::overwrite());
  stream->write(bytes.data(), static_cast<long>(bytes.size()));
  stream->close();
}

}  // namespace

TEST(OverlayQueries, AFolderListedOnceAnswersEveryLaterQueryFromMemory) {
  OverlayOverMem env;
  env.mem->createFolder(memAt(u"/docs"));
  putInMem(*env.mem, u"/docs/a.txt", "hello");
  env.mem->createFolder(memAt(u"/docs/sub"));

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

TEST(OverlayQueries, MutationsKeepTheCacheTrue) {
  OverlayOverMem env;
  env.overlay->createFolder(env.at(u"d"));
  env.overlay->createFile(env.at(u"d/a"));
  EXPECT_TRUE(env.overlay->fileExists(env.at(u"d/a")));
  env.overlay->moveFile(env.at(u"d/a"), env.at(u"d/b"), fsp::ReplacementPolicy::Fail);
  EXPECT_FALSE(env.overlay->fileExists(env.at(u"d/a")));
  EXPECT_TRUE(env.overlay->fileExists(env.at(u"d/b")));
  env.overlay->removeFile(env.at(u"d/b"));
  EXPECT_FALSE(env.overlay->fileExists(env.at(u"d/b")));
  env.overlay->createFolderRecursive(env.at(u"x/y/z"));
  EXPECT_TRUE(env.overlay->folderExists(env.at(u"x/y")));
  EXPECT_TRUE(env.overlay->folderExists(env.at(u"x/y/z")));
  env.overlay->removeFolderRecursively(env.at(u"x"));
  EXPECT_FALSE(env.overlay->folderExists(env.at(u"x/y/z")));
  EXPECT_FALSE(env.overlay->folderExists(env.at(u"x")));
  // And the inner store agrees once the changes have been replayed.
  env.overlay->flushFilesystem();
  EXPECT_FALSE(env.mem->folderExists(memAt(u"/x")));
  EXPECT_TRUE(env.mem->folderExists(memAt(u"/d")));
}

TEST(OverlayQueries, AttributesOfAFolderOrAMissingLocationAreRefused) {
  OverlayOverMem env;
  env.overlay->createFolder(env.at(u"d"));
  for (const auto* path : {u"d", u"nothing"}) {
    try {
      env.overlay->getFileAttributes(env.at(path));
      ADD_FAILURE() << "no refusal";
    } catch (const fsp::Exception& e) {
      EXPECT_EQ(e.getErrorCode(), ErrorCode::NotFound);
      EXPECT_EQ(e.getLocation(), env.at(path));
    }
  }
}

TEST(OverlayQueries, StorageInformationComesFromTheQuotaEstimate) {
  OverlayOverMem env;
  fsp::mem::MemProvider::Options options;
  options.capacityBytes = 100;
  auto small = std::make_shared<fsp::mem::MemProvider>(options);
  putInMem(*small, u"/sixty", std::string(60, 'x'));
  storage::overlayprovider::OverlayProvider overlay(
      fsp::StorageItem(small, fsp::mem::MemProvider::rootLocation()));
  const auto info = overlay.getProviderStorageInfo(env.at(u"/"));
  EXPECT_EQ(info.getStorageCapacity(), 100u);
  EXPECT_EQ(info.getSpaceOccupied(), 60u);
}

TEST(OverlayQueries, MissingQuotaFiguresAreRefusedWithCodeNine) {
  OverlayOverMem env;
  // The accountant's first poll fails with the framework's exception: it never has figures.
  env.instrumented->failNext("getProviderStorageInfo", 1, ErrorCode::IOError);
  flog::LogCapture capture(flog::error | flog::notice);
  try {
    env.overlay->getProviderStorageInfo(env.root);
    ADD_FAILURE() << "no refusal";
  } catch (const fsp::Exception& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::Unavailable);
  }
  EXPECT_EQ(capture.count("Quota information unavailable", flog::error), 1u);
}
