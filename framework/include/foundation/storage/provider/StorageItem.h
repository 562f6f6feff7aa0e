// StorageItem: a handle to one location of one provider. Every operation acts on the
// handle's own location through the provider's public operations and throws what they
// throw. Cheap to copy (a shared pointer and a location); safe to use from any thread
// as far as the provider is.
#pragma once

#include <foundation/storage/provider/IProvider.h>

#include <boost/property_tree/ptree.hpp>
#include <memory>

namespace foundation::storage::provider {

class StorageItem {
 public:
  // A bare location with no provider (for instance the directory a factory is asked to
  // open). Operations on it throw Exception(NotSupported).
  explicit StorageItem(StorageIRI location);
  StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location);
  // The location `path` (absolute) of the same provider as `base`.
  StorageItem(const StorageItem& base, std::u16string path);

  const StorageIRI& getLocation() const { return location_; }
  const std::shared_ptr<IProvider>& getProvider() const { return provider_; }

  void createFile() const { provider().createFile(location_); }
  void createFolder() const { provider().createFolder(location_); }
  void createFolderRecursive() const { provider().createFolderRecursive(location_); }
  void removeFile() const { provider().removeFile(location_); }
  void removeFolder() const { provider().removeFolder(location_); }
  void removeFolderRecursively() const { provider().removeFolderRecursively(location_); }
  void moveFile(const StorageIRI& to, const ReplacementPolicy& policy) const {
    provider().moveFile(location_, to, policy);
  }
  void moveFolder(const StorageIRI& to, const ReplacementPolicy& policy) const {
    provider().moveFolder(location_, to, policy);
  }
  void copyFile(const StorageIRI& to, const ReplacementPolicy& policy) const {
    provider().copyFile(location_, to, policy);
  }
  void setLastModified(const posix_time::ptime& time) const {
    provider().setLastModified(location_, time);
  }
  void setWritable(bool writable) const { provider().setWritable(location_, writable); }
  bool fileExists() const { return provider().fileExists(location_); }
  bool folderExists() const { return provider().folderExists(location_); }
  FileAttributes getFileAttributes() const { return provider().getFileAttributes(location_); }
  FolderAttributes getFolderAttributes() const { return provider().getFolderAttributes(location_); }
  ExtendedAttributes getExtendedAttributes() const {
    return provider().getExtendedAttributes(location_);
  }
  FolderEntryIteratorPtr listAll(const std::u16string& pattern = {}) const {
    return provider().listAll(location_, pattern);
  }
  FolderEntryIteratorPtr listFiles(const std::u16string& pattern = {}) const {
    return provider().listFiles(location_, pattern);
  }
  FolderEntryIteratorPtr listFolders(const std::u16string& pattern = {}) const {
    return provider().listFolders(location_, pattern);
  }
  FolderEntryIteratorPtr listAllRecursive(const std::u16string& pattern = {}) const {
    return provider().listAllRecursive(location_, pattern);
  }
  ByteStreamPtr openStream(const ByteStreamOpenOptions& options) const {
    return provider().openStream(location_, options);
  }
  ByteStreamPtr openReadOnlyStream() const { return provider().openReadOnlyStream(location_); }
  void publishFileEvents(const EventPublisher& publisher,
                         const std::vector<events::Kind>& kinds) const {
    provider().publishFileEventsFor(location_, publisher, kinds);
  }
  void publishFolderEvents(const EventPublisher& publisher, const std::vector<events::Kind>& kinds,
                           RecursiveFileWatching recursive) const {
    provider().publishFolderEventsFor(location_, publisher, kinds, recursive);
  }
  void stopPublishingFileEvents() const { provider().stopPublishingEventsFor(location_); }
  void stopPublishingFolderEvents() const { provider().stopPublishingEventsFor(location_); }
  bool hasFeature(const ExtendedFeature& feature) const { return provider().hasFeature(feature); }
  ProviderStorageInfo getProviderStorageInfo() const {
    return provider().getProviderStorageInfo(location_);
  }
  ProviderCacheUsage getProviderCacheUsage() const {
    return provider().getProviderCacheUsage(location_);
  }
  FilenameSensitivity getFilenameSensitivity() const {
    return provider().getFilenameSensitivity(location_);
  }
  // Passes the configuration to the provider when it is configurable; otherwise ignored.
  void configure(boost::property_tree::ptree config) const;
  void shutdownProvider() const { provider().shutdown(); }

 private:
  IProvider& provider() const;

  std::shared_ptr<IProvider> provider_;
  StorageIRI location_;
};

// Asks the provider behind the item to drop what it caches for the item's location; does
// nothing for providers that cache nothing (those that are not IInvalidatable).
void invalidateProvider(const StorageItem& item);

}  // namespace foundation::storage::provider
