// LocalFSCacheSpaceArbitrator with fixed figures (the 98 % threshold, the wrap-around
// leniency, capacity measured once) and over the real filesystem.
#include "core/contentcache/LocalFSCacheSpaceArbitrator.h"

#include <gtest/gtest.h>

#include <vector>

namespace storage::overlayprovider {
namespace {

namespace fs = boost::filesystem;

// Reports `capacity` and `available`, remembering the paths it was asked about.
struct FakeDisk {
  FakeDisk(std::uint64_t capacity, std::uint64_t available)
      : capacity(capacity), available(available) {}

  std::uint64_t capacity;
  std::uint64_t available;
  std::vector<fs::path> asked;

  LocalFSCacheSpaceArbitrator::Measure measure() {
    return [this](const fs::path& path) {
      asked.push_back(path);
      return fs::space_info{capacity, available, available};
    };
  }
};

TEST(CacheSpaceArbitratorTest, GrantsWhileAtMost98PercentWouldBeUsed) {
  struct Case {
    std::uint64_t capacity, available, bytes;
    bool granted;
  };
  const std::vector<Case> cases = {
      {1024, 40, 8, true},    // 96.875 %
      {1024, 40, 19, true},   // 97.95 %
      {1024, 40, 20, false},  // 98.05 %
      {1024, 40, 24, false},  // 98.4375 %
      {100, 1, 0, false},     // already 99 % full
      {1024, 40, 41, true},   // more than is free: the difference wraps and is granted
  };
  for (const auto& c : cases) {
    FakeDisk disk{c.capacity, c.available};
    LocalFSCacheSpaceArbitrator arbitrator("/cache", disk.measure());
    EXPECT_EQ(arbitrator.hasSpaceFor(c.bytes), c.granted)
        << c.capacity << " " << c.available << " " << c.bytes;
  }
}

TEST(CacheSpaceArbitratorTest, CapacityIsMeasuredOnceAndFreeSpaceEveryTime) {
  FakeDisk disk{1024, 40};
  LocalFSCacheSpaceArbitrator arbitrator("/cache", disk.measure());
  disk.capacity = 1u << 30;  // a later capacity is ignored...
  EXPECT_FALSE(arbitrator.hasSpaceFor(24));
  disk.available = 1000;  // ...but free space is read afresh
  arbitrator.releaseSpace();
  EXPECT_TRUE(arbitrator.hasSpaceFor(24));
  EXPECT_EQ(disk.asked, (std::vector<fs::path>(3, "/cache")));
}

TEST(CacheSpaceArbitratorTest, MeasuresTheRealFilesystemAndRefusesAMissingDirectory) {
  EXPECT_NO_THROW(LocalFSCacheSpaceArbitrator arbitrator(fs::temp_directory_path()));
  EXPECT_THROW(LocalFSCacheSpaceArbitrator(fs::temp_directory_path() / fs::unique_path()),
               fs::filesystem_error);
}

}  // namespace
}  // namespace storage::overlayprovider
