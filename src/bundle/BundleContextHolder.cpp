#include "bundle/BundleContextHolder.h"

#include "bundle/Export.h"

#include <foundation/host/BundleAbi.h>

#include <atomic>

namespace storage::overlayprovider::bundle {

namespace {
std::atomic<const foundation::host::BundleContext*> currentContext{nullptr};
}  // namespace

const foundation::host::BundleContext* bundleContext() { return currentContext.load(); }

}  // namespace storage::overlayprovider::bundle

// The name ends in the manifest's "bundle.symbolic_name": the host builds it from there.
extern "C" OVERLAYPROVIDER_EXPORT void _us_set_bundle_context_instance_com_brindle_overlayprovider(
    foundation::host::BundleContext* context) {
  storage::overlayprovider::bundle::currentContext.store(context);
}

static_assert(std::is_same_v<decltype(&_us_set_bundle_context_instance_com_brindle_overlayprovider),
                             foundation::host::SetBundleContextFunction>);
