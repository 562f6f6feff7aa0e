// The provider contract checked through an InstrumentedProvider over a MemProvider: the
// wrapper must forward every operation, stream and subscription without changing what the
// caller sees.
#include "ProviderContract.h"

#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

namespace contract {
namespace {

using fsp::instrumented::InstrumentedProvider;
using fsp::mem::MemProvider;

class InstrumentedMemUnderTest final : public ProviderUnderTest {
 public:
  fsp::StorageItem root() override {
    return fsp::StorageItem(wrapper_, MemProvider::rootLocation());
  }

  void setExtendedAttributeBehind(const std::u16string& path, const std::string& name,
                                  const std::string& value) override {
    mem_->setExtendedAttribute(fsp::StorageIRI(MemProvider::rootLocation(), path), name, value);
  }

  std::string name() const override { return "instrumentedMem"; }

 private:
  std::shared_ptr<MemProvider> mem_ = std::make_shared<MemProvider>();
  std::shared_ptr<InstrumentedProvider> wrapper_ = std::make_shared<InstrumentedProvider>(mem_);
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, ProviderContract,
                         ::testing::Values(ContractParam{
                             "instrumentedMem",
                             [] { return std::make_unique<InstrumentedMemUnderTest>(); }}),
                         paramName);

}  // namespace contract
