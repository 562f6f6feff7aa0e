#include "OverlayTestSupport.h"

#include "core/provider/OverlayProviderFactory.h"

#include <boost/filesystem/operations.hpp>
#include <boost/property_tree/ptree.hpp>

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
  if (overlay) overlay->shutdown();
}

void OverlayOverMem::put(const std::u16string& path, const std::string& bytes) const {
  auto stream =
      mem->openStream(fsp::StorageIRI(u"mem", path), fsp::ByteStreamOpenOptions::overwrite());
  fsp::test::writeAll(*stream, bytes);
  stream->close();
}

std::string OverlayOverMem::stored(const std::u16string& path) const {
  return readAll(*mem->openReadOnlyStream(fsp::StorageIRI(u"mem", path)));
}

void OverlayOverMem::configure(const std::map<std::string, std::string>& settings) const {
  boost::property_tree::ptree config;
  for (const auto& [key, value] : settings) config.put(key, value);
  overlay->configure(config);
}

}  // namespace overlaytest
