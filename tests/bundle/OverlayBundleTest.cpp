// The overlay bundle as a host sees it: loaded through BundleHost, asked for "overlay"
// providers through the registry, and unloaded again.
#include "../providers/ProviderTestSupport.h"

#include <foundation/host/BundleAbi.h>
#include <foundation/host/BundleHost.h>
#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/FolderEntryIterator.h>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.h>
#include <foundation/storage/provider/mem/MemProvider.h>
#include <foundation/storage/provider/mem/MemProviderFactory.h>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>

namespace {

namespace fsp = foundation::storage::provider;
using foundation::host::BundleHost;
using fsp::mem::MemProvider;
using ::testing::UnorderedElementsAre;

using fsp::test::readFile;
using fsp::test::writeFile;

class OverlayBundle : public ::testing::Test {
 protected:
  void SetUp() override { host_.load(OVERLAY_BUNDLE_PATH); }

  fsp::StorageItem inner(const std::u16string& path) const {
    return fsp::StorageItem(mem_, fsp::StorageIRI(MemProvider::rootLocation(), path));
  }

  fsp::ProviderRegistry registry_;
  BundleHost host_{registry_};
  std::shared_ptr<MemProvider> mem_ = std::make_shared<MemProvider>();
  fsp::StorageItem memRoot_{mem_, MemProvider::rootLocation()};
};

TEST_F(OverlayBundle, LoadRegistersTheFactoryUnderTheManifestScheme) {
  ASSERT_EQ(host_.loadedBundles().size(), 1u);
  const auto info = host_.loadedBundles().front();
  EXPECT_EQ(info.symbolicName, "com_brindle_overlayprovider");
  EXPECT_EQ(info.scheme, u"overlay");
  EXPECT_EQ(info.implementationClass, "storage::overlayprovider::OverlayProviderFactory");
  EXPECT_THAT(registry_.schemes(), UnorderedElementsAre(u"overlay"));
}

// Every open makes a new provider; each is a view of the same inner store, and what one
// writes reaches that store once flushed.
TEST_F(OverlayBundle, EveryOpenMakesANewProviderThatWritesThroughToTheInnerStore) {
  const fsp::StorageItem root = registry_.open(u"overlay", memRoot_);
  const fsp::StorageItem second = registry_.open(u"overlay", memRoot_);
  ASSERT_NE(root.getProvider(), nullptr);
  EXPECT_NE(root.getProvider(), second.getProvider());
  const fsp::StorageItem docs(root, u"/docs");
  const fsp::StorageItem note(root, u"/docs/note.txt");
  docs.createFolder();
  note.createFile();
  writeFile(note, "written through the overlay");

  EXPECT_TRUE(docs.folderExists());
  EXPECT_EQ(readFile(note), "written through the overlay");
  EXPECT_THAT(fsp::test::rowNames(*docs.listAll()), UnorderedElementsAre(u"note.txt"));

  if (auto* flushable =
          dynamic_cast<fsp::extensions::IFlushableFilesystem*>(root.getProvider().get())) {
    flushable->flushFilesystem();
  } else {
    ADD_FAILURE() << "the overlay provider is not flushable";
  }
  EXPECT_TRUE(inner(u"/docs").folderExists());
  EXPECT_EQ(readFile(inner(u"/docs/note.txt")), "written through the overlay");
  EXPECT_EQ(readFile(fsp::StorageItem(second, u"/docs/note.txt")), "written through the overlay");
  root.shutdownProvider();
  second.shutdownProvider();
}

TEST_F(OverlayBundle, RootLocationIsOverlayComposedOverTheInnerLocation) {
  inner(u"/projects").createFolder();
  const fsp::StorageItem container = inner(u"/projects");
  const fsp::StorageIRI location = registry_.findFactory(u"overlay")->getRootLocation(container);
  EXPECT_EQ(location.getScheme(), u"overlay");
  EXPECT_EQ(location.getPath(), u"/");
  ASSERT_TRUE(location.hasInnerIRI());
  EXPECT_EQ(location.getInnerIRI().getScheme(), u"mem");
  EXPECT_EQ(location.getInnerIRI().getPath(), u"/projects");
  // What open() hands out is rooted there too.
  EXPECT_EQ(registry_.open(u"overlay", container).getLocation(), location);
}

TEST_F(OverlayBundle, UnloadRemovesTheScheme) {
  host_.unload();
  EXPECT_TRUE(host_.loadedBundles().empty());
  EXPECT_EQ(fsp::test::errorOf([&] { registry_.open(u"overlay", memRoot_); }),
            fsp::ErrorCode::NotSupported)
      << "the overlay scheme outlived its bundle";
  // And the bundle can be loaded again afterwards.
  host_.load(OVERLAY_BUNDLE_PATH);
  EXPECT_NE(registry_.open(u"overlay", memRoot_).getProvider(), nullptr);
}

TEST_F(OverlayBundle, UnloadLeavesAReplacedFactoryAlone) {
  const auto replacement = std::make_shared<fsp::mem::MemProviderFactory>();
  registry_.registerFactory(u"overlay", replacement);
  host_.unload();
  EXPECT_EQ(registry_.findFactory(u"overlay"), replacement);
}

TEST_F(OverlayBundle, FactoryStillReferencedAtUnloadKeepsTheLibraryLoaded) {
  const auto factory = registry_.findFactory(u"overlay");
  foundation::log::LogCapture capture(foundation::log::error);
  host_.unload();
  EXPECT_EQ(capture.count("still referenced", foundation::log::error), 1u);
  // Its code is still mapped, so the reference is still usable.
  EXPECT_EQ(factory->getRootLocation(memRoot_).getScheme(), u"overlay");
}

TEST(OverlayBundleHost, DefaultHostUsesTheProcessRegistryUntilDestroyed) {
  auto& registry = fsp::ProviderRegistry::instance();
  {
    BundleHost host;
    host.load(OVERLAY_BUNDLE_PATH);
    EXPECT_NE(registry.findFactory(u"overlay"), nullptr);
  }
  EXPECT_EQ(registry.findFactory(u"overlay"), nullptr);
}

TEST(OverlayBundleResources, ManifestIsEmbeddedAsWrittenAndUnknownNamesAreNull) {
  void* library = dlopen(OVERLAY_BUNDLE_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto resource = reinterpret_cast<foundation::host::BundleResourceFunction>(
      dlsym(library, foundation::host::kBundleResourceSymbol));
  ASSERT_NE(resource, nullptr);

  std::ifstream file(OVERLAY_MANIFEST_PATH, std::ios::binary);
  const std::string expected{std::istreambuf_iterator<char>(file), {}};
  std::size_t size = 1;
  const char* bytes = resource("manifest.json", &size);
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(std::string(bytes, size), expected);

  size = 1;
  EXPECT_EQ(resource("manifest.jsonx", &size), nullptr);
  EXPECT_EQ(size, 0u);
  dlclose(library);
}

}  // namespace
