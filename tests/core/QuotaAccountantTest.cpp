// QuotaAccountant over a small mem store (wrapped to inject failures) and a real metadata
// cache: figures from the store, local adjustments, failed polls and stopping.
#include "core/quota/QuotaAccountant.h"

#include "core/metadata/MetadataCache.h"

#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

namespace storage::overlayprovider {
namespace {

namespace fsp = foundation::storage::provider;
using fsp::ErrorCode;
using fsp::StorageIRI;
using namespace std::chrono_literals;

constexpr long kOneHourMs = 3600 * 1000;

StorageIRI overlay(const std::u16string& path) { return StorageIRI(u"overlay", path); }

// A mem store of the given capacity behind the instrumented wrapper, its root item and a
// metadata cache over it.
struct Store {
  explicit Store(std::uint64_t capacity) {
    fsp::mem::MemProvider::Options options;
    options.capacityBytes = capacity;
    provider = std::make_shared<fsp::instrumented::InstrumentedProvider>(
        std::make_shared<fsp::mem::MemProvider>(options));
    root = std::make_shared<fsp::StorageItem>(provider, fsp::mem::MemProvider::rootLocation());
    cache = std::make_shared<MetadataCache>(root, fsp::FilenameSensitivity::CaseSensitive);
  }
  ~Store() { provider->shutdown(); }

  // Replaces the content of the inner file at `path` with `bytes` bytes.
  void write(const std::u16string& path, long bytes) const {
    auto options = fsp::ByteStreamOpenOptions::readWriteCreate();
    options.truncate = true;
    auto stream = fsp::StorageItem(*root, path).openStream(options);
    const std::string content(static_cast<std::size_t>(bytes), 'x');
    ASSERT_EQ(stream->write(content.data(), bytes), bytes);
    stream->close();
  }

  std::shared_ptr<fsp::instrumented::InstrumentedProvider> provider;
  std::shared_ptr<fsp::StorageItem> root;
  std::shared_ptr<MetadataCache> cache;
};

// Polls `probe` until it returns true; false if that has not happened after a generous time.
template <class Probe>
bool eventually(Probe probe) {
  const auto giveUp = std::chrono::steady_clock::now() + 30s;
  while (std::chrono::steady_clock::now() < giveUp) {
    if (probe()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return false;
}

TEST(QuotaAccountantTest, AvailableIsCapacityLessOccupiedAndWritesNeverWrapBelowZero) {
  Store store(100);
  store.write(u"/a.txt", 40);
  QuotaAccountant accountant(store.root, kOneHourMs, store.cache);
  EXPECT_EQ(accountant.getTotalQuota(), 100u);
  EXPECT_EQ(accountant.getSpaceAvailable(), 60u);

  accountant.addBytesWritten(15);
  EXPECT_EQ(accountant.getSpaceAvailable(), 45u);
  accountant.addBytesWritten(70);
  EXPECT_EQ(accountant.getSpaceAvailable(), 0u);
  EXPECT_EQ(accountant.getTotalQuota(), 100u);
}

TEST(QuotaAccountantTest, RemovedFilesGiveTheirCachedSizeBackCappedAtTheTotal) {
  Store store(100);
  store.write(u"/a.txt", 30);
  store.write(u"/b.txt", 5);
  // The cache learns both sizes; then the store shrinks a.txt behind its back, so that the
  // store reports 90 available while the cache still holds a 30-byte record.
  ASSERT_EQ(store.cache->getFileSize(overlay(u"/a.txt")), 30u);
  ASSERT_EQ(store.cache->getFileSize(overlay(u"/b.txt")), 5u);
  store.write(u"/a.txt", 5);
  QuotaAccountant accountant(store.root, kOneHourMs, store.cache);
  ASSERT_EQ(accountant.getSpaceAvailable(), 90u);

  accountant.removeFile(overlay(u"/b.txt"));
  EXPECT_EQ(accountant.getSpaceAvailable(), 95u);
  accountant.removeFile(overlay(u"/a.txt"));
  EXPECT_EQ(accountant.getSpaceAvailable(), 100u);
}

TEST(QuotaAccountantTest, FolderTreesTakeAndGiveBackTheSizeOfTheirCachedFiles) {
  Store store(1000);
  fsp::StorageItem(*store.root, u"/d").createFolder();
  store.write(u"/d/a.txt", 100);
  store.write(u"/d/b.txt", 50);
  ASSERT_TRUE(store.cache->getFolderEntry(overlay(u"/d")));
  QuotaAccountant accountant(store.root, kOneHourMs, store.cache);
  ASSERT_EQ(accountant.getSpaceAvailable(), 850u);

  accountant.addFolderTree(overlay(u"/d"));
  EXPECT_EQ(accountant.getSpaceAvailable(), 700u);
  accountant.removeFolderTree(overlay(u"/d"));
  EXPECT_EQ(accountant.getSpaceAvailable(), 850u);
}

TEST(QuotaAccountantTest, StoreRefusingTheFirstPollLeavesFiguresEmptyAndEndsPolling) {
  Store store(100);
  store.write(u"/a.txt", 30);
  ASSERT_EQ(store.cache->getFileSize(overlay(u"/a.txt")), 30u);
  foundation::log::LogCapture capture;
  store.provider->failNext("getProviderStorageInfo", 1, ErrorCode::Unavailable);
  QuotaAccountant accountant(store.root, 1, store.cache);

  EXPECT_EQ(
      capture.count("Problem getting quota info. Shutting down poll.", foundation::log::notice),
      1u);
  EXPECT_GE(capture.count("Exception caught: ", foundation::log::exception), 1u);
  accountant.addBytesWritten(10);
  accountant.removeFile(overlay(u"/a.txt"));
  accountant.addFolderTree(overlay(u"/"));
  accountant.removeFolderTree(overlay(u"/"));
  EXPECT_EQ(accountant.getSpaceAvailable(), std::nullopt);
  EXPECT_EQ(accountant.getTotalQuota(), std::nullopt);

  // With a 1 ms period a poll that kept going would long since have succeeded (the store
  // now answers). The wait is only a lower bound: correct code passes however long it is.
  std::this_thread::sleep_for(100ms);
  accountant.stop();
  EXPECT_EQ(store.provider->callCount("getProviderStorageInfo"), 1u);
  EXPECT_EQ(accountant.getTotalQuota(), std::nullopt);
}

TEST(QuotaAccountantTest, ForeignFailureIsLoggedAndALaterPollStillSucceeds) {
  Store store(100);
  foundation::log::LogCapture capture;
  store.provider->throwNextUnexpected("getProviderStorageInfo", 1);
  QuotaAccountant accountant(store.root, 10, store.cache);
  EXPECT_EQ(capture.count("Unexpected exception.", foundation::log::notice), 1u);
  EXPECT_EQ(capture.count("Shutting down poll."), 0u);

  EXPECT_TRUE(eventually([&] { return accountant.getTotalQuota() == 100u; }))
      << "no poll succeeded after the foreign failure";
  EXPECT_EQ(accountant.getSpaceAvailable(), 100u);
}

TEST(QuotaAccountantTest, LaterPollReplacesLocalAdjustmentsWithTheStoresFigures) {
  Store store(100);
  QuotaAccountant accountant(store.root, 10, store.cache);
  ASSERT_EQ(accountant.getSpaceAvailable(), 100u);
  accountant.addBytesWritten(100);
  EXPECT_EQ(accountant.getSpaceAvailable(), 0u);

  store.write(u"/a.txt", 40);
  EXPECT_TRUE(eventually([&] { return accountant.getSpaceAvailable() == 60u; }))
      << "the store's new figures never arrived";
  EXPECT_EQ(accountant.getTotalQuota(), 100u);
}

TEST(QuotaAccountantTest, StopEndsALongWaitAndMayBeRepeatedFromSeveralThreads) {
  Store store(100);
  QuotaAccountant accountant(store.root, kOneHourMs, store.cache);
  // Would hang for an hour if stop() waited for the period to end.
  std::thread other([&] { accountant.stop(); });
  accountant.stop();
  other.join();
  accountant.stop();
  EXPECT_EQ(accountant.getSpaceAvailable(), 100u);
}

TEST(QuotaAccountantTest, MissingCollaboratorsAreRefused) {
  Store store(100);
  EXPECT_THROW(QuotaAccountant(nullptr, 10, store.cache), std::invalid_argument);
  EXPECT_THROW(QuotaAccountant(store.root, 10, nullptr), std::invalid_argument);
  EXPECT_THROW(QuotaAccountant(store.root, 0, store.cache), std::invalid_argument);
}

}  // namespace
}  // namespace storage::overlayprovider
