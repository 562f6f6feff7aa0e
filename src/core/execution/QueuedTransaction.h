// QueuedTransaction: one entry of the BackendExecutor's queue: the task to replay on the inner
// store and what the queue needs to account for it.
//
// Built by the submitting thread, moved into the WeightedTransactionQueue and moved out again
// by the worker, which owns it while it runs. Not shared between threads.
#pragma once

#include "core/execution/ObservableTransactionType.h"

#include <chrono>
#include <functional>
#include <utility>

namespace storage::overlayprovider {

struct QueuedTransaction {
  QueuedTransaction(std::function<void()> task, bool internal, double weight,
                    ObservableTransactionType type)
      : task(std::move(task)),
        internal(internal),
        weight(weight),
        type(type),
        enqueued(std::chrono::system_clock::now()) {}

  // The executor's own no-op entries: they wake the worker (shutdown) or mark a point in the
  // queue (waitForPendingToFinish). They weigh nothing and are never run.
  static QueuedTransaction marker() { return QueuedTransaction({}, true, 0.0, WAKEUP_FLUSH); }

  std::function<void()> task;
  bool internal;
  double weight;
  // What the queue added to its waiting weight for this entry (0 when it was pushed with no
  // bound): the take or discard gives back exactly this, whatever the bound is by then.
  double accountedWeight = 0.0;
  ObservableTransactionType type;
  // When the entry was built; its queue time is measured from here.
  std::chrono::system_clock::time_point enqueued;
};

}  // namespace storage::overlayprovider
