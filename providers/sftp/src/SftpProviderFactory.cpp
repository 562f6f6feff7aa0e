#include <foundation/storage/provider/sftp/SftpProviderFactory.h>
#include <foundation/text/Unicode.h>

namespace foundation::storage::provider::sftp {

SftpProviderFactory::SftpProviderFactory(SftpProvider::Options connection)
    : connection_(std::move(connection)) {}

std::shared_ptr<IProvider> SftpProviderFactory::createProvider(StorageItem container) {
  auto options = connection_;
  options.path = text::toUtf8(container.getLocation().getPath());
  return std::make_shared<SftpProvider>(std::move(options));
}

StorageIRI SftpProviderFactory::getRootLocation(const StorageItem&) {
  return SftpProvider::rootLocation();
}

void registerSftpProvider(ProviderRegistry& registry, SftpProvider::Options connection) {
  registry.registerFactory(u"sftp", std::make_shared<SftpProviderFactory>(std::move(connection)));
}

}  // namespace foundation::storage::provider::sftp
