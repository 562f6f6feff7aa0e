// QuotaAccountant over a small mem store (wrapped to inject failures) and a real metadata
// cache: figures from the store, local adjustments, failed polls and stopping.
#include "core/quota/QuotaAccountant.h"

#include "CoreTestSupport.h"
#include "core/metadata/MetadataCache.h"

#include <foundation/log/LogCapture.h>

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

// A mem store of the given capacity, seen through the instrumented wrapper, and a metadata
// cache over it.
struct Store : coretest::MemStore {
  explicit Store(std::uint64_t capacity) : MemStore({.capacityBytes = capacity}) {}
  void fill(const std::u16string& path, std::size_t bytes) { write(path, std::string(bytes, 'x')); }

  std::shared_ptr<MetadataCache> cache =
      std::make_shared<MetadataCache>(root, fsp::FilenameSensitivity::CaseSensitive);
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

// Between polls the figures follow the overlay's own changes: what it writes is taken off
// (never below zero), and removed files and folder trees give back the sizes the metadata
// cache holds for them (never above the total).
TEST(QuotaAccountantTest, LocalChangesAdjustTheStoresFiguresWithinZeroAndTheTotal) {
  Store store(1000);
  store.fill(u"/a.txt", 300);
  store.fill(u"/b.txt", 50);
  store.mem->createFolder(coretest::mem(u"/d"));
  store.fill(u"/d/x.txt", 100);
  store.fill(u"/d/y.txt", 50);
  ASSERT_EQ(store.cache->getFileSize(overlay(u"/a.txt")), 300u);
  ASSERT_TRUE(store.cache->getFolderEntry(overlay(u"/d")));
  store.fill(u"/a.txt", 50);  // behind the cache's back: it still holds 300 bytes for a.txt
  QuotaAccountant accountant(store.root, kOneHourMs, store.cache);
  EXPECT_EQ(accountant.getTotalQuota(), 1000u);
  EXPECT_EQ(accountant.getSpaceAvailable(), 750u);

  const std::pair<std::function<void()>, std::uint64_t> steps[] = {
      {[&] { accountant.addBytesWritten(15); }, 735},
      {[&] { accountant.removeFile(overlay(u"/b.txt")); }, 785},
      {[&] { accountant.removeFile(overlay(u"/a.txt")); }, 1000},  // 1085, capped
      {[&] { accountant.addFolderTree(overlay(u"/d")); }, 850},
      {[&] { accountant.removeFolderTree(overlay(u"/d")); }, 1000},
      {[&] { accountant.addBytesWritten(2000); }, 0},
  };
  for (const auto& [step, available] : steps) {
    step();
    EXPECT_EQ(accountant.getSpaceAvailable(), available);
  }
  EXPECT_EQ(accountant.getTotalQuota(), 1000u);
}

TEST(QuotaAccountantTest, StoreRefusingTheFirstPollLeavesFiguresEmptyAndEndsPolling) {
  Store store(100);
  store.fill(u"/a.txt", 30);
  ASSERT_EQ(store.cache->getFileSize(overlay(u"/a.txt")), 30u);
  foundation::log::LogCapture capture;
  store.counted->failNext("getProviderStorageInfo", 1, ErrorCode::Unavailable);
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
  EXPECT_EQ(store.counted->callCount("getProviderStorageInfo"), 1u);
  EXPECT_EQ(accountant.getTotalQuota(), std::nullopt);
}

TEST(QuotaAccountantTest, ForeignFailureIsLoggedAndALaterPollStillSucceeds) {
  Store store(100);
  foundation::log::LogCapture capture;
  store.counted->throwNextUnexpected("getProviderStorageInfo", 1);
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

  store.fill(u"/a.txt", 40);
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
