// ReplayTask: one change to replay on the inner store, as its submitter hands it to an
// executor: what it changes (data), how to carry it out, and what to do locally instead when a
// later change has made it moot.
//
// `run` receives the change as the executor holds it when the task starts; an executor that
// merges changes may have added to it (ReplayChange::kCreatesFile: a creation merged into this
// change, which must then create the file). `moot` is the local half of `run`: the
// confirmations and bookkeeping that `run` does after the store call, with no store call. An
// empty `moot` marks a task that must never be absorbed.
//
// A plain value, built by the submitting thread and moved into the executor; every function
// in it holds what it needs by shared ownership, since it runs later on a worker.
#pragma once

#include "core/execution/ReplayChange.h"

#include <functional>

namespace storage::overlayprovider {

struct ReplayTask {
  ReplayChange change;
  std::function<void(const ReplayChange&)> run;
  std::function<void()> moot;
  double weight = 0.0;
};

}  // namespace storage::overlayprovider
