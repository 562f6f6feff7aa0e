// What the mem provider does beyond the shared provider contract: case-insensitive names,
// its capacity, its event thread and streams on removed files.
#include "../ProviderTestSupport.h"

#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/ProviderRegistry.h>
#include <foundation/storage/provider/mem/MemProvider.h>
#include <foundation/storage/provider/mem/MemProviderFactory.h>
#include <foundation/text/Unicode.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>

namespace {

namespace fsp = foundation::storage::provider;
using fsp::ErrorCode;
using fsp::StorageIRI;
using fsp::mem::MemProvider;
using fsp::test::errorOf;
using fsp::test::EventRecorder;
using fsp::test::readAll;
using fsp::test::writeAll;
using Kind = foundation::storage::events::Kind;

StorageIRI at(const std::u16string& path) { return StorageIRI(u"mem", path); }

std::string contentOf(const MemProvider& provider, const std::u16string& path) {
  return readAll(*provider.openReadOnlyStream(at(path)));
}

TEST(MemProviderNames, CaseInsensitiveStoreFindsAnySpellingAndKeepsTheOriginal) {
  MemProvider provider({.sensitivity = fsp::FilenameSensitivity::CaseInsensitive});
  provider.createFolder(at(u"/Docs"));
  provider.createFile(at(u"/Docs/A.txt"));
  provider.createFile(at(u"/Docs/\u00C4rger.txt"));  // "Ärger": lower-casing beyond ASCII

  EXPECT_TRUE(provider.fileExists(at(u"/docs/a.TXT")));
  EXPECT_TRUE(provider.fileExists(at(u"/DOCS/\u00E4rger.txt")));
  EXPECT_EQ(provider.getFilenameSensitivity(at(u"/")), fsp::FilenameSensitivity::CaseInsensitive);
  EXPECT_EQ(provider.listAllNamesOnly(at(u"/")), fsp::NameList{u"Docs"});
  auto names = provider.listAllNamesOnly(at(u"/docs"));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (fsp::NameList{u"A.txt", u"\u00C4rger.txt"}));

  EXPECT_EQ(errorOf([&] { provider.createFile(at(u"/Docs/a.txt")); }), ErrorCode::AlreadyExists);
  EXPECT_EQ(errorOf([&] { provider.createFolder(at(u"/docs")); }), ErrorCode::AlreadyExists);
  EXPECT_EQ(errorOf([&] { provider.createFile(at(u"/Docs/bad\nname")); }), ErrorCode::InvalidName);
  // A move onto another spelling of itself takes the new spelling.
  provider.moveFile(at(u"/docs/a.txt"), at(u"/DOCS/a.TXT"), fsp::ReplacementPolicy::Fail);
  names = provider.listAllNamesOnly(at(u"/docs"));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (fsp::NameList{u"a.TXT", u"\u00C4rger.txt"}));
  provider.removeFile(at(u"/DOCS/A.txt"));
  EXPECT_FALSE(provider.fileExists(at(u"/Docs/a.TXT")));
}

TEST(MemProviderCapacity, WriteBeyondCapacityFailsWithQuotaExceededAndKeepsTheFile) {
  MemProvider provider({.capacityBytes = 10});
  auto stream = provider.openStream(at(u"/f"), fsp::ByteStreamOpenOptions::overwrite());
  writeAll(*stream, "12345678");
  EXPECT_EQ(errorOf<fsp::ByteStreamWriteFailure>([&] { stream->write("abc", 3); }),
            ErrorCode::QuotaExceeded);
  writeAll(*stream, "ab");  // exactly up to the capacity
  stream->close();
  EXPECT_EQ(contentOf(provider, u"/f"), "12345678ab");
  auto info = provider.getProviderStorageInfo(at(u"/"));
  EXPECT_EQ(info.getStorageCapacity(), 10u);
  EXPECT_EQ(info.getSpaceOccupied(), 10u);
}

TEST(MemProviderCapacity, TruncationResizesTheFileInPlaceWithOneChangedWithinTheCapacity) {
  MemProvider provider({.capacityBytes = 10});
  writeAll(*provider.openStream(at(u"/f"), fsp::ByteStreamOpenOptions::overwrite()), "abcdef");
  EventRecorder seen;
  provider.publishFileEventsFor(at(u"/f"), seen.publisher(), {Kind::Changed});
  auto open = provider.openReadOnlyStream(at(u"/f"));
  provider.truncateToSize(at(u"/f"), 8);
  EXPECT_EQ(open->seek(0, std::ios_base::end), 8);
  EXPECT_EQ(errorOf([&] { provider.truncateToSize(at(u"/f"), 11); }), ErrorCode::QuotaExceeded);
  provider.waitForEventsDelivered();
  EXPECT_EQ(seen.events().size(), 1u);
}

TEST(MemProviderCapacity, OccupiedSpaceFollowsRemovalsTruncationsAndCopies) {
  MemProvider provider({.capacityBytes = 10});
  provider.createFolder(at(u"/d"));
  writeAll(*provider.openStream(at(u"/d/a"), fsp::ByteStreamOpenOptions::overwrite()), "123456");
  EXPECT_EQ(
      errorOf([&] { provider.copyFile(at(u"/d/a"), at(u"/b"), fsp::ReplacementPolicy::Fail); }),
      ErrorCode::QuotaExceeded);
  EXPECT_FALSE(provider.fileExists(at(u"/b")));

  provider.openStream(at(u"/d/a"), fsp::ByteStreamOpenOptions::overwrite())->close();
  EXPECT_EQ(provider.getProviderStorageInfo(at(u"/")).getSpaceOccupied(), 0u);
  writeAll(*provider.openStream(at(u"/d/a"), fsp::ByteStreamOpenOptions::overwrite()), "1234");
  provider.copyFile(at(u"/d/a"), at(u"/b"), fsp::ReplacementPolicy::Fail);
  EXPECT_EQ(provider.getProviderStorageInfo(at(u"/")).getSpaceOccupied(), 8u);
  provider.removeFolderRecursively(at(u"/d"));
  EXPECT_EQ(provider.getProviderStorageInfo(at(u"/")).getSpaceOccupied(), 4u);
}

TEST(MemProviderStreams, StreamOnRemovedFileKeepsItsBytesApartFromTheStore) {
  MemProvider provider({.capacityBytes = 100});
  auto stream = provider.openStream(at(u"/f"), fsp::ByteStreamOpenOptions::overwrite());
  writeAll(*stream, "abc");
  provider.removeFile(at(u"/f"));

  writeAll(*stream, "def");
  EXPECT_EQ(stream->seek(0, std::ios_base::beg), 0);
  EXPECT_EQ(readAll(*stream), "abcdef");
  EXPECT_FALSE(provider.fileExists(at(u"/f")));
  EXPECT_EQ(provider.getProviderStorageInfo(at(u"/")).getSpaceOccupied(), 0u);

  provider.createFile(at(u"/f"));  // a new file at the same place does not share the old bytes
  EXPECT_EQ(contentOf(provider, u"/f"), "");
  stream->close();
  EXPECT_THROW(stream->read(nullptr, 0), fsp::ByteStreamReadFailure);
}

// Events come on the provider's own thread; waitForEventsDelivered returns once every event
// queued before it has been delivered.
TEST(MemProviderEvents, DeliveredOnTheProvidersThreadAndAwaitedByWaitForEventsDelivered) {
  MemProvider provider;
  EventRecorder seen;
  provider.publishFolderEventsFor(at(u"/"), seen.publisher(), {}, fsp::RecursiveFileWatching::Yes);
  constexpr std::size_t kFiles = 200;
  for (std::size_t i = 0; i < kFiles; ++i) {
    provider.createFile(at(u"/f" + foundation::text::toUtf16(std::to_string(i))));
  }
  provider.waitForEventsDelivered();
  const auto events = seen.events();
  ASSERT_EQ(events.size(), kFiles);
  EXPECT_EQ(events[0].kind, Kind::Appeared);
  EXPECT_EQ(events[0].path, u"/f0");
  EXPECT_NE(events[0].thread, std::this_thread::get_id());
}

TEST(MemProviderEvents, SubscriptionSpelledDifferentlyHearsTheStoredSpelling) {
  MemProvider provider({.sensitivity = fsp::FilenameSensitivity::CaseInsensitive});
  provider.createFolder(at(u"/Docs"));
  EventRecorder seen;
  provider.publishFolderEventsFor(at(u"/DOCS"), seen.publisher(), {Kind::Appeared},
                                  fsp::RecursiveFileWatching::No);
  provider.createFile(at(u"/docs/x"));
  ASSERT_TRUE(seen.waitFor([](const auto& e) { return !e.empty(); }, "an event"));
  EXPECT_EQ(seen.events()[0].path, u"/Docs/x");
}

TEST(MemProviderEvents, ClosingAWritingStreamReportsTheFilesCurrentLocationOnce) {
  MemProvider provider;
  provider.createFile(at(u"/old"));
  auto reader = provider.openReadOnlyStream(at(u"/old"));
  auto writer = provider.openStream(at(u"/old"), fsp::ByteStreamOpenOptions::readWrite());
  EventRecorder seen;
  provider.publishFolderEventsFor(at(u"/"), seen.publisher(), {Kind::Changed},
                                  fsp::RecursiveFileWatching::No);
  provider.moveFile(at(u"/old"), at(u"/new"), fsp::ReplacementPolicy::Fail);
  writeAll(*writer, "ab");
  writeAll(*writer, "cd");
  reader->close();  // read nothing, changed nothing: no event
  writer->close();
  provider.waitForEventsDelivered();
  const auto events = seen.events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, Kind::Changed);
  EXPECT_EQ(events[0].path, u"/new");
}

TEST(MemProviderEvents, ExtendedAttributeChangesReportChanged) {
  MemProvider provider;
  provider.createFolder(at(u"/d"));
  EventRecorder seen;
  provider.publishFolderEventsFor(at(u"/"), seen.publisher(), {}, fsp::RecursiveFileWatching::No);
  provider.setExtendedAttribute(at(u"/d"), "tag", "x");
  provider.removeExtendedAttribute(at(u"/d"), "missing");  // nothing changed: no event
  provider.removeExtendedAttribute(at(u"/d"), "tag");
  provider.waitForEventsDelivered();
  EXPECT_EQ(seen.events().size(), 2u);
  EXPECT_TRUE(provider.getExtendedAttributes(at(u"/d")).empty());
  EXPECT_EQ(errorOf([&] { provider.setExtendedAttribute(at(u"/nope"), "a", "b"); }),
            ErrorCode::NotFound);
}

TEST(MemProviderEvents, ShutdownStopsDeliveryAndIsIdempotent) {
  MemProvider provider;
  EventRecorder seen;
  provider.publishFolderEventsFor(at(u"/"), seen.publisher(), {}, fsp::RecursiveFileWatching::No);
  provider.createFile(at(u"/a"));
  provider.waitForEventsDelivered();
  provider.shutdown();
  provider.shutdown();
  provider.createFile(at(u"/b"));  // the tree still works without events
  provider.waitForEventsDelivered();
  EXPECT_TRUE(provider.fileExists(at(u"/b")));
  EXPECT_EQ(seen.events().size(), 1u);
}

TEST(MemProviderEvents, WaitingFromInsideASubscriberDoesNotDeadlock) {
  MemProvider provider;
  std::promise<void> returned;
  provider.publishFileEventsFor(
      at(u"/a"),
      [&](Kind, const StorageIRI&, const StorageIRI&, foundation::storage::events::EntryType,
          boost::property_tree::ptree) {
        provider.waitForEventsDelivered();
        returned.set_value();
      },
      {Kind::Appeared});
  provider.createFile(at(u"/a"));
  EXPECT_EQ(returned.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST(MemProviderEvents, SubscriberMayDropTheLastReferenceToTheProvider) {
  auto provider = std::make_shared<MemProvider>();
  std::promise<void> released;
  std::promise<void> dropped;
  auto holder = std::make_shared<std::shared_ptr<MemProvider>>(provider);
  provider->publishFileEventsFor(
      at(u"/a"),
      [holder, &released, &dropped](Kind, const StorageIRI&, const StorageIRI&,
                                    foundation::storage::events::EntryType,
                                    boost::property_tree::ptree) {
        released.get_future().wait();
        holder->reset();  // the last reference: the provider is destroyed on its own thread
        dropped.set_value();
      },
      {Kind::Appeared});
  provider->createFile(at(u"/a"));
  provider.reset();
  released.set_value();
  EXPECT_EQ(dropped.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST(MemProviderFactory, RegistryOpensIndependentEmptyStoresAtMemRoot) {
  fsp::ProviderRegistry registry;
  fsp::mem::registerMemProvider(registry);
  fsp::StorageItem container(StorageIRI(u"file", u"/ignored"));
  fsp::StorageItem first = registry.open(u"mem", container);
  fsp::StorageItem second = registry.open(u"mem", container);
  EXPECT_EQ(first.getLocation(), MemProvider::rootLocation());
  fsp::StorageItem(first, u"/x").createFile();
  EXPECT_TRUE(fsp::StorageItem(first, u"/x").fileExists());
  EXPECT_FALSE(fsp::StorageItem(second, u"/x").fileExists());
}

}  // namespace
