// CachingErrorException: the content cache cannot hold a file's body (no local space, or an
// unexpected failure of the local disk). Thrown by ContentCache::retrieve; the provider
// answers it by serving the request from the inner store instead (and, when a stream is
// opened, by stopping caching for good). A plain exception value; any thread.
#pragma once

#include <stdexcept>

namespace storage::overlayprovider {

class CachingErrorException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace storage::overlayprovider
