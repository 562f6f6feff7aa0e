// OverlayProviderFactory: the service through which a host makes overlay providers. The
// bundle registers it under the scheme "overlay"; the container item a host passes is the
// root of the inner (slow or remote) provider that the overlay wraps.
//
// Stateless: it keeps nothing of the providers it makes (each call makes a new one, owned by
// the caller through the returned shared_ptr), so concurrent calls from any threads are safe
// and it takes no lock.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.h>

namespace storage::overlayprovider {

class OverlayProviderFactory : public foundation::storage::provider::ContainerProviderFactory {
 public:
  // A new OverlayProvider over the inner root `item`. What the provider's constructor throws
  // (a refused inner root, for instance) reaches the caller unchanged.
  std::shared_ptr<foundation::storage::provider::IProvider> createProvider(
      foundation::storage::provider::StorageItem item) override;
  // "overlay" composed over the inner root: scheme "overlay", path "/", inner IRI the folder
  // "/" below the item's location.
  foundation::storage::provider::StorageIRI getRootLocation(
      const foundation::storage::provider::StorageItem& item) override;
};

}  // namespace storage::overlayprovider
