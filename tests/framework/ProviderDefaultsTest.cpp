// The framework's default operations, run on the mem store (which keeps the framework's
// versions of these slots).
#include "../providers/ProviderTestSupport.h"

#include <foundation/storage/provider/mem/MemProvider.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

using namespace foundation::storage::provider;
using foundation::storage::events::EntryType;
using foundation::storage::events::Kind;

namespace {

class ProviderDefaults : public ::testing::Test {
 protected:
  StorageIRI at(const char16_t* path) const { return StorageIRI(u"mem", path); }
  void write(const char16_t* path, std::string_view bytes) const {
    auto stream = mem->openStream(at(path), ByteStreamOpenOptions::overwrite());
    stream->write(bytes.data(), static_cast<long>(bytes.size()));
    stream->close();
  }
  std::string read(const char16_t* path) const {
    auto stream = mem->openReadOnlyStream(at(path));
    std::string bytes(4096, '\0');
    const long n = stream->read(bytes.data(), static_cast<long>(bytes.size()));
    bytes.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return bytes;
  }
  std::size_t entriesIn(const char16_t* folder) const {
    return mem->listAllNamesOnly(at(folder)).size();
  }

  std::shared_ptr<mem::MemProvider> mem =
      std::make_shared<mem::MemProvider>(mem::MemProvider::Options{});
};

}  // namespace

// Readers see the old body until the transaction closes; an abandoned one changes nothing;
// neither leaves its scratch file behind.
TEST_F(ProviderDefaults, ATransactionalStreamReplacesTheTargetOnlyWhenClosed) {
  write(u"/f", "old");
  mem->openTransactionalStream(at(u"/f"), ByteStreamOpenOptions::appendTo())->write("+more", 5);
  EXPECT_EQ(read(u"/f"), "old");
  auto stream = mem->openTransactionalStream(at(u"/f"), ByteStreamOpenOptions::overwrite());
  stream->write("new body", 8);
  EXPECT_EQ(read(u"/f"), "old");
  stream->close();
  EXPECT_EQ(read(u"/f"), "new body");
  EXPECT_EQ(entriesIn(u"/"), 1u);
  EXPECT_THROW(mem->openTransactionalStream(at(u"/none"), ByteStreamOpenOptions::readWrite()),
               Exception);
}

// The stream shares its provider's ownership: dropping every other handle first is safe.
TEST_F(ProviderDefaults, ATransactionalStreamMayOutliveItsProvidersOtherHolders) {
  write(u"/f", "old");
  auto stream = mem->openTransactionalStream(at(u"/f"), ByteStreamOpenOptions::overwrite());
  std::weak_ptr<mem::MemProvider> provider = mem;
  mem.reset();
  EXPECT_FALSE(provider.expired());
  EXPECT_EQ(stream->write("new", 3), 3);
  EXPECT_NO_THROW(stream->close());
  stream.reset();
  EXPECT_TRUE(provider.expired()) << "the stream held the provider, and only that long";
}

TEST_F(ProviderDefaults, AtomicCopyHonoursThePolicyAndTheInterrupt) {
  write(u"/a", "payload");
  write(u"/b", "other");
  EXPECT_THROW(mem->copyFileAtomic(at(u"/a"), at(u"/b"), ReplacementPolicy::Fail, {}), Exception);
  mem->copyFileAtomic(at(u"/a"), at(u"/b"), ReplacementPolicy::Overwrite, {});
  EXPECT_EQ(read(u"/b"), "payload");
  EXPECT_EQ(test::errorOf([&] {
              mem->copyFileAtomic(at(u"/a"), at(u"/c"), ReplacementPolicy::Fail,
                                  [] { return InterruptSignal::Interrupt; });
            }),
            ErrorCode::Interrupted);
  EXPECT_FALSE(mem->fileExists(at(u"/c")));
  EXPECT_EQ(entriesIn(u"/"), 2u) << "the interrupted copy's scratch file is gone";
}

TEST_F(ProviderDefaults, TruncationKeepsThePrefixAndPadsWithZeros) {
  write(u"/f", "abcdef");
  mem->truncateToSize(at(u"/f"), 3);
  EXPECT_EQ(read(u"/f"), "abc");
  mem->truncateToSize(at(u"/f"), 5);
  EXPECT_EQ(read(u"/f"), std::string("abc\0\0", 5));
  EXPECT_THROW(mem->truncateToSize(at(u"/none"), 1), Exception);
}

TEST_F(ProviderDefaults, ChangePollingReportsWhatChangedBetweenListings) {
  test::EventRecorder seen;
  write(u"/keep", "1");
  write(u"/gone", "1");
  mem->startChangePolling(at(u"/"), seen.publisher(), {}, 5, RecursiveChangePolling::No);
  write(u"/new", "1");
  mem->removeFile(at(u"/gone"));
  write(u"/keep", "longer");
  EXPECT_TRUE(seen.waitForEvent(Kind::Appeared, u"/new"));
  EXPECT_TRUE(seen.waitForEvent(Kind::Disappeared, u"/gone"));
  EXPECT_TRUE(seen.waitForEvent(Kind::Changed, u"/keep"));
  mem->stopChangePolling(at(u"/"));
}

// The subscriber stops polling from inside its own callback (the poller is then destroyed on
// its own thread); a subscriber may also throw something that is not a std::exception.
TEST_F(ProviderDefaults, ASubscriberMayStopPollingFromItsOwnCallback) {
  std::mutex mutex;
  std::condition_variable changed;
  int calls = 0;
  mem->startChangePolling(
      at(u"/"),
      [&](Kind, const StorageIRI&, const StorageIRI&, EntryType, boost::property_tree::ptree) {
        mem->stopChangePolling(at(u"/"));
        std::lock_guard lock(mutex);
        ++calls;
        changed.notify_all();
        throw 42;
      },
      {}, 5, RecursiveChangePolling::No);
  write(u"/a", "1");
  write(u"/b", "1");
  std::unique_lock lock(mutex);
  EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(10), [&] { return calls > 0; }));
  lock.unlock();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  lock.lock();
  EXPECT_EQ(calls, 1) << "nothing is published after the stop";
}
