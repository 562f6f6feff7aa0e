// The host's answers to bundles it cannot use: each must be a clear error, leave nothing
// registered and nothing half-loaded.
#include "../providers/ProviderTestSupport.h"

#include <foundation/host/BundleHost.h>
#include <foundation/host/BundleLoadError.h>
#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/mem/MemProvider.h>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

namespace fsp = foundation::storage::provider;
using foundation::host::BundleHost;
using foundation::host::BundleLoadError;
using ::testing::HasSubstr;

class BundleHostErrors : public ::testing::Test {
 protected:
  // Expects load(path) to fail with BundleLoadError whose message holds `expected`, and the
  // host and registry to be as before.
  void expectLoadError(const char* path, const std::string& expected) {
    const auto text = fsp::test::whatOf<BundleLoadError>([&] { host_.load(path); });
    EXPECT_THAT(text, HasSubstr(path));
    EXPECT_THAT(text, HasSubstr(expected));
    EXPECT_TRUE(host_.loadedBundles().empty());
    EXPECT_TRUE(registry_.schemes().empty());
  }

  void expectInvalidLocation(const std::string& path) {
    const auto [code, location] = fsp::test::refusalOf([&] { host_.load(path); });
    EXPECT_EQ(code, fsp::ErrorCode::InvalidLocation);
    EXPECT_EQ(location.getScheme(), u"file");
    EXPECT_EQ(location.getName(), std::filesystem::path(path).filename().u16string());
    EXPECT_TRUE(host_.loadedBundles().empty());
  }

  fsp::ProviderRegistry registry_;
  BundleHost host_{registry_};
};

TEST_F(BundleHostErrors, PathWithoutALoadableLibraryIsAnInvalidLocation) {
  expectInvalidLocation("/nonexistent-folder/libno-such-bundle.so");
  // A directory and a file that is not a library are refused the same way.
  expectInvalidLocation(std::filesystem::temp_directory_path().string());
  const auto notALibrary = std::filesystem::temp_directory_path() / "bundle-host-not-a-library.so";
  std::ofstream(notALibrary) << "just text";
  expectInvalidLocation(notALibrary.string());
  std::filesystem::remove(notALibrary);
}

TEST_F(BundleHostErrors, BadManifestOrComponentIsRefused) {
  const std::pair<const char*, const char*> bundles[] = {
      {BAD_BUNDLE_CORRUPT_JSON_PATH, "manifest.json is not valid JSON"},
      {BAD_BUNDLE_MISSING_SCHEME_PATH, "\"scheme\" is missing"},
      {BAD_BUNDLE_WRONG_INTERFACE_PATH,
       "does not offer foundation::storage::provider::ContainerProviderFactory"},
  };
  for (const auto& [path, expected] : bundles) expectLoadError(path, expected);
}

TEST_F(BundleHostErrors, MissingEntryPointIsRefusedAndTheContextTakenBack) {
  // Our own handle keeps the library (and its counters) alive across the host's dlclose.
  void* library = dlopen(BAD_BUNDLE_MISSING_ENTRY_POINT_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto contextCalls =
      reinterpret_cast<int (*)(int)>(dlsym(library, "bad_bundle_context_calls"));
  ASSERT_NE(contextCalls, nullptr);

  expectLoadError(BAD_BUNDLE_MISSING_ENTRY_POINT_PATH, "does not export NewInstance_bad_Factory");
  EXPECT_EQ(contextCalls(1), 1);
  EXPECT_EQ(contextCalls(0), 1);
  dlclose(library);
}

TEST_F(BundleHostErrors, UnknownSchemeIsNotSupported) {
  host_.load(OVERLAY_BUNDLE_PATH);
  const fsp::StorageItem container(std::make_shared<fsp::mem::MemProvider>(),
                                   fsp::mem::MemProvider::rootLocation());
  const auto [code, location] =
      fsp::test::refusalOf([&] { registry_.open(u"no-such-scheme", container); });
  EXPECT_EQ(code, fsp::ErrorCode::NotSupported);
  EXPECT_EQ(location.getScheme(), u"no-such-scheme");
}

TEST_F(BundleHostErrors, LoadingABundleTwiceIsRefusedAndKeepsTheFirst) {
  host_.load(OVERLAY_BUNDLE_PATH);
  const auto factory = registry_.findFactory(u"overlay");
  EXPECT_THAT(fsp::test::whatOf<BundleLoadError>([&] { host_.load(OVERLAY_BUNDLE_PATH); }),
              HasSubstr("com_brindle_overlayprovider is already loaded"));
  EXPECT_EQ(host_.loadedBundles().size(), 1u);
  EXPECT_EQ(registry_.findFactory(u"overlay"), factory);
}

}  // namespace
