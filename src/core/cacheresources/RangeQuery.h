// RangeQuery: what a cache resource holds of a requested byte range.
//
// A plain value returned by CacheResource::queryRange; safe to copy between threads.
#pragma once

#include <cstdint>
#include <optional>

namespace storage::overlayprovider {

// The numeric values are written to logs and compared by callers: never renumber.
enum class RangeStatus : std::uint32_t {
  // The whole requested range lies inside one cached range.
  FULLY_CACHED = 0,
  // The first requested byte is not cached.
  NOT_CACHED = 1,
  // The first byte is cached and a later part is not; `gap` holds the first missing stretch.
  PARTIALLY_CACHED = 2,
  // The resource caches nothing (content caching is disabled).
  CACHING_DISABLED = 3,
};

// A half-open byte range [from, to).
struct ByteRange {
  std::int64_t from = 0;
  std::int64_t to = 0;
  friend bool operator==(const ByteRange&, const ByteRange&) = default;
};

struct RangeQuery {
  RangeStatus status = RangeStatus::NOT_CACHED;
  std::optional<ByteRange> gap;
};

}  // namespace storage::overlayprovider
