#include "core/provider/PathGuardTable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

using foundation::storage::provider::StorageIRI;
using storage::overlayprovider::PathGuardTable;

namespace {

StorageIRI at(const char16_t* path) { return StorageIRI(u"overlay", path); }

// Holds `first`, asks for `second` on another thread, and checks that it is granted only once
// `first` is released.
void expectSecondWaitsForFirst(const StorageIRI& first, const StorageIRI& second) {
  PathGuardTable table;
  std::atomic<bool> released{false};
  auto guard = std::make_unique<PathGuardTable::Guard>(table.acquire(first));
  std::thread waiter([&] {
    const auto held = table.acquire(second);
    EXPECT_TRUE(released) << "second location: " << second << " granted while the first was held";
  });
  // Whatever the scheduling, the second guard cannot be granted before the first goes.
  std::this_thread::yield();
  released = true;
  guard.reset();
  waiter.join();
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
