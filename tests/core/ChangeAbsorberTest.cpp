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

// A case: the queue (entries separated by ", "), the arriving change, and the verdict as
// tokens: "-N" entry N withdrawn, "moot" the arrival moot, "+creates" the arrival takes over
// the creation, ">N" entry N relocated to the arrival's destination, "!N" entry N takes over
// the creation, "*N" entry N becomes the file's whole content (and creates it).
struct AbsorbCase {
  const char* name;
  const char* queued;
  const char* arriving;
  const char* verdict;
};
void PrintTo(const AbsorbCase& c, std::ostream* out) { *out << c.name; }

ChangeAbsorber::Verdict expected(const std::string& text) {
  ChangeAbsorber::Verdict verdict;
  std::istringstream in(text);
  for (std::string token; in >> token;) {
    const auto at = [&] { return static_cast<std::size_t>(std::stoul(token.substr(1))); };
    if (token == "moot") {
      verdict.arrivalMoot = true;
    } else if (token == "+creates") {
      verdict.addFlags = ReplayChange::kCreatesFile;
    } else if (token[0] == '-') {
      verdict.withdrawn.push_back(at());
    } else if (token[0] == '>') {
      verdict.relocated.push_back(at());
    } else if (token[0] == '!') {
      verdict.flagged.emplace_back(at(), ReplayChange::kCreatesFile);
    } else if (token[0] == '*') {
      verdict.flagged.emplace_back(at(), ReplayChange::kWholeFile | ReplayChange::kCreatesFile);
    }
  }
  return verdict;
}

struct ChangeAbsorberTest : ::testing::TestWithParam<AbsorbCase> {};

TEST_P(ChangeAbsorberTest, WithdrawsExactlyWhatTheArrivalMakesMoot) {
  const auto& c = GetParam();
  std::deque<QueuedTransaction> queue;
  QueueScopeIndex index;
  // Serials as a queue leaves them after takes and withdrawals: increasing, with gaps, so
  // that a position is never mistaken for a serial.
  std::uint64_t serial = 40;
  const std::string queued = c.queued;
  for (std::size_t from = 0; from < queued.size();) {
    const auto comma = std::min(queued.find(", ", from), queued.size());
    queue.push_back(entryFor(queued.substr(from, comma - from)));
    queue.back().serial = serial += 3;
    index.add(serial, queue.back().scope);
    from = comma + 2;
  }
  const auto verdict = ChangeAbsorber::judge(queue, index, entryFor(c.arriving));
  const auto want = expected(c.verdict);
  EXPECT_EQ(verdict.withdrawn, want.withdrawn);
  EXPECT_EQ(verdict.arrivalMoot, want.arrivalMoot);
  EXPECT_EQ(verdict.addFlags, want.addFlags);
  EXPECT_EQ(verdict.relocated, want.relocated);
  EXPECT_EQ(verdict.flagged, want.flagged);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ChangeAbsorberTest,
    ::testing::Values(
        AbsorbCase{"CreatedWrittenRemoved", "create /a, write /a, close /a, write /b", "remove /a",
                   "-0 -1 -2 moot"},
        AbsorbCase{"OpenedNewWrittenRemoved", "open+ /a, write /a", "remove /a", "-0 -1 moot"},
        AbsorbCase{"AnEarlierRemovalStays", "remove /a, create /a, close /a", "remove /a",
                   "-1 -2 moot"},
        AbsorbCase{"NotCreatedHereGoesToTheStore", "write /a, close /a", "remove /a", ""},
        AbsorbCase{"AMoveInBetweenStops", "create /b, move /b>/a", "remove /a", ""},
        AbsorbCase{"AMoveOfTheFolderAboveStops", "create /d/a, move /d>/e, move /e>/d",
                   "remove /d/a", ""},
        AbsorbCase{"ABarrierStops", "create /a, |", "remove /a", ""},
        AbsorbCase{"AChangeWithNoLocalHalfStops", "create /a, fixed /a", "remove /a", ""},
        AbsorbCase{"FolderTreeCreatedAndRemoved", "mkdir /d, create /d/f, write /d/f, mkdir /e",
                   "rmtree /d", "-0 -1 -2 moot"},
        AbsorbCase{"AFolderMadeWithItsParentsStays", "mkdirs /d, create /d/f", "rmtree /d", ""},
        AbsorbCase{"AMoveOutOfTheFolderStops", "mkdir /d, create /d/f, move /d/f>/x", "rmtree /d",
                   ""},
        AbsorbCase{"StampAgain", "stamp /a, write /b", "stamp /a", "-0"},
        AbsorbCase{"StampAfterAWriteStays", "stamp /a, write /a", "stamp /a", ""},
        AbsorbCase{"AnotherAttributeStays", "chmod /a", "stamp /a", ""},
        AbsorbCase{"CreationMergedIntoTheFirstWrite", "create /a", "write /a", "-0 +creates"},
        AbsorbCase{"CreationMergedIntoTheCreatingOpen", "create /a", "open+ /a", "-0"},
        AbsorbCase{"ASecondWriteMergesNothing", "create /a, write /a 0 4", "write /a 4 4", ""},
        AbsorbCase{"CoveredWritesGo", "write /a 0 4, write /a 8 4, write /b 0 4, write /a 2 2",
                   "write /a 0 8", "-0 -3"},
        AbsorbCase{"APartlyCoveredWriteStays", "write /a 0 8", "write /a 4 8", ""},
        AbsorbCase{"TheCreatingWriteHandsOnTheCreation", "write! /a 0 4, write /a 2 2",
                   "write /a 0 4", "-0 -1 +creates"},
        AbsorbCase{"TheCreatingWriteStaysBeforeAKeptOne", "write! /a 0 4, write /a 4 4",
                   "write /a 0 4", ""},
        AbsorbCase{"AnotherChangeOfTheFileStops", "write /a 0 4, close /a", "write /a 0 4", ""},
        AbsorbCase{"CreatedThenRenamedReplaysAtTheDestination",
                   "open+ /t, write /t 0 4, close /t, write /x 0 4, relocate /t>/f", "rename /t>/f",
                   "-4 moot >0 >1 >2"},
        AbsorbCase{"ACreatingWriteStartsTheChainToo",
                   "mkdir /d, write! /t 0 4, close /t, relocate /t>/d/f", "rename /t>/d/f",
                   "-3 moot >1 >2"},
        AbsorbCase{"ADestinationInUseStays", "open+ /t, close /t, relocate /t>/f", "move /t>/f",
                   ""},
        AbsorbCase{"AChangeAtTheDestinationAfterTheCreationStops",
                   "open+ /t, remove /f, close /t, relocate /t>/f", "rename /t>/f", ""},
        AbsorbCase{"NotCreatedHereStays", "write /t 0 4, close /t, relocate /t>/f", "rename /t>/f",
                   ""},
        AbsorbCase{"TheSourcesTimeStampGoesAlong", "open+ /t, stamp /t, close /t, relocate /t>/f",
                   "rename /t>/f", "-3 moot >0 >1 >2"},
        AbsorbCase{"AChangeThatCannotFollowStops", "open+ /t, fixed /t, relocate /t>/f",
                   "rename /t>/f", ""},
        AbsorbCase{"WithoutTheStreamsRelocationStays", "open+ /t, close /t", "rename /t>/f", ""},
        AbsorbCase{"TheClosesOwnStampMakesTheOthersMoot",
                   "create /a, stamp /a, write /a 0 4, stamp /a", "close /a", "-0 -1 -3 !2 *2"},
        AbsorbCase{"OneWriteFromTheStartIsTheWholeFile", "write! /a 0 4", "close /a", "*0"},
        AbsorbCase{"TheCreatingOpenGoesIntoTheWholeFile", "open+ /a, write /a 0 4, write /b 0 4",
                   "close /a", "-0 *1"},
        AbsorbCase{"AFileTheStoreHoldsIsWrittenInPlace", "write /a 0 4", "close /a", ""},
        AbsorbCase{"TwoWritesStayWrites", "write! /a 0 4, write /a 4 4", "close /a", ""},
        AbsorbCase{"AWriteAfterTheStartStays", "write! /a 4 4", "close /a", ""},
        AbsorbCase{"ATruncationStampsToo", "close /a, stamp /a, truncate /a", "close /a", "-1"},
        AbsorbCase{"ACloseWithoutWritesStampsNothing", "write /a 0 4, close /a, stamp /a",
                   "close /a", ""},
        AbsorbCase{"AStampRightAfterAStampingClose", "write /a 0 4, close /a", "stamp /a", "moot"},
        AbsorbCase{"AStampAfterAQuietCloseStays", "close /a, close /a", "stamp /a", ""},
        AbsorbCase{"AnotherSpellingIsAnotherFile", "create /a", "remove /A", ""}),
    ::testing::PrintToStringParamName());

}  // namespace
