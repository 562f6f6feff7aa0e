// What a trigger of the provider's event latch costs. The provider triggers it on every
// mutation and working-file write, so a trigger must cost far less than a small-file create:
// it only moves the deadline of the countdown already running. For comparison, in the same
// run: starting and joining a thread, which is what each trigger once cost.
//
//   ./timed_latch_benchmark     (Google Benchmark)
#include "core/execution/TimedLatch.h"

#include <benchmark/benchmark.h>

#include <thread>

namespace {

using storage::overlayprovider::TimedLatch;

void TriggerWhileCountdownRuns(benchmark::State& state) {
  TimedLatch latch([] {}, [] {}, 3000);
  latch.trigger();  // starts the countdown (and its thread) outside the measured loop
  for (auto _ : state) latch.trigger();
  latch.close();
}

void StartAndJoinThread(benchmark::State& state) {
  for (auto _ : state) std::thread([] {}).join();
}

BENCHMARK(TriggerWhileCountdownRuns)->Unit(benchmark::kNanosecond);
BENCHMARK(StartAndJoinThread)->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();
