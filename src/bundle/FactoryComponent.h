// FactoryComponent: the component instance (ComponentInstance.h) of this bundle's one
// component, OverlayProviderFactory offered as ContainerProviderFactory. It makes the factory
// when the host activates it and drops its reference when the host deactivates it.
//
// Ownership: made and deleted by the bundle's NewInstance_/DeleteInstance_ entry points on the
// host's request; the factory is shared with whoever asked for it through getInterface.
// Locks: one mutex over the factory pointer, held only inside each call.
// Threads: the host calls it from its loading/unloading thread; the mutex makes a stray call
// from another thread safe as well.
#pragma once

#include "core/provider/OverlayProviderFactory.h"

#include <foundation/host/ComponentInstance.h>

#include <memory>
#include <mutex>
#include <string>

namespace storage::overlayprovider::bundle {

class FactoryComponent final : public foundation::host::ComponentInstance {
 public:
  FactoryComponent() noexcept = default;

  void activate() override;
  void deactivate() noexcept override;
  // The factory for "foundation::storage::provider::ContainerProviderFactory" while active.
  std::shared_ptr<void> getInterface(const std::string& interfaceName) override;

 private:
  std::mutex mutex_;
  std::shared_ptr<OverlayProviderFactory> factory_;
};

}  // namespace storage::overlayprovider::bundle
