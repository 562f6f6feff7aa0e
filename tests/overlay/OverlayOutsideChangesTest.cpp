// Changes that another program makes in the inner store, directly and not through the overlay,
// after the overlay has listed, queried and read what they touch: the overlay must come to show
// the store's new state by itself, from the store's change events, with no flush or
// invalidation asked for. Every case runs over the file store (inotify), the memory store and
// a case-insensitive memory store (both with asynchronous events), each with a fresh store and
// a fresh overlay; the event listener's quiet period is cut short so that the cases run fast.
#include "InnerStoresUnderTest.h"
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderFactory.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/text/Unicode.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <thread>
#include <tuple>

namespace contract {
namespace {

using fsp::StorageItem;
using storage::overlayprovider::OverlayProvider;

constexpr const char* kQuietPeriodVariable = "QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT";
constexpr std::chrono::seconds kPollBound{5};

// One store seen two ways: through the overlay, and directly, as another program sees it.
struct Sides {
  StorageItem overlay;
  StorageItem store;
  std::shared_ptr<OverlayProvider> provider;
  // Subscribed to the whole store after the overlay's own listener, so that the store calls
  // the overlay first with each event.
  mutable EventRecorder heard;

  StorageItem viaOverlay(const std::u16string& path) const { return below(overlay, path); }
  StorageItem direct(const std::u16string& path) const { return below(store, path); }

  // The overlay's own changes have reached the store and the echoes of them have been taken
  // in, so that what the overlay reads next is not invalidated later by a stray echo (which
  // would make a case pass without the change's own events): after the flush, a marker made
  // and removed in the store is heard, so every echo before it has reached the listener too;
  // the listener is resumed at once instead of after its quiet period, which queues what it
  // held, and a second flush runs those jobs.
  void settle() const {
    provider->flushFilesystem();
    const auto marker = direct(u"settled");
    marker.createFile();
    marker.removeFile();
    ASSERT_TRUE(heard.waitForEvent(foundation::storage::events::Kind::Disappeared, u"/settled"));
    heard.clear();
    provider->eventListener()->unpause();
    provider->flushFilesystem();
  }
};

// What the overlay shows that the case does not expect; empty when it shows what it should.
using Check = std::function<std::string(const Sides&)>;

std::string describe(const std::vector<std::string>& names) {
  std::string text = "[";
  for (const auto& name : names) text += (text.size() > 1 ? ", " : "") + name;
  return text + "]";
}

// The code of the refusal that `call` throws; empty when it throws none.
std::optional<fsp::ErrorCode> refusal(const std::function<void()>& call) {
  try {
    call();
  } catch (const fsp::Exception& e) {
    return e.getErrorCode();
  }
  return std::nullopt;
}

// The folder that lists `path` ("" for the root) and the name it lists it by.
std::pair<std::u16string, std::string> parentAndName(const std::u16string& path) {
  const auto slash = path.rfind(u'/');
  if (slash == std::u16string::npos) return {u"", foundation::text::toUtf8(path)};
  return {path.substr(0, slash), foundation::text::toUtf8(path.substr(slash + 1))};
}

// The parent of `path` lists it (listed) or does not (!listed); a parent that is gone lists
// nothing.
std::string listing(const Sides& sides, const std::u16string& path, bool listed) {
  const auto [parent, name] = parentAndName(path);
  const auto folder = parent.empty() ? sides.overlay : sides.viaOverlay(parent);
  std::vector<std::string> shown;
  if (listed || folder.folderExists()) shown = names(folder.listAll());
  if ((std::find(shown.begin(), shown.end(), name) != shown.end()) == listed) return {};
  return "the listing of '/" + foundation::text::toUtf8(parent) + "' is " + describe(shown);
}

// A file the store holds with `bytes`: found, with the store's own size and time, listed in its
// folder, and read with the store's bytes. The body is read last, once everything else holds,
// since every open holds the listener back for its quiet period.
Check fileShown(std::u16string path, std::string bytes) {
  return [=](const Sides& sides) -> std::string {
    const auto file = sides.viaOverlay(path);
    if (!file.fileExists()) return "the file is not found";
    const auto shown = file.getFileAttributes();
    const auto stored = sides.direct(path).getFileAttributes();
    if (shown.getSize() != bytes.size() || shown.getLastModified() != stored.getLastModified()) {
      return "the file shows size " + std::to_string(shown.getSize().value_or(0)) + " and time " +
             boost::posix_time::to_iso_string(shown.getLastModified()) + "; the store has " +
             std::to_string(bytes.size()) + " and " +
             boost::posix_time::to_iso_string(stored.getLastModified());
    }
    if (auto wrong = listing(sides, path, true); !wrong.empty()) return wrong;
    if (const auto read = readFile(file); read != bytes) return "the file reads '" + read + "'";
    return {};
  };
}

// Nothing at `path` any more: not found by a query, nor listed, nor opened.
Check fileGone(std::u16string path) {
  return [=](const Sides& sides) -> std::string {
    const auto file = sides.viaOverlay(path);
    if (file.fileExists()) return "the file is still found";
    if (refusal([&] { file.getFileAttributes(); }) != fsp::ErrorCode::NotFound) {
      return "the file's attributes are not refused with NotFound";
    }
    if (auto wrong = listing(sides, path, false); !wrong.empty()) return wrong;
    if (refusal([&] { file.openReadOnlyStream(); }) != fsp::ErrorCode::NotFound) {
      return "the file still opens";
    }
    return {};
  };
}

// A folder found and listed, whose contents show as `inside` expects.
Check folderShown(std::u16string path, Check inside) {
  return [=](const Sides& sides) -> std::string {
    if (!sides.viaOverlay(path).folderExists()) return "the folder is not found";
    if (auto wrong = listing(sides, path, true); !wrong.empty()) return wrong;
    return inside(sides);
  };
}

// A folder neither found, listed nor listable, whose former contents show as `inside` expects.
Check folderGone(std::u16string path, Check inside) {
  return [=](const Sides& sides) -> std::string {
    const auto folder = sides.viaOverlay(path);
    if (folder.folderExists())
      return "the folder '" + parentAndName(path).second + "' is still found";
    if (auto wrong = listing(sides, path, false); !wrong.empty()) return wrong;
    if (refusal([&] { folder.listAll(); }) != fsp::ErrorCode::NotFound) {
      return "the folder still lists";
    }
    return inside(sides);
  };
}

Check nothingElse() {
  return [](const Sides&) { return std::string(); };
}

// Through the overlay: each file is written and reaches the store, then the overlay lists every
// folder down to it, queries it and reads it, so that both of its caches hold the files as they
// were. With `keepOpen` the stream that read the last file stays open and is returned (a reader
// still holds the old body when the store changes).
fsp::ByteStreamPtr seeFiles(const Sides& sides,
                            const std::vector<std::pair<std::u16string, std::string>>& files,
                            bool keepOpen = false) {
  for (const auto& [path, bytes] : files) writeFile(sides.viaOverlay(path), bytes);
  sides.settle();
  if (::testing::Test::HasFatalFailure()) return nullptr;
  fsp::ByteStreamPtr stream;
  for (const auto& [path, bytes] : files) {
    sides.overlay.listAll();
    for (auto slash = path.find(u'/'); slash != std::u16string::npos;
         slash = path.find(u'/', slash + 1)) {
      sides.viaOverlay(path.substr(0, slash)).listAll();
    }
    const auto file = sides.viaOverlay(path);
    EXPECT_EQ(file.getFileAttributes().getSize(), bytes.size());
    if (stream) stream->close();
    stream = file.openReadOnlyStream();
    EXPECT_EQ(readRest(*stream), bytes);
  }
  if (keepOpen) return stream;
  stream->close();
  return nullptr;
}

struct OutsideChange {
  std::string name;
  // Through the overlay, before the change; returns a stream to close after the change, if any.
  std::function<fsp::ByteStreamPtr(const Sides&)> seen;
  // In the store, directly.
  std::function<void(const Sides&)> behind;
  // What the overlay must come to show.
  Check shows;
};

const std::vector<OutsideChange>& outsideChanges() {
  static const std::vector<OutsideChange> cases{
      {"FileCreated",
       [](const Sides& s) -> fsp::ByteStreamPtr {
         s.viaOverlay(u"d").createFolder();
         s.settle();
         s.overlay.listAll();
         EXPECT_TRUE(names(s.viaOverlay(u"d").listAll()).empty());
         EXPECT_FALSE(s.viaOverlay(u"d/new.txt").fileExists());
         return nullptr;
       },
       [](const Sides& s) { writeFile(s.direct(u"d/new.txt"), "made elsewhere"); },
       fileShown(u"d/new.txt", "made elsewhere")},
      {"FileGrown",
       [](const Sides& s) -> fsp::ByteStreamPtr {
         s.viaOverlay(u"d").createFolder();
         return seeFiles(s, {{u"d/f.txt", "old"}}, true);
       },
       [](const Sides& s) { writeFile(s.direct(u"d/f.txt"), "new and longer"); },
       fileShown(u"d/f.txt", "new and longer")},
      {"FileRewrittenAtTheSameSizeLater",
       [](const Sides& s) -> fsp::ByteStreamPtr {
         s.viaOverlay(u"d").createFolder();
         return seeFiles(s, {{u"d/f.txt", "old bytes"}}, true);
       },
       [](const Sides& s) {
         const auto file = s.direct(u"d/f.txt");
         const auto before = file.getFileAttributes().getLastModified();
         writeFile(file, "new bytes");
         // Newer for certain, whatever the clock's or the file system's resolution.
         file.setLastModified(before + boost::posix_time::minutes(1));
       },
       fileShown(u"d/f.txt", "new bytes")},
      {"FileRemoved",
       [](const Sides& s) -> fsp::ByteStreamPtr {
         s.viaOverlay(u"d").createFolder();
         return seeFiles(s, {{u"d/f.txt", "doomed"}});
       },
       [](const Sides& s) { s.direct(u"d/f.txt").removeFile(); }, fileGone(u"d/f.txt")},
      {"FolderCreated",
       [](const Sides& s) -> fsp::ByteStreamPtr {
         EXPECT_TRUE(names(s.overlay.listAll()).empty());
         EXPECT_FALSE(s.viaOverlay(u"made").folderExists());
         return nullptr;
       },
       [](const Sides& s) {
         s.direct(u"made").createFolder();
         writeFile(s.direct(u"made/child.txt"), "child");
       },
       folderShown(u"made", fileShown(u"made/child.txt", "child"))},
      {"FolderRemovedWithItsContents",
       [](const Sides& s) -> fsp::ByteStreamPtr {
         s.viaOverlay(u"gone").createFolder();
         return seeFiles(s, {{u"gone/child.txt", "child"}});
       },
       [](const Sides& s) { s.direct(u"gone").removeFolderRecursively(); },
       folderGone(u"gone", fileGone(u"gone/child.txt"))},
      // Two removals in a row, in folders that are not each other's parent.
      {"FoldersRemovedUnderTwoParents",
       [](const Sides& s) -> fsp::ByteStreamPtr {
         s.viaOverlay(u"p/one").createFolderRecursive();
         s.viaOverlay(u"q/two").createFolderRecursive();
         return seeFiles(s, {{u"p/one/child.txt", "one"}, {u"q/two/child.txt", "two"}});
       },
       [](const Sides& s) {
         s.direct(u"p/one").removeFolderRecursively();
         s.direct(u"q/two").removeFolderRecursively();
       },
       folderGone(u"p/one", folderGone(u"q/two", nothingElse()))},
  };
  return cases;
}

struct InnerStore {
  std::string name;
  std::function<std::unique_ptr<ProviderUnderTest>()> make;
};

const std::vector<InnerStore>& innerStores() {
  static const std::vector<InnerStore> stores{
      {"overFile", [] { return makeFileUnderTest(); }},
      {"overMem", [] { return makeMemUnderTest("mem"); }},
      {"overMemCaseInsensitive",
       [] { return makeMemUnderTest("memCaseInsensitive", caseInsensitive()); }},
  };
  return stores;
}

using Param = std::tuple<std::size_t, std::size_t>;  // store, change

class OverlayOutsideChanges : public ::testing::TestWithParam<Param> {
 protected:
  void SetUp() override {
    // Read by the overlay at its first operation; restored afterwards for the other tests of
    // this binary.
    if (const char* previous = std::getenv(kQuietPeriodVariable)) previousQuietPeriod_ = previous;
    ::setenv(kQuietPeriodVariable, "50", 1);
    inner_ = innerStores()[std::get<0>(GetParam())].make();
    const auto innerRoot = inner_->root();
    provider_ = std::make_shared<OverlayProvider>(innerRoot);
    sides_.emplace(Sides{
        StorageItem(provider_,
                    storage::overlayprovider::OverlayProviderFactory().getRootLocation(innerRoot)),
        innerRoot, provider_, EventRecorder()});
    // The first operation starts the overlay's listener; only then the test's own recorder.
    ASSERT_TRUE(sides_->overlay.folderExists());
    ASSERT_TRUE(provider_->eventListener());
    innerRoot.publishFolderEvents(sides_->heard.publisher(), {}, fsp::RecursiveFileWatching::Yes);
  }

  void TearDown() override {
    if (provider_) {
      const auto cacheRoot = provider_->contentCache().cacheRoot();
      provider_->shutdown();
      boost::system::error_code ignored;
      boost::filesystem::remove_all(cacheRoot, ignored);
    }
    sides_.reset();
    provider_.reset();
    inner_.reset();
    if (previousQuietPeriod_) {
      ::setenv(kQuietPeriodVariable, previousQuietPeriod_->c_str(), 1);
    } else {
      ::unsetenv(kQuietPeriodVariable);
    }
  }

  // Asks the overlay again and again until `check` finds nothing wrong; fails the test with
  // the last thing found wrong when that takes longer than the bound.
  void pollUntilShown(const Check& check) const {
    const auto deadline = std::chrono::steady_clock::now() + kPollBound;
    std::string wrong;
    for (;;) {
      try {
        wrong = check(*sides_);
      } catch (const std::exception& e) {
        wrong = std::string("a query threw: ") + e.what();
      }
      if (wrong.empty()) return;
      if (std::chrono::steady_clock::now() >= deadline) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ADD_FAILURE() << "after " << kPollBound.count() << " s the overlay still shows the store "
                  << "from before the change: " << wrong;
  }

  std::optional<std::string> previousQuietPeriod_;
  std::unique_ptr<ProviderUnderTest> inner_;
  std::shared_ptr<OverlayProvider> provider_;
  std::optional<Sides> sides_;
};

TEST_P(OverlayOutsideChanges, TheOverlayComesToShowTheStoresNewState) {
  const auto& change = outsideChanges()[std::get<1>(GetParam())];
  const auto reader = change.seen(*sides_);
  ASSERT_FALSE(HasFailure()) << "the overlay did not see the store before the change";
  change.behind(*sides_);
  if (reader) reader->close();
  pollUntilShown(change.shows);
}

std::string paramName(const ::testing::TestParamInfo<Param>& info) {
  return innerStores()[std::get<0>(info.param)].name + "_" +
         outsideChanges()[std::get<1>(info.param)].name;
}

INSTANTIATE_TEST_SUITE_P(Overlay, OverlayOutsideChanges,
                         ::testing::Combine(::testing::Range<std::size_t>(0, innerStores().size()),
                                            ::testing::Range<std::size_t>(0,
                                                                          outsideChanges().size())),
                         paramName);

}  // namespace
}  // namespace contract
