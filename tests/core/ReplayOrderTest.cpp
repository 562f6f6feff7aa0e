// ReplayOrder: which queued change a free worker may start while others run.
#include "core/execution/ReplayOrder.h"

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

using namespace storage::overlayprovider;
using foundation::storage::provider::StorageIRI;

namespace {

// "/a" a change of /a; "/a>/b" a move from /a to /b; "+/a/b" a recursive creation of /a/b;
// "|" a change that says nothing (a barrier); "~/a" a change of /a still ripening.
QueuedTransaction entryFor(const std::string& text) {
  if (text == "|") return QueuedTransaction([] {}, false, 0.0, FILE_WRITE);
  if (text[0] == '~') {
    auto ripening = entryFor(text.substr(1));
    ripening.weight = 1.0;
    return ripening;
  }
  if (text[0] == '+') {
    const ReplayChange tree(FOLDER_CREATION_RECURSIVE, ChangeAction::CreateFolderTree,
                            StorageIRI(u"overlay", std::u16string(text.begin() + 1, text.end())));
    return QueuedTransaction(ReplayTask{tree, [](const ReplayChange&) {}, [] {}, 0.0});
  }
  const auto arrow = text.find('>');
  const auto at = [](const std::string& path) {
    return StorageIRI(u"overlay", std::u16string(path.begin(), path.end()));
  };
  ReplayChange change(FILE_MOVE, ChangeAction::MoveFile, at(text.substr(0, arrow)));
  if (arrow != std::string::npos) change.to(at(text.substr(arrow + 1)));
  return QueuedTransaction(ReplayTask{change, [](const ReplayChange&) {}, [] {}, 0.0});
}

struct OrderCase {
  const char* name;
  std::vector<std::string> running;
  std::vector<std::string> queued;
  std::optional<std::size_t> expected;
  std::size_t startable;  // ripe entries that could start side by side
};
void PrintTo(const OrderCase& c, std::ostream* out) { *out << c.name; }

struct ReplayOrderTest : ::testing::TestWithParam<OrderCase> {};

TEST_P(ReplayOrderTest, PicksTheFirstChangeThatOverlapsNothingEarlier) {
  const auto& c = GetParam();
  ReplayOrder order;
  for (const auto& text : c.running) order.started(entryFor(text));
  std::deque<QueuedTransaction> queue;
  for (const auto& text : c.queued) queue.push_back(entryFor(text));
  EXPECT_EQ(order.pickRunnable(queue), c.expected);
  const auto ripe = [](const QueuedTransaction& entry) { return entry.weight == 0.0; };
  EXPECT_EQ(order.countStartable(queue, 100, ripe), c.startable);
  EXPECT_EQ(order.countStartable(queue, 1, ripe), std::min<std::size_t>(c.startable, 1));
  // Once everything running has finished, the front entry is always free.
  for (const auto& text : c.running) order.finished(entryFor(text));
  EXPECT_EQ(order.running(), 0u);
  if (!queue.empty()) {
    EXPECT_EQ(order.pickRunnable(queue), std::optional<std::size_t>(0));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ReplayOrderTest,
    ::testing::Values(
        OrderCase{"FrontIsFree", {}, {"/a", "/a"}, 0, 1},
        OrderCase{"SamePathWaitsForTheRunningOne", {"/a"}, {"/a", "/b"}, 1, 1},
        OrderCase{"InsideARunningFolderWaits", {"/a"}, {"/a/x", "/b"}, 1, 1},
        OrderCase{"AFolderWaitsForWhatRunsInside", {"/a/b/c"}, {"/a"}, std::nullopt, 0},
        OrderCase{"AnEarlierWaitingChangeHoldsItsPath", {"/a"}, {"/a", "/a/b", "/c"}, 2, 1},
        OrderCase{"AMoveCountsAtBothEnds", {"/x"}, {"/y>/x/z", "/y"}, std::nullopt, 0},
        OrderCase{"ANameThatOnlySharesAPrefixIsUnrelated", {"/ab"}, {"/a"}, 0, 1},
        OrderCase{"SpellingsOfOneNameAreOrdered", {"/A"}, {"/a"}, std::nullopt, 0},
        OrderCase{"TheRootContainsEverything", {"/q"}, {"/"}, std::nullopt, 0},
        OrderCase{"ARecursiveCreationHoldsTheFoldersItMayMake", {"+/w/d/e"}, {"/w/f", "/x"}, 1, 1},
        OrderCase{"ABarrierWaitsForEverythingRunning", {"/b"}, {"|", "/c"}, std::nullopt, 0},
        OrderCase{"NothingPassesARunningBarrier", {"|"}, {"/c"}, std::nullopt, 0},
        OrderCase{"UnrelatedPathsStartSideBySide", {}, {"/a", "/b", "/a/x", "/c"}, 0, 3},
        OrderCase{"CountingStopsAtTheFirstRipening", {}, {"/a", "~/b", "/c"}, 0, 1},
        OrderCase{"NothingPassesAWaitingBarrier", {"/b"}, {"/b", "|", "/c"}, std::nullopt, 0}),
    ::testing::PrintToStringParamName());

}  // namespace
