#include "bundle/FactoryComponent.h"

#include <foundation/host/BundleAbi.h>

namespace storage::overlayprovider::bundle {

void FactoryComponent::activate() {
  auto factory = std::make_shared<OverlayProviderFactory>();
  std::lock_guard lock(mutex_);
  factory_ = std::move(factory);
}

void FactoryComponent::deactivate() noexcept {
  std::shared_ptr<OverlayProviderFactory> released;
  {
    std::lock_guard lock(mutex_);
    released.swap(factory_);
  }
  // `released` goes here, outside the lock: the factory may be destroyed now.
}

std::shared_ptr<void> FactoryComponent::getInterface(const std::string& interfaceName) {
  if (interfaceName != foundation::host::kContainerProviderFactoryInterface) return nullptr;
  std::lock_guard lock(mutex_);
  // Through the interface type, so that the void pointer is the interface's subobject.
  return std::shared_ptr<foundation::storage::provider::ContainerProviderFactory>(factory_);
}

}  // namespace storage::overlayprovider::bundle
