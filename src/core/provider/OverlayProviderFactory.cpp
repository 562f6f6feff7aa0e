#include "core/provider/OverlayProviderFactory.h"

#include "core/provider/OverlayProvider.h"

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

std::shared_ptr<fsp::IProvider> OverlayProviderFactory::createProvider(fsp::StorageItem item) {
  // One allocation for the provider and its control block; the provider keeps its own copy of
  // the item, the caller's stays untouched.
  return std::make_shared<OverlayProvider>(item);
}

fsp::StorageIRI OverlayProviderFactory::getRootLocation(const fsp::StorageItem& item) {
  const std::u16string rootPath = u"/";
  const fsp::StorageIRI innerLocation(item.getLocation(), rootPath);
  const std::u16string scheme = u"overlay";
  return fsp::StorageIRI(scheme, innerLocation, rootPath);
}

}  // namespace storage::overlayprovider
