// ProviderRegistry: the host's table of provider factories by URI scheme.
//
// open(scheme, container) makes a provider of the scheme for the container and returns the
// StorageItem of its root. An unknown scheme is refused with Exception(NotSupported).
// Thread safety: every operation takes the registry's mutex; factories are called after it
// is released.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::storage::provider {

class ProviderRegistry {
 public:
  // The process-wide registry.
  static ProviderRegistry& instance();

  // Registers (or replaces) the factory of a scheme.
  void registerFactory(const std::u16string& scheme,
                       std::shared_ptr<ContainerProviderFactory> factory);
  // Removes the scheme's factory; false when none was registered.
  bool unregisterFactory(const std::u16string& scheme);
  // The scheme's factory, or null.
  std::shared_ptr<ContainerProviderFactory> findFactory(const std::u16string& scheme) const;
  std::vector<std::u16string> schemes() const;

  StorageItem open(const std::u16string& scheme, const StorageItem& container) const;

 private:
  mutable std::mutex mutex_;
  std::map<std::u16string, std::shared_ptr<ContainerProviderFactory>> factories_;
};

}  // namespace foundation::storage::provider
