#include <foundation/storage/provider/mem/MemProvider.h>
#include <foundation/storage/provider/mem/MemProviderFactory.h>

namespace foundation::storage::provider::mem {

std::shared_ptr<IProvider> MemProviderFactory::createProvider(StorageItem /*item*/) {
  return std::make_shared<MemProvider>();
}

StorageIRI MemProviderFactory::getRootLocation(const StorageItem& /*item*/) {
  return MemProvider::rootLocation();
}

void registerMemProvider(ProviderRegistry& registry) {
  registry.registerFactory(u"mem", std::make_shared<MemProviderFactory>());
}

}  // namespace foundation::storage::provider::mem
