// FileProviderFactory: makes FileProviders for the "file" scheme. The container item's path
// (UTF-8) is the local directory to serve; the root location is always "file:/".
// registerFileProvider puts one into a registry under u"file".
// Stateless; safe for concurrent calls.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.h>
#include <foundation/storage/provider/ProviderRegistry.h>

namespace foundation::storage::provider::file {

class FileProviderFactory final : public ContainerProviderFactory {
 public:
  std::shared_ptr<IProvider> createProvider(StorageItem container) override;
  StorageIRI getRootLocation(const StorageItem& container) override;
};

void registerFileProvider(ProviderRegistry& registry);

}  // namespace foundation::storage::provider::file
