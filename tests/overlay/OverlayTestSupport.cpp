#include "OverlayTestSupport.h"

#include "core/provider/OverlayProviderFactory.h"

namespace overlaytest {

OverlayOverMem::OverlayOverMem()
    : mem(std::make_shared<fsp::mem::MemProvider>(fsp::mem::MemProvider::Options{})),
      instrumented(std::make_shared<fsp::instrumented::InstrumentedProvider>(mem)),
      innerRoot(instrumented, fsp::mem::MemProvider::rootLocation()),
      overlay(std::make_shared<storage::overlayprovider::OverlayProvider>(innerRoot)),
      root(storage::overlayprovider::OverlayProviderFactory().getRootLocation(innerRoot)) {}

}  // namespace overlaytest
