// The entry points through which a host makes and deletes this bundle's component. Their
// names are the component's implementation class with "::" made "_", as in the manifest.
#include "bundle/Export.h"
#include "bundle/FactoryComponent.h"

#include <foundation/host/BundleAbi.h>

#include <new>

// Never throws: a failed allocation gives null, which the host reports.
extern "C" OVERLAYPROVIDER_EXPORT foundation::host::ComponentInstance*
NewInstance_storage_overlayprovider_OverlayProviderFactory() {
  return new (std::nothrow) storage::overlayprovider::bundle::FactoryComponent();
}

extern "C" OVERLAYPROVIDER_EXPORT void
DeleteInstance_storage_overlayprovider_OverlayProviderFactory(
    foundation::host::ComponentInstance* instance) {
  delete instance;
}

static_assert(std::is_same_v<decltype(&NewInstance_storage_overlayprovider_OverlayProviderFactory),
                             foundation::host::NewComponentInstanceFunction>);
static_assert(
    std::is_same_v<decltype(&DeleteInstance_storage_overlayprovider_OverlayProviderFactory),
                   foundation::host::DeleteComponentInstanceFunction>);
