#include "InnerStoresUnderTest.h"

#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/text/Unicode.h>

#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace contract {
namespace {

namespace fs = std::filesystem;

// Owns the temporary directory and the provider over it; removes the directory afterwards.
class FileUnderTest final : public ProviderUnderTest {
 public:
  fsp::StorageItem root() override {
    return fsp::StorageItem(provider_, fsp::file::FileProvider::rootLocation());
  }

  void setExtendedAttributeBehind(const std::u16string& path, const std::string& name,
                                  const std::string& value) override {
    const fs::path local = dir_.path() / fs::path(foundation::text::toUtf8(path)).relative_path();
    const std::string key = "user." + name;
    if (::setxattr(local.c_str(), key.c_str(), value.data(), value.size(), 0) != 0) {
      throw std::runtime_error("setxattr " + local.string() + " " + key + ": " +
                               std::strerror(errno));
    }
  }

  std::string name() const override { return "file"; }

 private:
  fsp::test::TempDir dir_;  // destroyed after the provider
  std::shared_ptr<fsp::file::FileProvider> provider_ =
      std::make_shared<fsp::file::FileProvider>(dir_.path());
};

using fsp::instrumented::InstrumentedProvider;
using fsp::mem::MemProvider;

class MemUnderTest final : public ProviderUnderTest {
 public:
  MemUnderTest(std::string name, MemProvider::Options options, bool instrumented)
      : name_(std::move(name)),
        provider_(std::make_shared<MemProvider>(std::move(options))),
        wrapper_(instrumented ? std::make_shared<InstrumentedProvider>(provider_) : nullptr) {}

  fsp::StorageItem root() override {
    return fsp::StorageItem(wrapper_ ? std::shared_ptr<fsp::IProvider>(wrapper_) : provider_,
                            MemProvider::rootLocation());
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
  std::shared_ptr<InstrumentedProvider> wrapper_;
};

}  // namespace

fsp::mem::MemProvider::Options caseInsensitive() {
  MemProvider::Options options;
  options.sensitivity = fsp::FilenameSensitivity::CaseInsensitive;
  return options;
}

std::unique_ptr<ProviderUnderTest> makeFileUnderTest() { return std::make_unique<FileUnderTest>(); }

std::unique_ptr<ProviderUnderTest> makeMemUnderTest(std::string name, MemProvider::Options options,
                                                    bool instrumented) {
  return std::make_unique<MemUnderTest>(std::move(name), std::move(options), instrumented);
}

}  // namespace contract
