// The overlay's mutations as write-behind transactions: refusals that leave everything as it
// was, removal of open files by the store's capabilities, the one move that is never
// replayed, nothing queued after shutdown, and a burst of creates whose echoes from the
// store cost one relisting, mutations that the caches can answer alone leave every store
// call to the replay, a store that goes away costs no change when the overlay is patient, the
// next provider over a crashed one's cache root finishes its journal without undoing what the
// store holds, and work that later changes make moot never reaches the store.
#include "OverlayTestSupport.h"

#include "CoreTestSupport.h"
#include "core/cacheresources/CacheResourceLog.h"
#include "core/journal/ChangeJournal.h"

#include <foundation/text/Unicode.h>

#include <boost/date_time/posix_time/conversion.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <thread>

namespace {

using namespace overlaytest;
using coretest::codeOf;
using fsp::ErrorCode;
using fsp::ExtendedFeature;
using fsp::StorageIRI;

StorageIRI memAt(const std::u16string& path) { return StorageIRI(u"mem", path); }

TEST(OverlayMutations, RefusalsNameTheRightLocationAndChangeNothing) {
  OverlayOverMem env;
  env.overlay->createFolder(env.at(u"full"));
  env.overlay->createFile(env.at(u"full/child"));
  env.overlay->createFolder(env.at(u"gone"));
  env.overlay->removeFolder(env.at(u"gone"));  // its removal may still be on its way
  struct Case {
    const char* what;
    std::function<void()> call;
    ErrorCode code;
    std::u16string location;
  };
  const std::vector<Case> cases = {
      {"create in a missing folder", [&] { env.overlay->createFile(env.at(u"nowhere/a.txt")); },
       ErrorCode::NotFound, u"nowhere"},
      {"remove a full folder", [&] { env.overlay->removeFolder(env.at(u"full")); },
       ErrorCode::FolderNotEmpty, u"full"},
      {"create over a folder", [&] { env.overlay->createFile(env.at(u"full")); },
       ErrorCode::AlreadyExists, u"full"},
      {"remove a missing file", [&] { env.overlay->removeFile(env.at(u"none")); },
       ErrorCode::NotFound, u"none"},
      {"list a removed folder", [&] { env.overlay->listAll(env.at(u"gone")); }, ErrorCode::NotFound,
       u"gone"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(fsp::test::refusalOf(c.call), std::pair(c.code, env.at(c.location))) << c.what;
  }
  env.overlay->flushFilesystem();
  EXPECT_TRUE(env.mem->fileExists(memAt(u"/full/child")));
  EXPECT_FALSE(env.mem->folderExists(memAt(u"/nowhere")));
  EXPECT_EQ(env.innerCalls("removeFolder"), 1u);
  EXPECT_EQ(env.innerCalls("removeFile"), 0u);
}

TEST(OverlayMutations, AFileOpenForWritingIsRemovedOnlyWhereTheStoreAllowsIt) {
  struct Case {
    std::set<ExtendedFeature> features;
    bool removed;
  };
  const std::vector<Case> cases = {
      {{}, false},
      {{ExtendedFeature::RemoveWhileOpen}, true},
      {{ExtendedFeature::RemoveWhileClosing}, false},  // open and not closing
      {{ExtendedFeature::RemoveWhileOpen, ExtendedFeature::RemoveWhileClosing}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.features.size());
    fsp::mem::MemProvider::Options options;
    options.features.insert(c.features.begin(), c.features.end());
    OverlayOverMem env(options);
    const auto stream =
        env.overlay->openStream(env.at(u"open.txt"), fsp::ByteStreamOpenOptions::overwrite());
    if (c.removed) {
      env.overlay->removeFile(env.at(u"open.txt"));
      EXPECT_FALSE(env.overlay->fileExists(env.at(u"open.txt")));
    } else {
      EXPECT_EQ(codeOf([&] { env.overlay->removeFile(env.at(u"open.txt")); }),
                ErrorCode::ResourceBusy);
      EXPECT_TRUE(env.overlay->fileExists(env.at(u"open.txt")));
    }
    stream->close();
  }
}

TEST(OverlayMutations, AMoveToAFuseHiddenNameIsNeverReplayed) {
  OverlayOverMem env;
  env.overlay->createFile(env.at(u"a.txt"));
  env.overlay->moveFile(env.at(u"a.txt"), env.at(u".fuse_hidden0001"),
                        fsp::ReplacementPolicy::Fail);
  EXPECT_TRUE(env.overlay->fileExists(env.at(u".fuse_hidden0001")));
  EXPECT_FALSE(env.overlay->fileExists(env.at(u"a.txt")));
  env.overlay->flushFilesystem();
  EXPECT_EQ(env.innerCalls("moveFile"), 0u);
  // Any other name is replayed, even one holding the text further on.
  env.overlay->createFile(env.at(u"b.txt"));
  env.overlay->moveFile(env.at(u"b.txt"), env.at(u"x.fuse_hidden"), fsp::ReplacementPolicy::Fail);
  env.overlay->flushFilesystem();
  EXPECT_TRUE(env.mem->fileExists(memAt(u"/x.fuse_hidden")));
}

TEST(OverlayMutations, AfterShutdownTheCachesChangeButNothingIsQueued) {
  OverlayOverMem env;
  env.overlay->createFolder(env.at(u"d"));
  env.overlay->flushFilesystem();
  env.overlay->shutdown();
  env.overlay->createFile(env.at(u"d/late.txt"));
  EXPECT_TRUE(env.overlay->fileExists(env.at(u"d/late.txt")));
  env.overlay->flushFilesystem();  // returns: the executor has stopped
  EXPECT_FALSE(env.mem->fileExists(memAt(u"/d/late.txt")));
}

TEST(OverlayMutations, ABurstOfCreatesCostsAtMostOneRelistingOfItsFolder) {
  // Long enough that no gap between two creates reaches it, even on a loaded machine under a
  // sanitizer (at 100 ms one run in a loaded ThreadSanitizer loop relisted 8 times).
  ::setenv("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT", "1000", 1);
  OverlayOverMem env;
  env.overlay->createFolder(env.at(u"burst"));  // the first operation reads the quiet period
  ::unsetenv("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT");
  env.overlay->flushFilesystem();
  const auto listingsBefore = env.innerCalls("listAll");
  constexpr int kFiles = 1000;
  for (int i = 0; i < kFiles; ++i) {
    env.overlay->createFile(env.at(u"burst/f" + foundation::text::toUtf16(std::to_string(i))));
  }
  env.overlay->flushFilesystem();
  env.mem->waitForEventsDelivered();
  // The listener resumes a quiet period after the last create and queues its jobs.
  std::this_thread::sleep_for(std::chrono::milliseconds(1300));
  env.overlay->flushFilesystem();
  const auto listing = env.overlay->listAll(env.at(u"burst"));
  EXPECT_EQ(fsp::collectRows(*listing).size(), static_cast<std::size_t>(kFiles));
  EXPECT_LE(env.innerCalls("listAll") - listingsBefore, 1u);
}

// Each row runs where the caches know what it needs: under a folder just made (its creation
// still queued), on a file just made, in folders listed before. A folder's listing runs on a
// thread of its own while the caller waits, so every call that the replay's worker did not
// make counts against the mutation; asking the store's capabilities is the one allowed.
TEST(OverlayMutations, WhatTheCachesKnowIsChangedWithoutAStoreCallOutsideTheReplay) {
  using P = fsp::ReplacementPolicy;
  const auto when = boost::posix_time::from_time_t(1'000'000);
  // The store's call that replays the mutation, and the mutation.
  const std::vector<std::pair<std::string, std::function<void(const OverlayOverMem&)>>> rows = {
      {"createFile", [](auto& e) { e.overlay->createFile(e.at(u"new/g")); }},
      {"createFolder", [](auto& e) { e.overlay->createFolder(e.at(u"old/h")); }},
      {"createFolderRecursive",
       [](auto& e) { e.overlay->createFolderRecursive(e.at(u"new/a/b")); }},
      {"createFolderRecursive",
       [](auto& e) { e.overlay->createFolderRecursive(e.at(u"old/x/y")); }},
      {"removeFile", [](auto& e) { e.overlay->removeFile(e.at(u"old/a")); }},
      {"removeFolder", [](auto& e) { e.overlay->removeFolder(e.at(u"new/sub")); }},
      {"removeFolderRecursively",
       [](auto& e) { e.overlay->removeFolderRecursively(e.at(u"new")); }},
      {"moveFile", [](auto& e) { e.overlay->moveFile(e.at(u"new/f"), e.at(u"old/f"), P::Fail); }},
      {"moveFolder",
       [](auto& e) { e.overlay->moveFolder(e.at(u"old/d"), e.at(u"new/d"), P::Fail); }},
      {"openStream", [](auto& e) { e.overlay->copyFile(e.at(u"new/f"), e.at(u"old/c"), P::Fail); }},
      {"setLastModified", [&](auto& e) { e.overlay->setLastModified(e.at(u"old/d"), when); }},
      {"setWritable", [](auto& e) { e.overlay->setWritable(e.at(u"new/f"), false); }},
  };
  for (std::size_t row = 0; row < rows.size(); ++row) {
    SCOPED_TRACE(row);
    OverlayOverMem env;
    env.mem->createFolderRecursive(memAt(u"/old/d"));
    env.put(u"/old/a", "abc");
    for (const auto* folder : {u"old", u"old/d"}) env.overlay->listAll(env.at(folder));
    // The replay is held on its worker, so that what is made next stays queued.
    std::promise<std::thread::id> worker;
    std::promise<void> release;  // broken by an early exit, which frees the worker
    env.overlay->executor()->execute(
        [&worker, held = release.get_future().share()] {
          worker.set_value(std::this_thread::get_id());
          held.wait();
        },
        storage::overlayprovider::EXTERNAL_EVENT, 0);
    const auto replay = worker.get_future().get();
    env.overlay->createFolder(env.at(u"new"));
    env.overlay->createFile(env.at(u"new/f"));
    env.overlay->createFolder(env.at(u"new/sub"));
    auto& counters = env.instrumented->instrumentation().counters;
    auto before = counters.snapshotExcept(replay);
    rows[row].second(env);
    auto after = counters.snapshotExcept(replay);
    before.erase("hasFeature");
    after.erase("hasFeature");
    EXPECT_EQ(after, before) << rows[row].first;
    release.set_value();
    env.overlay->flushFilesystem();
    EXPECT_GE(counters.snapshotOn(replay)[rows[row].first], 1u);
  }
}

// With "overlay.retryUnavailableMs" below 0 a store that answers Unavailable holds the replay
// up instead of costing the change: a store that comes back gets it, and a provider shut down
// while the store is still away leaves it in the journal for the next one over the root.
TEST(OverlayMutations, AStoreThatIsAwayCostsNoChangeWhenTheOverlayIsPatient) {
  struct Case {
    const char* name;
    unsigned refusals;  // Unavailable answers to the creation before the store takes it
    bool shutDownWhileAway;
  };
  for (const auto& c : {Case{"comes back after four refusals", 4, false},
                        Case{"away until the provider shuts down", 1000000, true}}) {
    SCOPED_TRACE(c.name);
    const fsp::test::TempDir directory;
    const std::map<std::string, std::string> settings = {
        {"overlay.cacheRoot", directory.path().string()},
        {"overlay.persistContentCache", "true"},
        {"overlay.journal", "true"},
        {"overlay.retryUnavailableMs", "-1"}};
    const auto store = std::make_shared<fsp::mem::MemProvider>();
    {
      OverlayOverMem first(store);
      first.configure(settings);
      first.instrumented->failNext("createFile", c.refusals, ErrorCode::Unavailable);
      first.overlay->createFile(first.at(u"/a"));
      if (c.shutDownWhileAway) {
        // More attempts than a provider without patience would make.
        for (int waited = 0; first.innerCalls("createFile") < 4 && waited < 100; ++waited) {
          std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        ASSERT_GE(first.innerCalls("createFile"), 4u);
      } else {
        first.overlay->flushFilesystem();
        EXPECT_EQ(first.innerCalls("createFile"), c.refusals + 1);
      }
    }  // shut down, without a flush in the second case
    OverlayOverMem second(store);
    second.configure(settings);
    second.overlay->flushFilesystem();
    EXPECT_TRUE(store->fileExists(memAt(u"/a")));
  }
}

// A provider killed with changes pending leaves them in the journal; the next one over the root
// makes them again, and the store may already hold some of them. Each case is the journal a
// crash left (the bytes of its writes in the body of the file's final location), the store as
// the crash left it, and what the store must hold once the next provider has flushed.
TEST(OverlayMutations, TheNextProviderFinishesWhatTheJournalHoldsAndRepeatsNothing) {
  using namespace storage::overlayprovider;  // the journal's changes and the transaction kinds
  const auto recorded = [](const std::u16string& path) { return StorageIRI(u"overlay", path); };
  const auto write = [&](const std::u16string& path, std::int64_t offset, std::int64_t length) {
    return ReplayChange(FILE_WRITE, ChangeAction::WriteRange, recorded(path)).range(offset, length);
  };
  const auto close = [&](const std::u16string& path) {
    return ReplayChange(FILE_CLOSE, ChangeAction::CloseFile, recorded(path));
  };
  const auto move = [&](const std::u16string& from, const std::u16string& to) {
    return ReplayChange(FILE_MOVE, ChangeAction::MoveFile, recorded(from))
        .to(recorded(to))
        .withFlags(fsp::ReplacementPolicy::Fail);
  };
  const auto remove = [&](const std::u16string& path) {
    return ReplayChange(FILE_REMOVAL, ChangeAction::RemoveFile, recorded(path));
  };
  const auto create = [&](const std::u16string& path) {
    return ReplayChange(FILE_CREATION, ChangeAction::CreateFile, recorded(path));
  };
  // The journal most cases start from: a write of /a, its close, /a moved to /b.
  const std::vector<ReplayChange> writeThenMove = {write(u"/a", 2, 2), close(u"/a"),
                                                   move(u"/a", u"/b")};
  struct Case {
    const char* name;
    std::map<std::u16string, std::string> storeBefore;
    std::vector<ReplayChange> pending;
    std::pair<std::u16string, std::string> finalBody;  // the final location's cached bytes
    std::map<std::u16string, std::string> storeAfter;
  };
  const Case cases[] = {
      {"a write, then a move, both on the store: the bytes no record names stay",
       {{u"/b", "01xy456789"}},
       writeThenMove,
       {u"/b", "01xy456789"},
       {{u"/b", "01xy456789"}}},
      {"a write, then a move, neither on the store",
       {{u"/a", "0123456789"}},
       writeThenMove,
       {u"/b", "01xy456789"},
       {{u"/b", "01xy456789"}}},
      {"a new file moved before its replay, which began at the destination",
       {{u"/b", "01"}},
       writeThenMove,
       {u"/b", "01xy"},
       {{u"/b", "01xy"}}},
      {"a new file moved twice, over a name that was removed, before its replay",
       {{u"/c", "01"}},
       {write(u"/a", 2, 2), close(u"/a"), remove(u"/b"), move(u"/a", u"/b"), move(u"/b", u"/c")},
       {u"/c", "01xy"},
       {{u"/c", "01xy"}}},
      {"a write, then a removal that reached the store",
       {},
       {write(u"/a", 2, 2), close(u"/a"), remove(u"/a")},
       {u"/a", "01xy"},
       {}},
      {"a new file moved, its replay at the destination done",
       {{u"/b", "new"}},
       {create(u"/a"), write(u"/a", 0, 3), close(u"/a"), move(u"/a", u"/b")},
       {u"/b", "new"},
       {{u"/b", "new"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const fsp::test::TempDir directory;
    {
      ChangeJournal::Options options;
      options.folder = directory.path().string();
      const auto journal = ChangeJournal::open(options);
      for (const auto& change : c.pending) journal->append(change);
    }  // as a crash leaves it: nothing confirmed
    const auto body = directory.path() / "V1.0" / cacheFileName(recorded(c.finalBody.first));
    std::filesystem::create_directories(body.parent_path());
    std::ofstream(body.string(), std::ios::binary) << c.finalBody.second;
    const auto store = std::make_shared<fsp::mem::MemProvider>();
    OverlayOverMem next(store);
    for (const auto& [path, bytes] : c.storeBefore) next.put(path, bytes);
    next.configure({{"overlay.cacheRoot", directory.path().string()},
                    {"overlay.persistContentCache", "true"},
                    {"overlay.journal", "true"}});
    next.overlay->flushFilesystem();
    std::map<std::u16string, std::string> storeAfter;
    for (const auto& name : store->listAllNamesOnly(memAt(u"/"))) {
      storeAfter[u"/" + name] = next.stored(u"/" + name);
    }
    EXPECT_EQ(storeAfter, c.storeAfter);
  }
}

// With absorption, work that a later change makes moot never reaches the store: a file created
// under one name and renamed reaches it under its final name, with no move, bytes written
// twice go once, and a new file written in one piece reaches it in one call with its time. The
// store answers slowly behind an unrelated creation queued first, so that every change below is
// still queued when the next arrives.
TEST(OverlayMutations, WorkALaterChangeMakesMootNeverReachesTheStore) {
  using P = fsp::ReplacementPolicy;
  const auto write = [](OverlayOverMem& e, const std::u16string& path,
                        const std::vector<std::pair<long, std::string>>& runs) {
    const auto stream = e.overlay->openStream(e.at(path), fsp::ByteStreamOpenOptions::readWrite());
    for (const auto& [offset, bytes] : runs) {
      stream->seek(offset, std::ios_base::beg);
      stream->write(bytes.data(), static_cast<long>(bytes.size()));
    }
    stream->close();
  };
  struct Case {
    const char* name;
    std::function<void(OverlayOverMem&)> work;
    const char* calls;  // "operation count, ...": how often each named call reached the store
    std::string final;  // what the store holds at /f
  };
  const Case cases[] = {
      {"created, written, renamed",
       [&](auto& e) {
         e.overlay->createFile(e.at(u"/t"));
         write(e, u"/t", {{0, "new"}});
         e.overlay->moveFile(e.at(u"/t"), e.at(u"/f"), P::Overwrite);
       },
       "moveFile 0, streamWrite 0, writeWholeFile 1", "new"},
      {"renamed over a file the store holds",
       [&](auto& e) {
         e.overlay->createFile(e.at(u"/t"));
         write(e, u"/t", {{0, "new"}});
         e.overlay->moveFile(e.at(u"/t"), e.at(u"/old"), P::Overwrite);
         e.overlay->moveFile(e.at(u"/old"), e.at(u"/f"), P::Overwrite);
       },
       "moveFile 2, streamWrite 0, writeWholeFile 1", "new"},
      {"the same bytes written again",
       [&](auto& e) {
         e.overlay->createFile(e.at(u"/f"));
         write(e, u"/f", {{0, "abcdef"}, {2, "x"}, {0, "ABCDEF"}});
       },
       "streamWrite 0, writeWholeFile 1", "ABCDEF"},
      {"written out of order",
       [&](auto& e) {
         e.overlay->createFile(e.at(u"/f"));
         write(e, u"/f", {{0, "ab"}, {4, "ef"}, {2, "cd"}});
       },
       "streamWrite 0, writeWholeFile 1", "abcdef"},
      {"written in two places",
       [&](auto& e) {
         e.overlay->createFile(e.at(u"/f"));
         write(e, u"/f", {{4, "c"}, {0, "ab"}});
       },
       "streamWrite 2, writeWholeFile 0", std::string("ab\0\0c", 5)},
      {"a mode restored as it was",
       [&](auto& e) {
         e.overlay->createFile(e.at(u"/f"));
         write(e, u"/f", {{0, "x"}});
         e.overlay->setWritable(e.at(u"/f"), true);
       },
       "setWritable 0, writeWholeFile 1", "x"},
      {"made read-only",
       [&](auto& e) {
         e.overlay->createFile(e.at(u"/f"));
         write(e, u"/f", {{0, "x"}});
         e.overlay->setWritable(e.at(u"/f"), false);
       },
       "setWritable 1, writeWholeFile 1", "x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    OverlayOverMem env;
    env.put(u"/old", "old bytes");
    env.configure({{"overlay.absorbChanges", "true"}});
    env.instrumented->setCallLatency(std::chrono::milliseconds(100));
    env.overlay->createFile(env.at(u"/blocker"));
    env.instrumented->instrumentation().log.enable(true);
    c.work(env);
    env.overlay->flushFilesystem();
    const auto calls = env.instrumented->instrumentation().log.calls();
    std::istringstream expected(c.calls);
    for (std::string operation, count; expected >> operation >> count;) {
      EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                              [&](const auto& call) { return call.operation == operation; }),
                std::stol(count))
          << operation;
    }
    EXPECT_EQ(env.stored(u"/f"), c.final);
    EXPECT_FALSE(env.mem->fileExists(memAt(u"/t")));
  }
}

}  // namespace
