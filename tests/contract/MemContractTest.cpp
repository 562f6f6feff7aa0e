// The contract checked against MemProvider: with default options, and case-insensitive so
// that the other answer of getFilenameSensitivity is checked too.
#include "ProviderContract.h"

#include <foundation/storage/provider/mem/MemProvider.h>

namespace contract {
namespace {

using fsp::mem::MemProvider;

class MemUnderTest final : public ProviderUnderTest {
 public:
  MemUnderTest(std::string name, MemProvider::Options options)
      : name_(std::move(name)), provider_(std::make_shared<MemProvider>(std::move(options))) {}

  fsp::StorageItem root() override {
    return fsp::StorageItem(provider_, MemProvider::rootLocation());
  }

  void setExtendedAttributeBehind(const std::u16string& path, const std::string& name,
                                  const std::string& value) override {
    provider_->setExtendedAttribute(fsp::StorageIRI(MemProvider::rootLocation(), path), name,
                                    value);
  }

  std::string name() const override { return name_; }

 private:
  std::string name_;
  std::shared_ptr<MemProvider> provider_;
};

MemProvider::Options caseInsensitive() {
  MemProvider::Options options;
  options.sensitivity = fsp::FilenameSensitivity::CaseInsensitive;
  return options;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, ProviderContract,
                         ::testing::Values(ContractParam{"mem",
                                                         [] {
                                                           return std::make_unique<MemUnderTest>(
                                                               "mem", MemProvider::Options{});
                                                         }},
                                           ContractParam{"memCaseInsensitive",
                                                         [] {
                                                           return std::make_unique<MemUnderTest>(
                                                               "memCaseInsensitive",
                                                               caseInsensitive());
                                                         }}),
                         paramName);

}  // namespace contract
