#include <foundation/host/BundleHost.h>

#include "LoadedBundle.h"

#include <algorithm>

namespace foundation::host {

BundleHost::BundleHost(storage::provider::ProviderRegistry& registry) : registry_(registry) {}

BundleHost::~BundleHost() { unload(); }

BundleInfo BundleHost::load(const std::string& path) {
  std::lock_guard lock(mutex_);
  auto bundle = std::make_unique<LoadedBundle>(path);
  const bool known = std::any_of(bundles_.begin(), bundles_.end(), [&](const auto& loaded) {
    return loaded->info().symbolicName == bundle->info().symbolicName;
  });
  if (known) {
    throw BundleLoadError(bundle->info().path,
                          "a bundle named " + bundle->info().symbolicName + " is already loaded");
  }
  bundle->start(registry_);
  bundles_.push_back(std::move(bundle));
  return bundles_.back()->info();
}

void BundleHost::unload() noexcept {
  std::lock_guard lock(mutex_);
  while (!bundles_.empty()) bundles_.pop_back();
}

std::vector<BundleInfo> BundleHost::loadedBundles() const {
  std::lock_guard lock(mutex_);
  std::vector<BundleInfo> infos;
  for (const auto& bundle : bundles_) infos.push_back(bundle->info());
  return infos;
}

}  // namespace foundation::host
