#include "OverlayTestSupport.h"

#include "core/provider/OverlayProviderFactory.h"

#include <boost/filesystem/operations.hpp>

namespace overlaytest {

OverlayOverMem::OverlayOverMem(fsp::mem::MemProvider::Options options)
    : OverlayOverMem(std::make_shared<fsp::mem::MemProvider>(std::move(options))) {}

OverlayOverMem::OverlayOverMem(std::shared_ptr<fsp::mem::MemProvider> store)
    : mem(std::move(store)),
      instrumented(std::make_shared<fsp::instrumented::InstrumentedProvider>(mem)),
      innerRoot(instrumented, fsp::mem::MemProvider::rootLocation()),
      overlay(std::make_shared<storage::overlayprovider::OverlayProvider>(innerRoot)),
      root(storage::overlayprovider::OverlayProviderFactory().getRootLocation(innerRoot)) {}

OverlayOverMem::~OverlayOverMem() {
  if (!overlay) return;
  const auto cacheRoot = overlay->contentCache().cacheRoot();
  const bool defaultRoot = cacheRoot.filename().string().rfind("overlay_cache-", 0) == 0;
  overlay->shutdown();
  overlay.reset();
  boost::system::error_code ignored;
  if (defaultRoot) boost::filesystem::remove_all(cacheRoot, ignored);
}

std::string readAll(fsp::ByteStream& stream) {
  std::string content;
  char buffer[4096];
  for (long n; (n = stream.read(buffer, sizeof buffer)) > 0;) content.append(buffer, n);
  return content;
}

}  // namespace overlaytest
