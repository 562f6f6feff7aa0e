// The context the host gave this bundle (BundleContext.h), kept for the bundle's own code.
// Set by the host through the exported context setter when it loads the bundle and reset
// to null before it unloads it. Any thread may read it (an atomic pointer); only the host's
// loading thread sets it.
#pragma once

#include <foundation/host/BundleContext.h>

namespace storage::overlayprovider::bundle {

// Null while no host has set a context.
const foundation::host::BundleContext* bundleContext();

}  // namespace storage::overlayprovider::bundle
