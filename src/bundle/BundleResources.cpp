// The bundle's resource lookup: how a host reads the manifest packed into the library.
#include "bundle/EmbeddedResource.h"
#include "bundle/Export.h"

#include <foundation/host/BundleAbi.h>

#include <cstring>

namespace {

using storage::overlayprovider::bundle::EmbeddedResource;

const EmbeddedResource* findResource(const char* name) {
  static const EmbeddedResource* const kResources[] = {
      &storage::overlayprovider::bundle::kManifestResource};
  for (const EmbeddedResource* resource : kResources) {
    if (std::strcmp(resource->name, name) == 0) return resource;
  }
  return nullptr;
}

}  // namespace

// The bytes of the resource `name` and their count in *size; null (and *size 0) for a name
// the bundle does not hold. `size` may be null when the caller needs only the bytes.
extern "C" OVERLAYPROVIDER_EXPORT const char* foundation_bundle_resource(const char* name,
                                                                         std::size_t* size) {
  const EmbeddedResource* resource = name != nullptr ? findResource(name) : nullptr;
  if (size != nullptr) *size = resource != nullptr ? resource->size : 0;
  return resource != nullptr ? resource->bytes : nullptr;
}

static_assert(std::is_same_v<decltype(&foundation_bundle_resource),
                             foundation::host::BundleResourceFunction>);
