#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/IConfigurableProvider.h>
#include <foundation/storage/provider/StorageItem.h>
#include <foundation/storage/provider/extensions/IInvalidatable.h>

namespace foundation::storage::provider {

StorageItem::StorageItem(StorageIRI location) : location_(std::move(location)) {}

StorageItem::StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location)
    : provider_(std::move(provider)), location_(std::move(location)) {}

StorageItem::StorageItem(const StorageItem& base, std::u16string path)
    : provider_(base.provider_), location_(base.location_.withPath(std::move(path))) {}

IProvider& StorageItem::provider() const {
  if (!provider_) {
    throw Exception(ErrorCode::NotSupported, location_, "the item has no provider");
  }
  return *provider_;
}

void StorageItem::configure(boost::property_tree::ptree config) const {
  if (auto* configurable = dynamic_cast<IConfigurableProvider*>(&provider())) {
    configurable->configure(std::move(config));
  }
}

void invalidateProvider(const StorageItem& item) {
  if (auto* invalidatable = dynamic_cast<extensions::IInvalidatable*>(item.getProvider().get())) {
    invalidatable->invalidate(item.getLocation());
  }
}

}  // namespace foundation::storage::provider
