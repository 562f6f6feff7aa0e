// Change events: entries that appeared, changed, disappeared or moved, kind filters, stopping.
// Events arrive on the provider's own thread, so every expectation is a bounded wait; a
// "nothing else arrived" check first waits for a later marker event, relying on a provider
// delivering the changes of one store in the order they happened.
#include "ProviderContract.h"

namespace contract {

using foundation::storage::events::EntryType;
using foundation::storage::events::Kind;
using fsp::RecursiveFileWatching;

TEST_P(ProviderContract, EventsForCreateModifyRemove) {
  at(u"/w").createFolder();
  EventRecorder folder;
  underTest().settle();  // subscriptions go to the store, which must hold the tree
  at(u"/w").publishFolderEvents(folder.publisher(), {}, RecursiveFileWatching::No);

  at(u"/w/a.txt").createFile();
  ASSERT_TRUE(folder.waitForEvent(Kind::Appeared, u"/w/a.txt"));
  for (const auto& e : folder.events()) {
    if (e.kind == Kind::Appeared && e.path == u"/w/a.txt") {
      EXPECT_EQ(EntryType::File, e.type);
    }
  }

  // Whatever the creation itself still reports has arrived once a later change has.
  at(u"/w/marker").createFile();
  ASSERT_TRUE(folder.waitForEvent(Kind::Appeared, u"/w/marker"));
  folder.clear();

  writeFile(u"/w/a.txt", "new body");
  ASSERT_TRUE(folder.waitForEvent(Kind::Changed, u"/w/a.txt"));

  at(u"/w/a.txt").removeFile();
  ASSERT_TRUE(folder.waitForEvent(Kind::Disappeared, u"/w/a.txt"));
  at(u"/w").stopPublishingFolderEvents();
}

TEST_P(ProviderContract, FileSubscriptionHearsItsFile) {
  at(u"/w").createFolder();
  writeFile(u"/w/watched", "before");
  writeFile(u"/w/other", "before");
  EventRecorder folder, file;
  underTest().settle();  // subscriptions go to the store, which must hold the tree
  at(u"/w").publishFolderEvents(folder.publisher(), {}, RecursiveFileWatching::No);
  at(u"/w/watched").publishFileEvents(file.publisher(), {});
  at(u"/w/marker").createFile();
  ASSERT_TRUE(folder.waitForEvent(Kind::Appeared, u"/w/marker"));
  file.clear();

  writeFile(u"/w/other", "changed");
  writeFile(u"/w/watched", "changed");
  ASSERT_TRUE(file.waitForEvent(Kind::Changed, u"/w/watched"));
  ASSERT_TRUE(folder.waitForEvent(Kind::Changed, u"/w/other"));
  for (const auto& e : file.events()) {
    EXPECT_EQ(u"/w/watched", e.path) << "a file subscription hears only its file";
  }
  at(u"/w/watched").stopPublishingFileEvents();
  at(u"/w").stopPublishingFolderEvents();
}

TEST_P(ProviderContract, EventKindsFilterAndStopping) {
  makeFolders({u"/w", u"/v"});
  EventRecorder removals, stopped, barrier;
  underTest().settle();  // subscriptions go to the store, which must hold the tree
  at(u"/w").publishFolderEvents(removals.publisher(), {Kind::Disappeared},
                                RecursiveFileWatching::No);
  at(u"/v").publishFolderEvents(barrier.publisher(), {}, RecursiveFileWatching::No);

  at(u"/w/a.txt").createFile();
  underTest().settle();  // the store sees the file before it goes, not a create and delete at once
  at(u"/w/a.txt").removeFile();
  ASSERT_TRUE(removals.waitForEvent(Kind::Disappeared, u"/w/a.txt"));
  for (const auto& e : removals.events()) {
    EXPECT_EQ(Kind::Disappeared, e.kind) << "only the kinds asked for are heard";
  }

  at(u"/w").stopPublishingFolderEvents();
  at(u"/w").publishFolderEvents(stopped.publisher(), {}, RecursiveFileWatching::No);
  at(u"/w").stopPublishingFolderEvents();
  removals.clear();
  at(u"/w/b.txt").createFile();
  underTest().settle();
  at(u"/w/b.txt").removeFile();
  at(u"/v/marker").createFile();
  ASSERT_TRUE(barrier.waitForEvent(Kind::Appeared, u"/v/marker"));
  EXPECT_TRUE(removals.events().empty()) << EventRecorder::describe(removals.events());
  EXPECT_TRUE(stopped.events().empty()) << EventRecorder::describe(stopped.events());
  at(u"/v").stopPublishingFolderEvents();
}

TEST_P(ProviderContract, EventsForMovesAndRecursiveWatches) {
  makeFolders({u"/w/deep/er"});
  writeFile(u"/w/from.txt", "x");
  // A write-behind provider subscribes at the store, which must hold the tree first.
  underTest().settle();
  EventRecorder top, tree;
  at(u"/w").publishFolderEvents(top.publisher(), {}, RecursiveFileWatching::No);
  at(u"/w").publishFolderEvents(tree.publisher(), {}, RecursiveFileWatching::Yes);

  at(u"/w/from.txt").moveFile(loc(u"/w/to.txt"), fsp::ReplacementPolicy::Fail);
  ASSERT_TRUE(top.waitForMove(u"/w/from.txt", u"/w/to.txt", EntryType::File));
  at(u"/w/deep").moveFolder(loc(u"/w/moved"), fsp::ReplacementPolicy::Fail);
  ASSERT_TRUE(top.waitForMove(u"/w/deep", u"/w/moved", EntryType::Folder));

  // Below the moved folder, changes are now heard under its new location.
  at(u"/w/moved/er/inner.txt").createFile();
  ASSERT_TRUE(tree.waitForEvent(Kind::Appeared, u"/w/moved/er/inner.txt"))
      << "a recursive subscription hears changes at any depth";
  at(u"/w/marker").createFile();
  ASSERT_TRUE(top.waitForEvent(Kind::Appeared, u"/w/marker"));
  EXPECT_FALSE(EventRecorder::contains(top.events(), Kind::Appeared, u"/w/moved/er/inner.txt"))
      << "a non-recursive subscription hears only direct children";
  at(u"/w").stopPublishingFolderEvents();
}

}  // namespace contract
