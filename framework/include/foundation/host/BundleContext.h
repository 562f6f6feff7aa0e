// BundleContext: what a host tells a bundle about itself while the bundle is loaded. The host
// passes it to the bundle's context setter (_us_set_bundle_context_instance_<symbolic name>)
// after loading the library and passes null before unloading it.
//
// Ownership: the host owns it; a bundle may keep the pointer only until it is told null.
// Immutable while the bundle holds it, so any thread of the bundle may read it.
#pragma once

#include <string>

namespace foundation::host {

struct BundleContext {
  std::string symbolicName;
  // The path the library was loaded from.
  std::string location;
};

}  // namespace foundation::host
