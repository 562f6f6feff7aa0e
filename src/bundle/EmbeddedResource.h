// The files packed into the bundle library as its resources. The byte arrays are generated at
// build time from resources/ (see EmbedResource.cmake), so the library carries its manifest
// and cannot be separated from it. Constant data: safe from any thread.
#pragma once

#include <cstddef>

namespace storage::overlayprovider::bundle {

struct EmbeddedResource {
  const char* name;
  const char* bytes;  // followed by a zero byte that `size` does not count
  std::size_t size;
};

// resources/manifest.json, under the name "manifest.json".
extern const EmbeddedResource kManifestResource;

}  // namespace storage::overlayprovider::bundle
