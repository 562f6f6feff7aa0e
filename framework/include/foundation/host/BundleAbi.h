// The entry points through which a host reaches a bundle (a shared library), and how their
// names are built. A bundle exports, with C linkage:
//   foundation_bundle_resource(name, size)     its embedded resources; "manifest.json" is
//                                              the one the host reads; null for unknown names
//   _us_set_bundle_context_instance_<sym>(ctx) the context setter, <sym> the manifest's
//                                              "bundle.symbolic_name"
//   NewInstance_<class>() / DeleteInstance_<class>(instance)
//                                              per component, <class> its
//                                              "implementation-class" with "::" made "_"
// The names follow the service runtime's Declarative Services glue, so that a bundle built
// against the runtime and one built with the hand-written glue look alike to a host.
// Stateless; safe from any thread.
#pragma once

#include <foundation/host/BundleContext.h>
#include <foundation/host/ComponentInstance.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace foundation::host {

using BundleResourceFunction = const char* (*)(const char* name, std::size_t* size);
using SetBundleContextFunction = void (*)(BundleContext* context);
// Returns null when the instance could not be allocated; never throws.
using NewComponentInstanceFunction = ComponentInstance* (*)();
using DeleteComponentInstanceFunction = void (*)(ComponentInstance* instance);

inline constexpr const char* kBundleResourceSymbol = "foundation_bundle_resource";
inline constexpr const char* kManifestResourceName = "manifest.json";
// The service interface through which a bundle offers storage providers.
inline constexpr const char* kContainerProviderFactoryInterface =
    "foundation::storage::provider::ContainerProviderFactory";

// "NewInstance_" + the class name with every "::" replaced by "_".
std::string newInstanceSymbol(std::string_view implementationClass);
std::string deleteInstanceSymbol(std::string_view implementationClass);
std::string bundleContextSetterSymbol(std::string_view symbolicName);

}  // namespace foundation::host
