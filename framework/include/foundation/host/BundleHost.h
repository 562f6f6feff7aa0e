// BundleHost: loads provider bundles (shared libraries with an embedded manifest.json) and
// registers the ContainerProviderFactory each offers in a ProviderRegistry under the
// manifest's "scheme". It stands in for the service runtime in processes that have none,
// and does no more than such processes need: one component per bundle, no activators, no
// references, no dependencies between bundles.
//
// Loading a bundle (load):
//   dlopen(RTLD_NOW | RTLD_LOCAL) -> read "manifest.json" through foundation_bundle_resource
//   -> check the manifest (symbolic name, scheme, exactly one component with its
//   implementation-class, service.interfaces holding ContainerProviderFactory, and
//   properties.scheme equal to the scheme) -> context setter -> NewInstance_ -> activate ->
//   register the factory. A failure at any step undoes the steps before it.
// Errors:
//   no file at the path, or a file that is not a loadable library
//        -> storage::provider::Exception(InvalidLocation) with the path as a "file:" location
//   bad manifest, missing entry point, component not made or not activated, or a bundle with
//   the same symbolic name already loaded by this host -> BundleLoadError
//   A scheme that no loaded bundle registered is refused by ProviderRegistry::open
//   (Exception(NotSupported)).
//
// Unloading (unload(), or the destructor), newest bundle first: unregister the scheme (only
// if the registry still holds this bundle's factory), deactivate, DeleteInstance_, context
// setter with null, dlclose.
// Lifetime rule: a bundle's code stays mapped until the host unloads it, and every provider
// made through its factory, and every reference to the factory itself, must be released
// before that. The host cannot see providers; it does see the factory: if something still
// holds the factory when the component has been deactivated, the host logs an error and
// leaves that library loaded rather than unmap code that is still referenced.
//
// Ownership: the host owns the loaded libraries and component instances; the registry (not
// owned, must outlive the host) shares the factories.
// Locks: the host's mutex, held for the whole of load and unload; the registry's mutex is
// taken inside it (order: host, then registry). Threads: any thread may call load, unload
// and loadedBundles; bundle code runs on the calling thread.
#pragma once

#include <foundation/storage/provider/ProviderRegistry.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::host {

class LoadedBundle;

struct BundleInfo {
  std::string path;
  std::string symbolicName;
  std::u16string scheme;
  std::string implementationClass;
};

class BundleHost {
 public:
  explicit BundleHost(storage::provider::ProviderRegistry& registry =
                          storage::provider::ProviderRegistry::instance());
  ~BundleHost();
  BundleHost(const BundleHost&) = delete;
  BundleHost& operator=(const BundleHost&) = delete;

  // Loads the bundle at `path` and registers its factory (see the header comment).
  BundleInfo load(const std::string& path);
  // Unloads every bundle this host loaded, newest first.
  void unload() noexcept;
  std::vector<BundleInfo> loadedBundles() const;

 private:
  storage::provider::ProviderRegistry& registry_;
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<LoadedBundle>> bundles_;
};

}  // namespace foundation::host
