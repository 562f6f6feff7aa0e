// MemProviderFactory: makes MemProviders for the host's registry under the scheme "mem".
// Every provider it makes is a new, empty store with default Options; the container item is
// ignored (the store lives in memory, not in a container). Stateless, so concurrent calls are
// safe.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.h>
#include <foundation/storage/provider/ProviderRegistry.h>

namespace foundation::storage::provider::mem {

class MemProviderFactory final : public ContainerProviderFactory {
 public:
  std::shared_ptr<IProvider> createProvider(StorageItem item) override;
  StorageIRI getRootLocation(const StorageItem& item) override;
};

// Registers a MemProviderFactory under u"mem" (replacing any earlier one).
void registerMemProvider(ProviderRegistry& registry);

}  // namespace foundation::storage::provider::mem
