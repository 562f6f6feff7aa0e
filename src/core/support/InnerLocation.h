// Where an overlay location lives in the inner store.
//
// The overlay's locations are "overlay" IRIs whose path is the path below the inner root.
// innerItemFor gives the inner provider's item for such a location: the inner root item
// with the inner root's path and the overlay path joined; pathBelow goes the other way.
// Pure functions; any thread.
#pragma once

#include <foundation/storage/provider/StorageItem.h>

#include <optional>
#include <string>

namespace storage::overlayprovider {

inline foundation::storage::provider::StorageItem innerItemFor(
    const foundation::storage::provider::StorageItem& innerRoot,
    const foundation::storage::provider::StorageIRI& overlayLocation) {
  const auto& rootPath = innerRoot.getLocation().getPath();
  if (rootPath == u"/") return {innerRoot, overlayLocation.getPath()};
  return {innerRoot, overlayLocation.hasParent() ? rootPath + overlayLocation.getPath() : rootPath};
}

// The path of `location` below `innerRoot` ("/" for the root itself), or nothing when it lies
// outside it. Schemes are not compared: callers decide which locations they accept.
inline std::optional<std::u16string> pathBelow(
    const foundation::storage::provider::StorageIRI& innerRoot,
    const foundation::storage::provider::StorageIRI& location) {
  using foundation::storage::provider::StorageIRI;
  const StorageIRI root(u"", innerRoot.getPath());
  const StorageIRI candidate(u"", location.getPath());
  if (root == candidate) return u"/";
  if (!root.isAncestorOf(candidate)) return std::nullopt;
  if (!root.hasParent()) return candidate.getPath();
  return candidate.getPath().substr(root.getPath().size());
}

}  // namespace storage::overlayprovider
