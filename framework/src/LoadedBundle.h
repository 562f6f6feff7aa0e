// LoadedBundle: one bundle library loaded by a BundleHost, from dlopen to dlclose.
// Host-only. The constructor opens the library and reads its manifest (no side effects
// beyond the open library); start() makes, activates and registers the component; the
// destructor undoes whatever was done, in reverse order (see BundleHost.h for the steps and
// the lifetime rule).
//
// Ownership: owned by its BundleHost (unique_ptr); owns the library handle, the bundle
// context and the component instance; shares the factory with the registry.
// Locks: none of its own; the host's mutex serialises every call. The registry's mutex is
// taken inside registerFactory/unregisterFactory.
#pragma once

#include "BundleManifest.h"
#include "SharedLibrary.h"

#include <foundation/host/BundleAbi.h>
#include <foundation/host/BundleHost.h>

#include <memory>

namespace foundation::host {

// Gives a component instance back to the bundle that made it.
struct ComponentDeleter {
  DeleteComponentInstanceFunction deleteInstance = nullptr;
  void operator()(ComponentInstance* instance) const noexcept { deleteInstance(instance); }
};

class LoadedBundle {
 public:
  // Opens the library and reads and checks its manifest. Throws what SharedLibrary and
  // parseBundleManifest throw, and BundleLoadError when the manifest resource is missing.
  explicit LoadedBundle(const std::string& path);
  ~LoadedBundle();
  LoadedBundle(const LoadedBundle&) = delete;
  LoadedBundle& operator=(const LoadedBundle&) = delete;

  const BundleInfo& info() const { return info_; }
  // Context setter, NewInstance_, activate, registerFactory. On failure everything done so
  // far is undone and the error (BundleLoadError) is thrown.
  void start(storage::provider::ProviderRegistry& registry);

 private:
  std::string readManifestText() const;
  void createComponent();
  void activateComponent();
  // Undoes start(), step by step; safe at any point of it and more than once.
  void stop() noexcept;
  void deactivateComponent() noexcept;

  SharedLibrary library_;
  BundleInfo info_;
  BundleContext context_;
  SetBundleContextFunction setContext_ = nullptr;
  std::unique_ptr<ComponentInstance, ComponentDeleter> component_;
  bool active_ = false;
  std::shared_ptr<storage::provider::ContainerProviderFactory> factory_;
  storage::provider::ProviderRegistry* registry_ = nullptr;  // set while registered
};

}  // namespace foundation::host
