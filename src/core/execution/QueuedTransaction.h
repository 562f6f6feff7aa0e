// QueuedTransaction: one entry of the BackendExecutor's queue: the task to replay on the inner
// store and what the queue needs to account for it.
//
// Built by the submitting thread, moved into the WeightedTransactionQueue and moved out again
// by the worker, which owns it while it runs. Not shared between threads.
#pragma once

#include "core/execution/ObservableTransactionType.h"
#include "core/execution/ReplayTask.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace storage::overlayprovider {

struct QueuedTransaction {
  QueuedTransaction(std::function<void()> task, bool internal, double weight,
                    ObservableTransactionType type)
      : task(std::move(task)),
        internal(internal),
        weight(weight),
        type(type),
        enqueued(std::chrono::system_clock::now()) {}
  // A task that says what it changes: it is ordered only against changes that overlap it,
  // and may be absorbed by a later one (see ChangeAbsorber).
  explicit QueuedTransaction(ReplayTask replay)
      : QueuedTransaction({}, false, replay.weight, replay.change.kind) {
    scope = replay.change.scopeKeys();
    change = std::move(replay.change);
    run = std::move(replay.run);
    moot = std::move(replay.moot);
  }

  // The executor's own no-op entries: they wake the worker (shutdown) or mark a point in the
  // queue (waitForPendingToFinish). They weigh nothing and are never run.
  static QueuedTransaction marker() { return QueuedTransaction({}, true, 0.0, WAKEUP_FLUSH); }

  // What the worker runs: `task` for an entry queued without a ReplayChange, `run` (given the
  // change) for one with, or, when a later change made it moot, `moot`; then, either way, the
  // local halves of the changes it absorbed, in queue order.
  std::function<void()> task;
  std::function<void(const ReplayChange&)> run;
  std::function<void()> moot;
  std::vector<std::function<void()>> absorbedMoot;
  bool isMoot = false;
  bool internal;
  double weight;
  // What the queue added to its waiting weight for this entry (0 when it was pushed with no
  // bound): the take or discard gives back exactly this, whatever the bound is by then.
  double accountedWeight = 0.0;
  ObservableTransactionType type;
  // What the task changes, when its submitter said so; without it the entry is a barrier
  // (see ReplayOrder).
  std::optional<ReplayChange> change;
  // The change's scope keys, worked out once at submission; empty for a barrier.
  std::vector<std::u16string> scope;
  // Given by the queue when the entry joins it, increasing in queue order.
  std::uint64_t serial = 0;
  // When the entry was built; its queue time is measured from here.
  std::chrono::system_clock::time_point enqueued;
};

}  // namespace storage::overlayprovider
