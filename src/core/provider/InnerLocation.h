// Where an overlay location lives in the inner store.
//
// The overlay's locations are "overlay" IRIs whose path is the path below the inner root.
// innerItemFor gives the inner provider's item for such a location: the inner root item
// with the inner root's path and the overlay path joined. Pure function; any thread.
#pragma once

#include <foundation/storage/provider/StorageItem.h>

namespace storage::overlayprovider {

inline foundation::storage::provider::StorageItem innerItemFor(
    const foundation::storage::provider::StorageItem& innerRoot,
    const foundation::storage::provider::StorageIRI& overlayLocation) {
  const auto& rootPath = innerRoot.getLocation().getPath();
  if (rootPath == u"/") return {innerRoot, overlayLocation.getPath()};
  return {innerRoot, overlayLocation.hasParent() ? rootPath + overlayLocation.getPath() : rootPath};
}

}  // namespace storage::overlayprovider
