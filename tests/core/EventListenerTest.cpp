// The event listener: what each event costs (quota figures forgotten, folder listings read
// again), holding and coalescing while paused, the debounce of folder removals, the root
// rescan, silence after stop, and the echoes of the overlay's own replay.
#include "CoreTestSupport.h"

#include "core/contentcache/ContentCache.h"
#include "core/events/EventListener.h"
#include "core/metadata/MetadataCache.h"
#include "core/quota/IQuotaAccountant.h"

#include <foundation/log/LogCapture.h>
#include <foundation/text/Unicode.h>

#include <boost/filesystem/operations.hpp>

#include <deque>

namespace {

using namespace coretest;
using foundation::storage::events::EntryType;
using foundation::storage::events::Kind;
using storage::overlayprovider::ContentCache;
using storage::overlayprovider::EventListener;
using storage::overlayprovider::ExecutorSlot;
using storage::overlayprovider::IExecutor;
using storage::overlayprovider::IQuotaAccountant;
using storage::overlayprovider::MetadataCache;
using storage::overlayprovider::ObservableTransactionType;

// Holds every task until the test runs them, so that the test decides when the worker acts.
class HeldExecutor : public IExecutor {
 public:
  void execute(const std::function<void()>& task, ObservableTransactionType type,
               double weight) override {
    EXPECT_EQ(type, ObservableTransactionType::EXTERNAL_EVENT);
    EXPECT_EQ(weight, 0.0);
    tasks.push_back(task);
  }
  void runAll() {
    while (!tasks.empty()) {
      auto task = std::move(tasks.front());
      tasks.pop_front();
      task();
    }
  }
  void shutdown(bool) override {}
  void join() override {}
  bool isStopped() override { return false; }
  std::chrono::system_clock::time_point lastCompletionTime() override { return {}; }
  bool isQueueEmpty() override { return tasks.empty(); }
  void waitForPendingToFinish() override { runAll(); }
  void setMaxQueueWeight(double) override {}
  std::string captureQueueMetrics() override { return "{}"; }

  std::deque<std::function<void()>> tasks;
};

class RecordingQuota : public IQuotaAccountant {
 public:
  std::optional<std::uint64_t> getSpaceAvailable() override { return {}; }
  std::optional<std::uint64_t> getTotalQuota() override { return {}; }
  void stop() override {}
  void removeFile(const fsp::StorageIRI& file) override {
    calls.push_back("file " + file.toString());
  }
  void removeFolderTree(const fsp::StorageIRI& folder) override {
    calls.push_back("tree " + folder.toString());
  }
  void addFolderTree(const fsp::StorageIRI&) override {}
  void addBytesWritten(std::size_t) override {}
  void addGrowth(std::uint64_t) override {}
  void releaseSpace(std::uint64_t) override {}

  std::vector<std::string> calls;
};

class EventListenerTest : public ::testing::Test {
 protected:
  EventListenerTest() {
    store.mem->createFolderRecursive(mem(u"/a/sub"));
    store.mem->createFile(mem(u"/a/x.txt"));
    store.mem->createFolderRecursive(mem(u"/b/c"));
    listener = EventListener::create(*store.root, cache, content, slot, quota);
  }
  ~EventListenerTest() override {
    listener->stop();
    executor->tasks.clear();  // jobs never run hold the listener, which holds the executor
    boost::system::error_code ignored;
    boost::filesystem::remove_all(content.cacheRoot(), ignored);
  }

  void event(Kind kind, const std::u16string& path, EntryType type) {
    // As a store delivers an event that is no move: its location, named twice.
    listener->handle(kind, mem(path), mem(path), type, {});
  }
  // Listings of the store that the next lookups of /a and /b cause.
  std::uint64_t relistings() {
    const auto before = store.counted->callCount("listAll");
    cache->getFileMetadata(ov(u"/a/x.txt"));
    cache->getFolderMetadata(ov(u"/b"));
    return store.counted->callCount("listAll") - before;
  }

  MemStore store;
  std::shared_ptr<MetadataCache> cache =
      std::make_shared<MetadataCache>(store.root, fsp::FilenameSensitivity::CaseSensitive);
  ContentCache content;
  std::shared_ptr<HeldExecutor> executor = std::make_shared<HeldExecutor>();
  std::shared_ptr<ExecutorSlot> slot = std::make_shared<ExecutorSlot>(executor);
  std::shared_ptr<RecordingQuota> quota = std::make_shared<RecordingQuota>();
  std::shared_ptr<EventListener> listener;
};

TEST_F(EventListenerTest, EachEventForgetsWhatItChanged) {
  struct Case {
    EntryType type;
    std::uint32_t kind;
    std::u16string path;
    std::vector<std::string> quotaCalls;
    std::uint64_t relistings;  // of /a and / together
  };
  const std::vector<Case> cases = {
      {EntryType::File, 4, u"/a/x.txt", {"file overlay:/a/x.txt"}, 1},
      {EntryType::File, 2, u"/a/new.txt", {"tree overlay:/a"}, 1},
      {EntryType::File, 3, u"/a/x.txt", {"tree overlay:/a"}, 1},
      {EntryType::File, 1, u"/a/x.txt", {}, 0},
      {EntryType::Folder, 4, u"/a/sub", {"tree overlay:/a/sub"}, 1},
      {EntryType::Folder, 2, u"/a/sub", {"tree overlay:/a"}, 1},
      {EntryType::Unknown, 3, u"/a/sub", {}, 1},
      {EntryType::Folder, 2, u"/b", {"tree overlay:/"}, 2},  // the root's listing: all goes
      {EntryType::Folder, 1, u"/a", {}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.kind) + " " + foundation::text::toUtf8(c.path));
    relistings();  // everything cached
    quota->calls.clear();
    event(static_cast<Kind>(c.kind), c.path, c.type);
    executor->runAll();
    EXPECT_EQ(quota->calls, c.quotaCalls);
    EXPECT_EQ(relistings(), c.relistings);
  }
}

TEST_F(EventListenerTest, WhilePausedTheFirstEventPerLocationIsHeldAndHandledInLocationOrder) {
  listener->pause();
  event(Kind::Changed, u"/b/y.txt", EntryType::File);
  event(Kind::Appeared, u"/b/y.txt", EntryType::File);
  event(Kind::Disappeared, u"/b/y.txt", EntryType::File);
  event(Kind::Changed, u"/a/x.txt", EntryType::File);
  EXPECT_TRUE(executor->tasks.empty());
  listener->unpause();
  executor->runAll();
  EXPECT_EQ(quota->calls,
            (std::vector<std::string>{"file overlay:/a/x.txt", "file overlay:/b/y.txt"}));
  // Unpaused: handled at once.
  event(Kind::Disappeared, u"/b/y.txt", EntryType::File);
  EXPECT_EQ(executor->tasks.size(), 1u);
}

TEST_F(EventListenerTest, OnlyTheLatestFolderRemovalActsAndForgetsEveryRemovedFolder) {
  // The lookups of /a/sub and /b/c list /a and /b (and the root, once).
  const auto relistingsOfBoth = [&] {
    const auto before = store.counted->callCount("listAll");
    cache->getFolderMetadata(ov(u"/a/sub"));
    cache->getFolderMetadata(ov(u"/b/c"));
    return store.counted->callCount("listAll") - before;
  };
  relistingsOfBoth();
  event(Kind::Disappeared, u"/a/sub", EntryType::Folder);
  event(Kind::Disappeared, u"/b/c", EntryType::Folder);
  ASSERT_EQ(executor->tasks.size(), 2u);
  executor->tasks.front()();  // a later removal's job is queued: this one leaves it the work
  executor->tasks.pop_front();
  EXPECT_EQ(relistingsOfBoth(), 0u);
  executor->runAll();
  EXPECT_EQ(relistingsOfBoth(), 2u);  // /a and /b, each listed again; the root stays cached
}

TEST_F(EventListenerTest, ARescanOfTheRootActsAtOnceEvenWhileTheExecutorIsBusy) {
  relistings();
  event(Kind::Changed, u"/a/x.txt", EntryType::File);  // held by the busy executor
  event(Kind::Rescan, u"/", EntryType::Folder);
  EXPECT_EQ(executor->tasks.size(), 1u);
  EXPECT_EQ(relistings(), 2u);  // / and /a read again before the worker ran anything
}

TEST_F(EventListenerTest, AfterStopNothingIsHandled) {
  listener->pause();
  event(Kind::Changed, u"/a/x.txt", EntryType::File);
  relistings();
  event(Kind::Appeared, u"/b/new", EntryType::File);
  listener->stop();
  listener->unpause();
  event(Kind::Rescan, u"/", EntryType::Folder);
  event(Kind::Changed, u"/a/x.txt", EntryType::File);
  executor->runAll();
  EXPECT_TRUE(quota->calls.empty());
  EXPECT_EQ(relistings(), 0u);
}

TEST_F(EventListenerTest, EchoesOfTheReplayCostNothingWhenSuppressedAndForeignChangesStillCount) {
  using storage::overlayprovider::ReplayEchoes;
  using storage::overlayprovider::ReplayedChange;
  struct Event {
    Kind kind;
    std::u16string at;
    EntryType type;
  };
  struct Case {
    ReplayedChange noted;
    std::u16string at;
    int ageMs;                  // how long after the note the events arrive
    std::vector<Event> events;  // the last one comes once more afterwards: someone else's
    bool recognised;            // with suppression on
  };
  const auto file = EntryType::File;
  const auto folder = EntryType::Folder;
  const std::vector<Case> cases = {
      {ReplayedChange::Created, u"/a/new.txt", 0, {{Kind::Appeared, u"/a/new.txt", file}}, true},
      {ReplayedChange::Removed, u"/a/x.txt", 0, {{Kind::Disappeared, u"/a/x.txt", file}}, true},
      {ReplayedChange::MovedFrom, u"/a/x.txt", 0, {{Kind::Disappeared, u"/a/x.txt", file}}, true},
      {ReplayedChange::MovedTo, u"/a/y.txt", 0, {{Kind::Appeared, u"/a/y.txt", file}}, true},
      {ReplayedChange::Written, u"/a/x.txt", 0, {{Kind::Changed, u"/a/x.txt", file}}, true},
      {ReplayedChange::AttributesSet, u"/a/sub", 0, {{Kind::Changed, u"/a/sub", folder}}, true},
      {ReplayedChange::Removed,
       u"/b",
       0,
       {{Kind::Disappeared, u"/b/c", folder}, {Kind::Disappeared, u"/b", folder}},
       true},
      {ReplayedChange::Created, u"/a", 0, {{Kind::Appeared, u"/a/sub", folder}}, false},
      {ReplayedChange::Written, u"/a/x.txt", 0, {{Kind::Disappeared, u"/a/x.txt", file}}, false},
      {ReplayedChange::Written, u"/a/x.txt", 3500, {{Kind::Changed, u"/a/x.txt", file}}, false},
  };
  auto now = ReplayEchoes::Clock::now();
  for (const bool suppress : {true, false}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(suppress ? "on " : "off ") + foundation::text::toUtf8(c.at) + " " +
                   std::to_string(static_cast<int>(c.noted)));
      const auto echoes = std::make_shared<ReplayEchoes>(std::chrono::milliseconds(3000), 16,
                                                         [&now] { return now; });
      echoes->setEnabled(suppress);
      listener->stop();
      listener = EventListener::create(*store.root, cache, content, slot, quota, echoes);
      relistings();
      echoes->note(ov(c.at), c.noted);
      now += std::chrono::milliseconds(c.ageMs);
      for (const auto& e : c.events) event(e.kind, e.at, e.type);
      const bool dropped = suppress && c.recognised;
      EXPECT_EQ(executor->tasks.empty(), dropped);
      executor->runAll();
      EXPECT_EQ(relistings() == 0, dropped);
      const auto& again = c.events.back();
      event(again.kind, again.at, again.type);
      EXPECT_FALSE(executor->tasks.empty());
      executor->runAll();
      EXPECT_GT(relistings(), 0u);
    }
  }
}

}  // namespace
