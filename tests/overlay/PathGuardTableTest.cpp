#include "core/provider/PathGuardTable.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>
#include <vector>

using foundation::storage::provider::StorageIRI;
using storage::overlayprovider::PathGuardTable;

namespace {

StorageIRI at(const char16_t* path) { return StorageIRI(u"overlay", path); }

// Holds `held` on another thread until released, and reports the order of what happened.
struct OrderLog {
  std::mutex mutex;
  std::vector<std::string> entries;
  void add(std::string entry) {
    std::lock_guard lock(mutex);
    entries.push_back(std::move(entry));
  }
};

void expectSecondWaitsForFirst(const StorageIRI& first, const StorageIRI& second) {
  PathGuardTable table;
  OrderLog log;
  std::promise<void> release;
  auto guard = std::make_unique<PathGuardTable::Guard>(table.acquire(first));
  std::thread waiter([&] {
    auto held = table.acquire(second);
    log.add("second acquired");
  });
  // Whatever the scheduling, the second guard cannot be granted before the first goes.
  std::this_thread::yield();
  log.add("first released");
  guard.reset();
  waiter.join();
  EXPECT_EQ(log.entries, (std::vector<std::string>{"first released", "second acquired"}))
      << "second location: " << second;
  EXPECT_EQ(table.heldCount(), 0u);
}

}  // namespace

TEST(PathGuardTable, RelatedLocationsWaitForEachOtherInBothDirections) {
  expectSecondWaitsForFirst(at(u"/a"), at(u"/a"));
  expectSecondWaitsForFirst(at(u"/a"), at(u"/a/b/c"));
  expectSecondWaitsForFirst(at(u"/a/b"), at(u"/a"));
  expectSecondWaitsForFirst(at(u"/"), at(u"/x"));
}

TEST(PathGuardTable, UnrelatedLocationsProceedWhileOneIsHeld) {
  PathGuardTable table;
  const auto held = table.acquire(at(u"/a"));
  // If /ab or /b waited for /a, this thread would never finish and the test would time out.
  std::thread([&] {
    const auto sibling = table.acquire(at(u"/ab"));
    const auto other = table.acquire(at(u"/b/c"));
    EXPECT_EQ(table.heldCount(), 3u);
  }).join();
  EXPECT_EQ(table.heldCount(), 1u);
}

TEST(PathGuardTable, AGuardOverRelatedLocationsDoesNotWaitForItself) {
  PathGuardTable table;
  {
    const auto move = table.acquire(std::vector<StorageIRI>{at(u"/a"), at(u"/a/b")});
    auto same = std::async(std::launch::async, [&] { return table.heldCount(); });
    EXPECT_EQ(same.get(), 2u);
  }
  EXPECT_EQ(table.heldCount(), 0u);
}

TEST(PathGuardTable, MovedGuardsReleaseOnce) {
  PathGuardTable table;
  {
    auto first = table.acquire(at(u"/a"));
    PathGuardTable::Guard second(std::move(first));
    EXPECT_EQ(table.heldCount(), 1u);
  }
  EXPECT_EQ(table.heldCount(), 0u);
}
