#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/file/FileProviderFactory.h>
#include <foundation/text/Unicode.h>

namespace foundation::storage::provider::file {

std::shared_ptr<IProvider> FileProviderFactory::createProvider(StorageItem container) {
  return std::make_shared<FileProvider>(text::toUtf8(container.getLocation().getPath()));
}

StorageIRI FileProviderFactory::getRootLocation(const StorageItem&) {
  return FileProvider::rootLocation();
}

void registerFileProvider(ProviderRegistry& registry) {
  registry.registerFactory(u"file", std::make_shared<FileProviderFactory>());
}

}  // namespace foundation::storage::provider::file
