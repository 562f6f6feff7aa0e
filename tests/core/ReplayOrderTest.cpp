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
// "|" a change that says nothing (a barrier).
QueuedTransaction entryFor(const std::string& text) {
  if (text == "|") return QueuedTransaction([] {}, false, 0.0, FILE_WRITE);
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
        OrderCase{"FrontIsFree", {}, {"/a", "/a"}, 0},
        OrderCase{"SamePathWaitsForTheRunningOne", {"/a"}, {"/a", "/b"}, 1},
        OrderCase{"InsideARunningFolderWaits", {"/a"}, {"/a/x", "/b"}, 1},
        OrderCase{"AFolderWaitsForWhatRunsInside", {"/a/b/c"}, {"/a"}, std::nullopt},
        OrderCase{"AnEarlierWaitingChangeHoldsItsPath", {"/a"}, {"/a", "/a/b", "/c"}, 2},
        OrderCase{"AMoveCountsAtBothEnds", {"/x"}, {"/y>/x/z", "/y"}, std::nullopt},
        OrderCase{"ANameThatOnlySharesAPrefixIsUnrelated", {"/ab"}, {"/a"}, 0},
        OrderCase{"SpellingsOfOneNameAreOrdered", {"/A"}, {"/a"}, std::nullopt},
        OrderCase{"TheRootContainsEverything", {"/q"}, {"/"}, std::nullopt},
        OrderCase{"ARecursiveCreationHoldsTheFoldersItMayMake", {"+/w/d/e"}, {"/w/f", "/x"}, 1},
        OrderCase{"ABarrierWaitsForEverythingRunning", {"/b"}, {"|", "/c"}, std::nullopt},
        OrderCase{"NothingPassesARunningBarrier", {"|"}, {"/c"}, std::nullopt},
        OrderCase{"NothingPassesAWaitingBarrier", {"/b"}, {"/b", "|", "/c"}, std::nullopt}),
    ::testing::PrintToStringParamName());

}  // namespace
