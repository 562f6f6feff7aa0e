// SftpProviderFactory: makes SftpProviders for the "sftp" scheme, so that a host that opens
// stores through its ProviderRegistry can open remote folders too. The factory holds the
// connection (host, port, user, keys, known_hosts, sessions, time-outs); the container item's
// path is the remote folder to serve. The root location is always "sftp:/".
// registerSftpProvider puts one into a registry under u"sftp".
//
//   registerSftpProvider(registry, SftpProvider::parseAddress("sftp://me@host/srv", {}));
//   const auto root = registry.open(u"sftp", StorageItem(StorageIRI(u"sftp", u"/srv/data")));
//
// Holds its options by value; safe for concurrent calls.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.h>
#include <foundation/storage/provider/ProviderRegistry.h>
#include <foundation/storage/provider/sftp/SftpProvider.h>

namespace foundation::storage::provider::sftp {

class SftpProviderFactory final : public ContainerProviderFactory {
 public:
  explicit SftpProviderFactory(SftpProvider::Options connection);
  std::shared_ptr<IProvider> createProvider(StorageItem container) override;
  StorageIRI getRootLocation(const StorageItem& container) override;

 private:
  SftpProvider::Options connection_;
};

void registerSftpProvider(ProviderRegistry& registry, SftpProvider::Options connection);

}  // namespace foundation::storage::provider::sftp
