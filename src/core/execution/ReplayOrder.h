// ReplayOrder: decides which queued transaction a free worker may start when several workers
// replay the queue at once.
//
// The rule keeps, for every two changes whose locations are the same or where one lies inside
// the other (a move counts at both ends), the order in which they were queued: a change may
// start only when no earlier change still queued and no change now running overlaps it. So a
// file's creation, writes and close stay in order, a folder's creation comes before anything
// inside it, a removal of a folder after everything queued inside it, while changes to
// unrelated paths replay side by side. A transaction that says nothing of its locations (the
// executor's own markers, or a task queued without a ReplayChange) is a barrier: it starts
// only once everything before it has finished, and nothing after it starts before it has.
// That is also what makes a flush's marker wait for every earlier change to have reached the
// store, not only to have started. With one worker the front entry is always the one chosen,
// which is the strict queue order.
//
// The search looks at most kLookahead entries past the front: a burst of changes to one path
// cannot make every take scan the whole queue, at the price of less parallelism behind it.
//
// Owned by value by the WeightedTransactionQueue and used only under its mutex; no lock of
// its own, no thread of its own.
#pragma once

#include "core/execution/QueuedTransaction.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>

namespace storage::overlayprovider {

class ReplayOrder {
 public:
  static constexpr std::size_t kLookahead = 1024;

  // The index of the first entry of `queue` that may start now, if any.
  std::optional<std::size_t> pickRunnable(const std::deque<QueuedTransaction>& queue) const;
  // How many entries of `queue`, at most `enough`, could start side by side now, counting
  // only those `ripe` accepts; it stops at the first it does not (later ones ripen later).
  std::size_t countStartable(const std::deque<QueuedTransaction>& queue, std::size_t enough,
                             const std::function<bool(const QueuedTransaction&)>& ripe) const;
  void started(const QueuedTransaction& entry);
  void finished(const QueuedTransaction& entry);
  std::size_t running() const { return running_; }

 private:
  // Calls visit(index) for each entry of `queue`, front to back, that may start now alongside
  // those visited before it, while visit returns true. Stops at a barrier (visited only when
  // it may start) and at the first entry `ripe` rejects.
  template <class Ripe, class Visit>
  void visitStartable(const std::deque<QueuedTransaction>& queue, const Ripe& ripe,
                      const Visit& visit) const;

  std::multiset<std::u16string> runningKeys_;
  std::size_t running_ = 0;
  std::size_t runningBarriers_ = 0;
};

}  // namespace storage::overlayprovider
