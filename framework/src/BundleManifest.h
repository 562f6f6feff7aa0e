// BundleManifest: what the host needs from a bundle's manifest.json, read and checked.
// Host-only (used by LoadedBundle). A plain value; parseBundleManifest is stateless and may
// be called from any thread.
#pragma once

#include <string>
#include <string_view>

namespace foundation::host {

struct BundleManifest {
  std::string symbolicName;
  std::string scheme;
  std::string implementationClass;
};

// Parses the manifest text and checks: "bundle.symbolic_name" an identifier; no activator;
// "scheme" a URI scheme; "scr.components" holding exactly one component with an
// "implementation-class" (a qualified C++ name), "service.interfaces" containing
// ContainerProviderFactory and "properties.scheme" equal to "scheme".
// Throws BundleLoadError (naming `bundlePath` and the first problem found).
BundleManifest parseBundleManifest(std::string_view text, const std::string& bundlePath);

}  // namespace foundation::host
