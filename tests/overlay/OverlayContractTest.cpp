// The provider contract checked against the overlay over each inner store, with the
// background executor (write-behind) and with the synchronous one, and with the replay as the
// mount configures it (8 workers, moot changes absorbed).
#include "InnerStoresUnderTest.h"
#include "SftpServer.h"
#include "core/provider/OverlayProviderFactory.h"

#include <foundation/storage/provider/extensions/IFlushableFilesystem.h>
#include <foundation/storage/provider/extensions/IInvalidatable.h>

#include <boost/property_tree/ptree.hpp>

namespace contract {
namespace {

using storage::overlayprovider::OverlayProviderFactory;

enum class Replay { WriteBehind, Synchronous, ParallelAbsorbing };

class OverlayUnderTest final : public ProviderUnderTest {
 public:
  OverlayUnderTest(std::string name, std::unique_ptr<ProviderUnderTest> inner, Replay replay)
      : name_(std::move(name)), inner_(std::move(inner)), replay_(replay) {}

  fsp::StorageItem root() override {
    if (!overlay_) {
      const auto innerRoot = inner_->root();
      OverlayProviderFactory factory;
      overlay_ = factory.createProvider(innerRoot);
      rootLocation_ = factory.getRootLocation(innerRoot);
      boost::property_tree::ptree config;
      if (replay_ == Replay::Synchronous) config.put("overlay.synchronous", "true");
      if (replay_ == Replay::ParallelAbsorbing) {
        config.put("overlay.replayWorkers", "8");
        config.put("overlay.absorbChanges", "true");
      }
      fsp::StorageItem(overlay_, *rootLocation_).configure(config);
    }
    return fsp::StorageItem(overlay_, *rootLocation_);
  }

  void setExtendedAttributeBehind(const std::u16string& path, const std::string& name,
                                  const std::string& value) override {
    // Behind the overlay means in the inner store, once the overlay's own work has reached
    // it; then the overlay is told to forget what it cached.
    settle();
    inner_->setExtendedAttributeBehind(path, name, value);
    dynamic_cast<fsp::extensions::IInvalidatable&>(*overlay_).invalidate(*rootLocation_);
  }

  void settle() override {
    if (overlay_) dynamic_cast<fsp::extensions::IFlushableFilesystem&>(*overlay_).flushFilesystem();
  }

  std::optional<fsp::StorageItem> backingStore() override { return inner_->root(); }
  bool strictStreams() const override { return false; }
  std::string name() const override { return name_; }
  std::string skipReason() const override { return inner_->skipReason(); }
  bool keepsExtendedAttributes() const override { return inner_->keepsExtendedAttributes(); }

 private:
  std::string name_;
  std::unique_ptr<ProviderUnderTest> inner_;
  Replay replay_;
  std::shared_ptr<fsp::IProvider> overlay_;
  std::optional<fsp::StorageIRI> rootLocation_;
};

// The overlay over each inner store, with each executor.
std::vector<ContractParam> overlayParams() {
  const std::pair<std::string, std::function<std::unique_ptr<ProviderUnderTest>()>> inners[] = {
      {"Mem", [] { return makeMemUnderTest("mem"); }},
      {"MemCaseInsensitive",
       [] { return makeMemUnderTest("memCaseInsensitive", caseInsensitive()); }},
      {"File", [] { return makeFileUnderTest(); }},
      {"Sftp", [] { return makeSftpUnderTest(); }}};
  std::vector<ContractParam> params;
  const std::pair<std::string, Replay> replays[] = {
      {"WriteBehind", Replay::WriteBehind},
      {"Synchronous", Replay::Synchronous},
      {"ParallelAbsorbing", Replay::ParallelAbsorbing}};
  for (const auto& [innerName, inner] : inners) {
    for (const auto& [replayName, replay] : replays) {
      const auto name = "over" + innerName + replayName;
      params.push_back({name, [=, inner = inner, replay = replay] {
                          return std::make_unique<OverlayUnderTest>(name, inner(), replay);
                        }});
    }
  }
  return params;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Overlay, ProviderContract, ::testing::ValuesIn(overlayParams()),
                         paramName);

}  // namespace contract
