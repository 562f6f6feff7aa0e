// ChangeAbsorber: which queued changes an arriving one makes moot.
#include "core/execution/ChangeAbsorber.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

using namespace storage::overlayprovider;
using foundation::storage::provider::StorageIRI;

namespace {

// "create /a", "write /a 0 4" (bytes [0, 4)), "move /a>/b", ...; "|" is a barrier; "fixed /a" a
// change queued with no local half (never absorbed); "write!" a write that creates its file;
// "rename /a>/b" a move to a name that was free; "relocate" the move of a file's stream.
QueuedTransaction entryFor(const std::string& text) {
  if (text == "|") return QueuedTransaction([] {}, false, 0.0, FILE_WRITE);
  static const std::map<std::string, ChangeAction> kActions = {
      {"create", ChangeAction::CreateFile},       {"open+", ChangeAction::OpenFile},
      {"write", ChangeAction::WriteRange},        {"close", ChangeAction::CloseFile},
      {"remove", ChangeAction::RemoveFile},       {"mkdir", ChangeAction::CreateFolder},
      {"mkdirs", ChangeAction::CreateFolderTree}, {"rmtree", ChangeAction::RemoveFolderTree},
      {"move", ChangeAction::MoveFile},           {"stamp", ChangeAction::SetLastModified},
      {"chmod", ChangeAction::SetWritable},       {"fixed", ChangeAction::CloseFile},
      {"write!", ChangeAction::WriteRange},       {"rename", ChangeAction::MoveFile},
      {"relocate", ChangeAction::Relocate},       {"truncate", ChangeAction::Truncate}};
  std::istringstream in(text);
  std::string word, path;
  std::int64_t offset = 0, length = 1;
  in >> word >> path >> offset >> length;
  const auto arrow = path.find('>');
  const auto at = [](const std::string& p) {
    return StorageIRI(u"overlay", std::u16string(p.begin(), p.end()));
  };
  ReplayChange change(FILE_WRITE, kActions.at(word), at(path.substr(0, arrow)));
  if (arrow != std::string::npos) change.to(at(path.substr(arrow + 1)));
  if (word == "open+") change.withFlags(ReplayChange::kOpenCreates);
  if (word == "write!") change.withFlags(ReplayChange::kCreatesFile);
  change.destinationWasFree = word == "rename";
  change.range(offset, length);
  ReplayTask task{change, [](const ReplayChange&) {}, nullptr, 0.0};
  if (word != "fixed") task.moot = [] {};
  return QueuedTransaction(std::move(task));
}

struct AbsorbCase {
  const char* name;
  std::vector<std::string> queued;
  std::string arriving;
  std::vector<std::size_t> withdrawn;
  bool arrivalMoot;
  int addFlags;
  std::vector<std::size_t> relocated = {};
  std::vector<std::pair<std::size_t, int>> flagged = {};
};
void PrintTo(const AbsorbCase& c, std::ostream* out) { *out << c.name; }

struct ChangeAbsorberTest : ::testing::TestWithParam<AbsorbCase> {};

TEST_P(ChangeAbsorberTest, WithdrawsExactlyWhatTheArrivalMakesMoot) {
  const auto& c = GetParam();
  std::deque<QueuedTransaction> queue;
  QueueScopeIndex index;
  // Serials as a queue leaves them after takes and withdrawals: increasing, with gaps, so
  // that a position is never mistaken for a serial.
  std::uint64_t serial = 40;
  for (const auto& text : c.queued) {
    queue.push_back(entryFor(text));
    queue.back().serial = serial += 3;
    index.add(serial, queue.back().scope);
  }
  const auto verdict = ChangeAbsorber::judge(queue, index, entryFor(c.arriving));
  EXPECT_EQ(verdict.withdrawn, c.withdrawn);
  EXPECT_EQ(verdict.arrivalMoot, c.arrivalMoot);
  EXPECT_EQ(verdict.addFlags, c.addFlags);
  EXPECT_EQ(verdict.relocated, c.relocated);
  EXPECT_EQ(verdict.flagged, c.flagged);
}

constexpr int kCreates = ReplayChange::kCreatesFile;

INSTANTIATE_TEST_SUITE_P(
    Cases, ChangeAbsorberTest,
    ::testing::Values(
        AbsorbCase{"CreatedWrittenRemoved",
                   {"create /a", "write /a", "close /a", "write /b"},
                   "remove /a",
                   {0, 1, 2},
                   true,
                   0},
        AbsorbCase{
            "OpenedNewWrittenRemoved", {"open+ /a", "write /a"}, "remove /a", {0, 1}, true, 0},
        AbsorbCase{"AnEarlierRemovalStays",
                   {"remove /a", "create /a", "close /a"},
                   "remove /a",
                   {1, 2},
                   true,
                   0},
        AbsorbCase{
            "NotCreatedHereGoesToTheStore", {"write /a", "close /a"}, "remove /a", {}, false, 0},
        AbsorbCase{"AMoveInBetweenStops", {"create /b", "move /b>/a"}, "remove /a", {}, false, 0},
        AbsorbCase{"AMoveOfTheFolderAboveStops",
                   {"create /d/a", "move /d>/e", "move /e>/d"},
                   "remove /d/a",
                   {},
                   false,
                   0},
        AbsorbCase{"ABarrierStops", {"create /a", "|"}, "remove /a", {}, false, 0},
        AbsorbCase{
            "AChangeWithNoLocalHalfStops", {"create /a", "fixed /a"}, "remove /a", {}, false, 0},
        AbsorbCase{"FolderTreeCreatedAndRemoved",
                   {"mkdir /d", "create /d/f", "write /d/f", "mkdir /e"},
                   "rmtree /d",
                   {0, 1, 2},
                   true,
                   0},
        AbsorbCase{"AFolderMadeWithItsParentsStays",
                   {"mkdirs /d", "create /d/f"},
                   "rmtree /d",
                   {},
                   false,
                   0},
        AbsorbCase{"AMoveOutOfTheFolderStops",
                   {"mkdir /d", "create /d/f", "move /d/f>/x"},
                   "rmtree /d",
                   {},
                   false,
                   0},
        AbsorbCase{"StampAgain", {"stamp /a", "write /b"}, "stamp /a", {0}, false, 0},
        AbsorbCase{"StampAfterAWriteStays", {"stamp /a", "write /a"}, "stamp /a", {}, false, 0},
        AbsorbCase{"AnotherAttributeStays", {"chmod /a"}, "stamp /a", {}, false, 0},
        AbsorbCase{
            "CreationMergedIntoTheFirstWrite", {"create /a"}, "write /a", {0}, false, kCreates},
        AbsorbCase{"CreationMergedIntoTheCreatingOpen", {"create /a"}, "open+ /a", {0}, false, 0},
        AbsorbCase{"ASecondWriteMergesNothing",
                   {"create /a", "write /a 0 4"},
                   "write /a 4 4",
                   {},
                   false,
                   0},
        AbsorbCase{"CoveredWritesGo",
                   {"write /a 0 4", "write /a 8 4", "write /b 0 4", "write /a 2 2"},
                   "write /a 0 8",
                   {0, 3},
                   false,
                   0},
        AbsorbCase{"APartlyCoveredWriteStays", {"write /a 0 8"}, "write /a 4 8", {}, false, 0},
        AbsorbCase{"TheCreatingWriteHandsOnTheCreation",
                   {"write! /a 0 4", "write /a 2 2"},
                   "write /a 0 4",
                   {0, 1},
                   false,
                   kCreates},
        AbsorbCase{"TheCreatingWriteStaysBeforeAKeptOne",
                   {"write! /a 0 4", "write /a 4 4"},
                   "write /a 0 4",
                   {},
                   false,
                   0},
        AbsorbCase{"AnotherChangeOfTheFileStops",
                   {"write /a 0 4", "close /a"},
                   "write /a 0 4",
                   {},
                   false,
                   0},
        AbsorbCase{"CreatedThenRenamedReplaysAtTheDestination",
                   {"open+ /t", "write /t 0 4", "close /t", "write /x 0 4", "relocate /t>/f"},
                   "rename /t>/f",
                   {4},
                   true,
                   0,
                   {0, 1, 2}},
        AbsorbCase{"ACreatingWriteStartsTheChainToo",
                   {"mkdir /d", "write! /t 0 4", "close /t", "relocate /t>/d/f"},
                   "rename /t>/d/f",
                   {3},
                   true,
                   0,
                   {1, 2}},
        AbsorbCase{"ADestinationInUseStays",
                   {"open+ /t", "close /t", "relocate /t>/f"},
                   "move /t>/f",
                   {},
                   false,
                   0},
        AbsorbCase{"AChangeAtTheDestinationAfterTheCreationStops",
                   {"open+ /t", "remove /f", "close /t", "relocate /t>/f"},
                   "rename /t>/f",
                   {},
                   false,
                   0},
        AbsorbCase{"NotCreatedHereStays",
                   {"write /t 0 4", "close /t", "relocate /t>/f"},
                   "rename /t>/f",
                   {},
                   false,
                   0},
        AbsorbCase{"TheSourcesTimeStampGoesAlong",
                   {"open+ /t", "stamp /t", "close /t", "relocate /t>/f"},
                   "rename /t>/f",
                   {3},
                   true,
                   0,
                   {0, 1, 2}},
        AbsorbCase{"AChangeThatCannotFollowStops",
                   {"open+ /t", "fixed /t", "relocate /t>/f"},
                   "rename /t>/f",
                   {},
                   false,
                   0},
        AbsorbCase{"WithoutTheStreamsRelocationStays",
                   {"open+ /t", "close /t"},
                   "rename /t>/f",
                   {},
                   false,
                   0},
        AbsorbCase{"TheClosesOwnStampMakesTheOthersMoot",
                   {"create /a", "stamp /a", "write /a 0 4", "stamp /a"},
                   "close /a",
                   {0, 1, 3},
                   false,
                   0,
                   {},
                   {{2, kCreates}}},
        AbsorbCase{"ATruncationStampsToo",
                   {"close /a", "stamp /a", "truncate /a"},
                   "close /a",
                   {1},
                   false,
                   0},
        AbsorbCase{"ACloseWithoutWritesStampsNothing",
                   {"write /a 0 4", "close /a", "stamp /a"},
                   "close /a",
                   {},
                   false,
                   0},
        AbsorbCase{"AStampRightAfterAStampingClose",
                   {"write /a 0 4", "close /a"},
                   "stamp /a",
                   {},
                   true,
                   0},
        AbsorbCase{
            "AStampAfterAQuietCloseStays", {"close /a", "close /a"}, "stamp /a", {}, false, 0},
        AbsorbCase{"AnotherSpellingIsAnotherFile", {"create /a"}, "remove /A", {}, false, 0}),
    ::testing::PrintToStringParamName());

}  // namespace
