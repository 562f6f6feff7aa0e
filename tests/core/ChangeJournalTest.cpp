// ChangeJournal: changes survive the process that appended them, confirmed ones do not, a torn
// or corrupt record ends what is recovered, the file stays bounded by what is pending, one
// journal per cache root, and the recovering generation until finishRecovery.
#include "CoreTestSupport.h"
#include "core/journal/ChangeJournal.h"

#include <foundation/log/LogCapture.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem.hpp>
#include <boost/filesystem/fstream.hpp>
#include <boost/iostreams/device/file_descriptor.hpp>

#include <unistd.h>

#include <gtest/gtest.h>

namespace storage::overlayprovider {
namespace {

namespace fs = boost::filesystem;
using coretest::ov;
using foundation::storage::provider::StorageIRI;

std::vector<ReplayChange> sampleChanges() {
  using boost::posix_time::ptime;
  const ptime when = boost::posix_time::time_from_string("2024-02-29 23:59:58.123456");
  return {
      ReplayChange(FILE_CREATION, ChangeAction::CreateFile, ov(u"/a/ü b.txt")),
      ReplayChange(FILE_WRITE, ChangeAction::WriteRange, ov(u"/a/f"))
          .range(1ll << 40, 65536)
          .withFlags(ReplayChange::kCreatesFile),
      ReplayChange(FILE_MOVE, ChangeAction::MoveFile, ov(u"/a/f")).to(ov(u"/b/g")).withFlags(3),
      ReplayChange(SET_LAST_MODIFIED, ChangeAction::SetLastModified, ov(u"/b/g")).at(when),
      ReplayChange(FILE_CLOSE, ChangeAction::CloseFile, StorageIRI(u"overlay+mem:/c"))
          .at(ptime(boost::posix_time::pos_infin))
          .to(ov(u"/"))
          .range(-1, -2),
      ReplayChange(EXTERNAL_EVENT, ChangeAction::Invalidate, ov(u"/")),
  };
}

void expectSame(const std::vector<ReplayChange>& got, const std::vector<ReplayChange>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(got[i].kind, want[i].kind);
    EXPECT_EQ(got[i].action, want[i].action);
    EXPECT_EQ(got[i].location.toString(), want[i].location.toString());
    EXPECT_EQ(got[i].destination, want[i].destination);
    EXPECT_EQ(got[i].offset, want[i].offset);
    EXPECT_EQ(got[i].length, want[i].length);
    EXPECT_EQ(got[i].time, want[i].time);
    EXPECT_EQ(got[i].flags, want[i].flags);
  }
}

struct ChangeJournalTest : ::testing::Test {
  fs::path root = fs::temp_directory_path() / fs::unique_path("journal-%%%%-%%%%");
  void TearDown() override { fs::remove_all(root); }
  std::shared_ptr<ChangeJournal> open(const fs::path& folder) {
    return ChangeJournal::open({folder});
  }
};

TEST_F(ChangeJournalTest, KeepsEveryFieldOfTheUnconfirmedChangesAcrossProcesses) {
  const std::vector<ReplayChange> changes = sampleChanges();
  std::vector<ReplayChange> unconfirmed;
  std::uint64_t last = 0;
  {
    auto journal = open(root);
    for (std::size_t i = 0; i < changes.size(); ++i) {
      last = journal->append(changes[i]);
      if (i % 3 == 1)
        journal->confirm(last);
      else
        unconfirmed.push_back(changes[i]);
    }
    journal->confirm(last + 7);  // unknown: ignored
    EXPECT_EQ(journal->pendingCount(), unconfirmed.size());
  }
  auto journal = open(root);
  expectSame(journal->recovered(), unconfirmed);
  EXPECT_GT(journal->append(changes[0]), last);
}

TEST_F(ChangeJournalTest, RecoversExactlyTheCompleteRecordsBeforeATornOrCorruptOne) {
  const std::vector<ReplayChange> changes = sampleChanges();
  std::vector<std::uintmax_t> ends;  // where each record ends
  {
    auto journal = open(root / "source");
    for (const ReplayChange& change : changes) {
      journal->append(change);
      ends.push_back(journal->fileSize());
    }
  }
  std::string bytes;
  fs::load_string_file(root / "source" / "journal", bytes);
  const std::size_t n = ends.size();
  struct Case {
    std::string bytes;
    std::size_t kept;
  };
  std::vector<Case> cases;
  for (std::uintmax_t cut = ends[n - 2] + 1; cut < ends[n - 1]; ++cut)
    cases.push_back({bytes.substr(0, cut), n - 1});
  std::string flipped = bytes;
  flipped[(ends[1] + ends[2]) / 2] ^= 0x20;  // inside the third record
  cases.push_back({flipped, 2});
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE("case " + std::to_string(i));
    const fs::path folder = root / std::to_string(i);
    fs::create_directories(folder);
    fs::save_string_file(folder / "journal", cases[i].bytes);
    foundation::log::LogCapture log;
    auto journal = open(folder);
    expectSame(journal->recovered(),
               std::vector<ReplayChange>(changes.begin(), changes.begin() + cases[i].kept));
    EXPECT_EQ(fs::file_size(folder / "journal.recovering"), ends[cases[i].kept - 1]);
    EXPECT_EQ(
        log.count("at offset " + std::to_string(ends[cases[i].kept - 1]), foundation::log::warning),
        1u);
  }
}

TEST_F(ChangeJournalTest, StaysBoundedByWhatIsPendingAndEmptiesWhenNothingIs) {
  const ReplayChange change = sampleChanges()[1];
  std::vector<std::uint64_t> window;
  std::uintmax_t largest = 0;
  {
    auto journal = open(root);
    for (int i = 0; i < 40000; ++i) {
      window.push_back(journal->append(change));
      if (window.size() > 10) {
        journal->confirm(window.front());
        window.erase(window.begin());
      }
      largest = std::max(largest, journal->fileSize());
    }
    EXPECT_LE(largest, ChangeJournal::kCompactionFloor + 4096);
    EXPECT_EQ(journal->pendingCount(), 10u);
  }
  {
    auto journal = open(root);
    expectSame(journal->recovered(), std::vector<ReplayChange>(10, change));
    for (const ReplayChange& again : journal->recovered()) journal->confirm(journal->append(again));
    journal->finishRecovery();
    EXPECT_EQ(journal->fileSize(), ChangeJournal::kHeaderSize);
  }
  EXPECT_TRUE(open(root)->recovered().empty());
}

TEST_F(ChangeJournalTest, RefusesASecondJournalOverTheSameRootWhileTheFirstLives) {
  auto first = open(root);
  EXPECT_EQ(coretest::codeOf([&] { open(root); }), coretest::fsp::ErrorCode::ResourceBusy);
  first.reset();
  EXPECT_NO_THROW(open(root));
}

TEST_F(ChangeJournalTest, ReadsTheRecoveringGenerationAgainUntilRecoveryFinishes) {
  const std::vector<ReplayChange> changes = sampleChanges();
  {
    auto journal = open(root);
    for (const ReplayChange& change : changes) journal->append(change);
  }
  {
    auto journal = open(root);
    journal->append(journal->recovered()[0]);  // re-applied in part, then the process dies
  }
  auto journal = open(root);
  expectSame(journal->recovered(), changes);
  for (const ReplayChange& change : journal->recovered()) journal->append(change);
  journal->finishRecovery();
  EXPECT_FALSE(fs::exists(root / "journal.recovering"));
  journal.reset();
  expectSame(open(root)->recovered(), changes);  // now from the re-appended records
}

// A sync flushes the bodies noted since the last one, once; one that cannot be flushed (a
// pipe: fdatasync refuses it) fails the sync and stays noted for the next, with the bodies
// after it, until so many are noted that the whole file system is synced instead.
TEST_F(ChangeJournalTest, SyncsTheNotedBodiesOnceKeepsAFailedOneAndSyncsTheFileSystemPastTheBound) {
  using boost::iostreams::file_descriptor;
  DurableBodies bodies;
  fs::create_directories(root);
  const auto body = std::make_shared<file_descriptor>((root / "body").string(), std::ios_base::out);
  const int onFileSystem = body->handle();
  bodies.note(body);
  EXPECT_TRUE(bodies.sync(onFileSystem));
  EXPECT_FALSE(bodies.sync(onFileSystem));
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[1]);
  bodies.note(std::make_shared<file_descriptor>(ends[0], boost::iostreams::close_handle));
  EXPECT_THROW(bodies.sync(onFileSystem), std::system_error);
  EXPECT_THROW(bodies.sync(onFileSystem), std::system_error);
  // Past the bound the file system is synced as a whole and the descriptors go, the pipe too.
  for (std::size_t i = 0; i < DurableBodies::kMostBodies; ++i)
    bodies.note(std::make_shared<file_descriptor>((root / "body").string(), std::ios_base::out));
  EXPECT_TRUE(bodies.sync(onFileSystem));
  EXPECT_FALSE(bodies.sync(onFileSystem));
}

}  // namespace
}  // namespace storage::overlayprovider
