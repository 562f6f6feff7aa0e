#include "LoadedBundle.h"

#include <foundation/log/DiagnosticLogger.h>
#include <foundation/text/Unicode.h>

#include <exception>

namespace foundation::host {

namespace fsp = storage::provider;

namespace {

const log::diagnostic_logger& hostLogger() {
  static const log::diagnostic_logger logger("foundation::host");
  return logger;
}

}  // namespace

LoadedBundle::LoadedBundle(const std::string& path) : library_(path) {
  const BundleManifest manifest = parseBundleManifest(readManifestText(), library_.path());
  info_ = BundleInfo{library_.path(), manifest.symbolicName, text::toUtf16(manifest.scheme),
                     manifest.implementationClass};
  context_ = BundleContext{manifest.symbolicName, library_.path()};
}

LoadedBundle::~LoadedBundle() { stop(); }

std::string LoadedBundle::readManifestText() const {
  const auto resource = library_.function<BundleResourceFunction>(kBundleResourceSymbol);
  std::size_t size = 0;
  const char* bytes = resource(kManifestResourceName, &size);
  if (bytes == nullptr) {
    throw BundleLoadError(library_.path(), "the bundle has no manifest.json resource");
  }
  return std::string(bytes, size);
}

void LoadedBundle::start(fsp::ProviderRegistry& registry) {
  try {
    setContext_ =
        library_.function<SetBundleContextFunction>(bundleContextSetterSymbol(info_.symbolicName));
    setContext_(&context_);
    createComponent();
    activateComponent();
    registry.registerFactory(info_.scheme, factory_);
    registry_ = &registry;
  } catch (...) {
    stop();
    throw;
  }
}

void LoadedBundle::createComponent() {
  const auto newInstance =
      library_.function<NewComponentInstanceFunction>(newInstanceSymbol(info_.implementationClass));
  const auto deleteInstance = library_.function<DeleteComponentInstanceFunction>(
      deleteInstanceSymbol(info_.implementationClass));
  component_ = {newInstance(), ComponentDeleter{deleteInstance}};
  if (!component_) {
    throw BundleLoadError(library_.path(),
                          "the bundle could not make its component " + info_.implementationClass);
  }
}

void LoadedBundle::activateComponent() {
  try {
    component_->activate();
    active_ = true;
  } catch (const std::exception& error) {
    throw BundleLoadError(library_.path(),
                          "activating " + info_.implementationClass + " failed: " + error.what());
  }
  factory_ = std::static_pointer_cast<fsp::ContainerProviderFactory>(
      component_->getInterface(kContainerProviderFactoryInterface));
  if (!factory_) {
    throw BundleLoadError(library_.path(), info_.implementationClass + " offers no " +
                                               kContainerProviderFactoryInterface);
  }
}

void LoadedBundle::stop() noexcept {
  if (registry_ != nullptr) {
    // Another bundle or the program may have replaced the factory since; leave theirs alone.
    if (registry_->findFactory(info_.scheme) == factory_)
      registry_->unregisterFactory(info_.scheme);
    registry_ = nullptr;
  }
  deactivateComponent();
  component_.reset();
  if (setContext_ != nullptr) {
    setContext_(nullptr);
    setContext_ = nullptr;
  }
}

void LoadedBundle::deactivateComponent() noexcept {
  const std::weak_ptr<fsp::ContainerProviderFactory> watched = factory_;
  factory_.reset();
  if (active_) {
    component_->deactivate();
    active_ = false;
  }
  if (!watched.expired()) {
    FOUNDATION_LOG(hostLogger(), log::error)
        << "Bundle " << info_.path << ": its factory is still referenced at unload ("
        << watched.use_count() << " references); leaving the library loaded";
    library_.keepLoaded();
  }
}

}  // namespace foundation::host
