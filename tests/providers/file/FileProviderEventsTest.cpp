// The file provider's inotify events beyond the contract suite: folders made (with contents)
// by other processes, folders made after subscribing, trees moved into and out of the root,
// queue overflow, shutdown. Moves inside the tree are checked by the contract suite.
#include "../ProviderTestSupport.h"

#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/text/Unicode.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <thread>

namespace foundation::storage::provider::file::test {
namespace {

using namespace ::foundation::storage::provider::test;

using events::EntryType;
using events::Kind;

StorageIRI at(const std::u16string& path) { return StorageIRI(u"file", path); }

class FileProviderEventsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(root());
    provider_ = std::make_shared<FileProvider>(root());
  }
  void subscribeToEverything() {
    provider_->publishFolderEventsFor(at(u"/"), log_.publisher(), {}, RecursiveFileWatching::Yes);
  }
  fs::path root() const { return temp_.path() / "root"; }

  // Destroyed in reverse order: the provider (and its event thread) before the log.
  TempDir temp_;
  EventRecorder log_;
  std::shared_ptr<FileProvider> provider_;
};

TEST_F(FileProviderEventsTest, TreeMadeByAnotherProcessIsReportedEntryByEntry) {
  subscribeToEverything();
  const std::string command = "mkdir -p '" + root().string() + "/tree/a/b' && echo x > '" +
                              root().string() + "/tree/a/b/f.txt'";
  ASSERT_EQ(0, std::system(command.c_str()));
  for (const auto* path : {u"/tree", u"/tree/a", u"/tree/a/b", u"/tree/a/b/f.txt"}) {
    EXPECT_TRUE(log_.waitForEvent(Kind::Appeared, path)) << text::toUtf8(path);
  }
}

// Moves across the root's boundary have no partner inside the tree: each end stands alone and
// names only itself.
TEST_F(FileProviderEventsTest, TreeMovedInIsScannedAndWatchedAndMovedOutIsDropped) {
  fs::create_directories(temp_.path() / "staged" / "inner");
  writeText(temp_.path() / "staged" / "inner" / "g.txt", "g");
  subscribeToEverything();
  fs::rename(temp_.path() / "staged", root() / "moved");
  EXPECT_TRUE(log_.waitForEvent(
      [](const auto& e) {
        return e.kind == Kind::Appeared && e.path == u"/moved" && e.otherPath == u"/moved" &&
               e.type == EntryType::Folder;
      },
      "the move in, alone"));
  EXPECT_TRUE(log_.waitForEvent(Kind::Appeared, u"/moved/inner"));
  EXPECT_TRUE(log_.waitForEvent(Kind::Appeared, u"/moved/inner/g.txt"));
  // The scanned folder got a watch of its own.
  provider_->createFile(at(u"/moved/inner/later.txt"));
  EXPECT_TRUE(log_.waitForEvent(Kind::Appeared, u"/moved/inner/later.txt"));

  fs::rename(root() / "moved", temp_.path() / "out");
  EXPECT_TRUE(log_.waitForEvent(
      [](const auto& e) {
        return e.kind == Kind::Disappeared && e.path == u"/moved" && e.otherPath == u"/moved" &&
               e.type == EntryType::Folder;
      },
      "the move out, alone"));
  // Its watches went with it: what happens there now is not reported under its old path.
  writeText(temp_.path() / "out" / "inner" / "gone.txt", "x");
  provider_->createFile(at(u"/marker"));
  ASSERT_TRUE(log_.waitForEvent(Kind::Appeared, u"/marker"));
  for (const auto& e : log_.events()) EXPECT_NE(u"/moved/inner/gone.txt", e.path);
}

TEST_F(FileProviderEventsTest, FolderMadeAfterSubscribingIsWatched) {
  subscribeToEverything();
  provider_->createFolder(at(u"/sub"));
  // Once its Appeared is delivered the folder has its own watch; a file written before that
  // could only be reported as Appeared by the scan of the new folder.
  ASSERT_TRUE(log_.waitForEvent(Kind::Appeared, u"/sub"));
  auto stream = provider_->openStream(at(u"/sub/x.txt"), ByteStreamOpenOptions::overwrite());
  stream->write("abc", 3);
  stream->close();
  EXPECT_TRUE(log_.waitForEvent(Kind::Appeared, u"/sub/x.txt"));
  EXPECT_TRUE(log_.waitForEvent(Kind::Changed, u"/sub/x.txt"));
  provider_->removeFile(at(u"/sub/x.txt"));
  EXPECT_TRUE(log_.waitForEvent(Kind::Disappeared, u"/sub/x.txt"));
}

// A folder made after the first subscription gets its watch from the event thread, when that
// comes to the folder's creation; a subscription to the folder must hear it at once all the
// same. The event thread is held up here by the first subscriber, so that it has not come to
// the creation when the folder is subscribed to and a file in it is made and removed.
TEST_F(FileProviderEventsTest, ASubscriptionToAFolderJustMadeHearsItBeforeTheEventThreadDoes) {
  // Opened however the test ends, so that the provider can stop its event thread.
  struct Gate {
    std::promise<void> promise;
    std::shared_future<void> opened = promise.get_future().share();
    bool open = false;
    void let() {
      if (!open) promise.set_value();
      open = true;
    }
    ~Gate() { let(); }
  } gate;
  std::atomic<bool> holding{false};
  provider_->publishFolderEventsFor(
      at(u"/"),
      [&holding, opened = gate.opened](events::Kind, const StorageIRI&, const StorageIRI&,
                                       events::EntryType, const boost::property_tree::ptree&) {
        holding = true;
        opened.wait();
      },
      {}, RecursiveFileWatching::Yes);
  provider_->createFolder(at(u"/hold"));
  for (int i = 0; i < 2000 && !holding; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_TRUE(holding) << "the event thread never reached the first subscriber";

  provider_->createFolder(at(u"/w"));
  provider_->publishFolderEventsFor(at(u"/w"), log_.publisher(), {}, RecursiveFileWatching::No);
  provider_->createFile(at(u"/w/a.txt"));
  provider_->removeFile(at(u"/w/a.txt"));
  provider_->publishFolderEventsFor(at(u"/"), log_.publisher(), {Kind::Appeared},
                                    RecursiveFileWatching::No);
  provider_->createFile(at(u"/marker"));
  gate.let();
  // inotify keeps one queue, in order: once the marker is heard, everything before it was.
  ASSERT_TRUE(log_.waitForEvent(Kind::Appeared, u"/marker"));
  EXPECT_TRUE(EventRecorder::contains(log_.events(), Kind::Disappeared, u"/w/a.txt"))
      << "the removal in the folder just subscribed to was not heard";
}

TEST_F(FileProviderEventsTest, QueueOverflowAsksForARescanOfTheRoot) {
  std::ifstream limitFile("/proc/sys/fs/inotify/max_queued_events");
  long limit = 0;
  if (!(limitFile >> limit) || limit > 100000) GTEST_SKIP() << "queue limit " << limit;

  // The first delivery blocks the event thread, so the kernel queue fills up behind it.
  std::latch entered(1), release(1);
  std::atomic<bool> first{true};
  provider_->publishFolderEventsFor(
      at(u"/"),
      [&](Kind, const StorageIRI&, const StorageIRI&, EntryType, boost::property_tree::ptree) {
        if (first.exchange(false)) {
          entered.count_down();
          release.wait();
        }
      },
      {}, RecursiveFileWatching::Yes);
  subscribeToEverything();
  fs::create_directories(root() / "spin");
  entered.wait();
  // Each create + close + unlink queues three events (files: folders are slow to make on
  // journaling file systems); the queue limit plus a margin overflows the queue.
  const std::string spun = (root() / "spin" / "n").string();
  for (long i = 0; i < limit / 3 + 64; ++i) {
    ::close(::open(spun.c_str(), O_WRONLY | O_CREAT, 0644));
    ::unlink(spun.c_str());
  }
  release.count_down();
  EXPECT_TRUE(log_.waitForEvent(
      [](const auto& e) {
        return e.kind == Kind::Rescan && e.path == u"/" && e.type == EntryType::Unknown;
      },
      "rescan of the root"));
  // Watching carries on after the overflow.
  provider_->createFile(at(u"/spin/after.txt"));
  EXPECT_TRUE(log_.waitForEvent(Kind::Appeared, u"/spin/after.txt"));
  provider_->shutdown();  // the blocking publisher refers to this test's locals
}

TEST_F(FileProviderEventsTest, ShutdownIsIdempotentAndRefusesNewSubscriptions) {
  subscribeToEverything();
  provider_->shutdown();
  provider_->shutdown();
  EXPECT_EQ(ErrorCode::OperationRefused, errorOf([&] { subscribeToEverything(); }));
}

}  // namespace
}  // namespace foundation::storage::provider::file::test
