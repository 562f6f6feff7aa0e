#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/ProviderRegistry.h>

namespace foundation::storage::provider {

ProviderRegistry& ProviderRegistry::instance() {
  static ProviderRegistry registry;
  return registry;
}

void ProviderRegistry::registerFactory(const std::u16string& scheme,
                                       std::shared_ptr<ContainerProviderFactory> factory) {
  std::lock_guard lock(mutex_);
  factories_[scheme] = std::move(factory);
}

bool ProviderRegistry::unregisterFactory(const std::u16string& scheme) {
  std::lock_guard lock(mutex_);
  return factories_.erase(scheme) != 0;
}

std::shared_ptr<ContainerProviderFactory> ProviderRegistry::findFactory(
    const std::u16string& scheme) const {
  std::lock_guard lock(mutex_);
  const auto it = factories_.find(scheme);
  return it == factories_.end() ? nullptr : it->second;
}

std::vector<std::u16string> ProviderRegistry::schemes() const {
  std::lock_guard lock(mutex_);
  std::vector<std::u16string> names;
  for (const auto& [scheme, factory] : factories_) names.push_back(scheme);
  return names;
}

StorageItem ProviderRegistry::open(const std::u16string& scheme,
                                   const StorageItem& container) const {
  const auto factory = findFactory(scheme);
  if (!factory) {
    throw Exception(ErrorCode::NotSupported, StorageIRI(scheme, u"/"),
                    "no provider factory is registered for this scheme");
  }
  auto provider = factory->createProvider(container);
  return StorageItem(std::move(provider), factory->getRootLocation(container));
}

}  // namespace foundation::storage::provider
