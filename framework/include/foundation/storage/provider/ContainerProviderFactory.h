// ContainerProviderFactory: the service through which a host makes providers of one scheme.
// A factory is registered under its scheme (ProviderRegistry.h, or a bundle's manifest).
// Thread safety: implementations must allow concurrent calls.
#pragma once

#include <foundation/storage/provider/StorageItem.h>

#include <memory>

namespace foundation::storage::provider {

class ContainerProviderFactory {
 public:
  virtual ~ContainerProviderFactory() = default;
  // A new provider for the container `item` (what the container is depends on the scheme:
  // a local directory for "file", the inner provider's root for "overlay").
  virtual std::shared_ptr<IProvider> createProvider(StorageItem item) = 0;
  // The root location of the provider that createProvider(item) makes.
  virtual StorageIRI getRootLocation(const StorageItem& item) = 0;
};

}  // namespace foundation::storage::provider
