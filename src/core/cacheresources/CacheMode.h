// CacheMode: whether cached bodies outlive the provider that cached them.
//
// TEMPORARY (the default): bodies serve one provider's life and are deleted when its content
// cache goes. PERSISTENT ("overlay.persistContentCache"): complete bodies are flushed to disk
// and stamped with the file's last-modified time when their last stream closes, so that a
// later provider over the same cache root serves them without reading the store again.
#pragma once

#include <cstdint>

namespace storage::overlayprovider {

// The numeric values are those a configuration dump shows: never renumber.
enum class CacheMode : std::uint32_t { PERSISTENT = 0, TEMPORARY = 1 };

}  // namespace storage::overlayprovider
