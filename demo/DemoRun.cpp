#include "DemoRun.h"

#include "StoreContents.h"
#include "Workload.h"

#include <foundation/storage/provider/extensions/IFlushableFilesystem.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

#include <iostream>
#include <stdexcept>

namespace overlaydemo {

namespace fsp = foundation::storage::provider;
using fsp::instrumented::InstrumentedProvider;
using fsp::mem::MemProvider;

namespace {

struct SlowStore {
  std::shared_ptr<MemProvider> mem = std::make_shared<MemProvider>();
  std::shared_ptr<InstrumentedProvider> slow = std::make_shared<InstrumentedProvider>(mem);

  explicit SlowStore(std::chrono::microseconds latency) {
    slow->setCallLatency(latency);
    slow->setStreamLatency(latency);
  }
  ~SlowStore() {
    try {
      mem->shutdown();
    } catch (const std::exception& e) {
      std::cerr << "the in-memory store did not shut down: " << e.what() << "\n";
    } catch (...) {
      std::cerr << "the in-memory store did not shut down\n";
    }
  }
  fsp::StorageItem root() const { return fsp::StorageItem(slow, MemProvider::rootLocation()); }
};

// Runs the workload on `root`, then `drain` (timed), then compares the raw in-memory store
// with what the workload wrote.
void runAndCheck(const fsp::StorageItem& root, const SlowStore& store, RunResult& result,
                 const std::function<void()>& drain) {
  Workload workload(root, result.timings);
  workload.run();
  result.innerTotalWhenCallerDone = store.slow->totalCalls();
  const auto started = std::chrono::steady_clock::now();
  drain();
  result.drain = std::chrono::steady_clock::now() - started;
  result.innerCalls = store.slow->instrumentation().counters.snapshot();
  result.innerTotal = store.slow->totalCalls();
  result.problems = workload.problems();
  const auto found = differences(
      workload.expected(), readTree(fsp::StorageItem(store.mem, MemProvider::rootLocation())));
  result.problems.insert(result.problems.end(), found.begin(), found.end());
}

}  // namespace

RunResult runDirect(std::chrono::microseconds latency) {
  SlowStore store(latency);
  RunResult result;
  runAndCheck(store.root(), store, result, [] {});
  return result;
}

RunResult runThroughOverlay(const fsp::ProviderRegistry& registry,
                            std::chrono::microseconds latency) {
  SlowStore store(latency);
  RunResult result;
  const fsp::StorageItem overlay = registry.open(u"overlay", store.root());
  auto* flushable =
      dynamic_cast<fsp::extensions::IFlushableFilesystem*>(overlay.getProvider().get());
  if (flushable == nullptr) throw std::runtime_error("the overlay provider cannot be flushed");
  runAndCheck(overlay, store, result, [&] { flushable->flushFilesystem(); });
  overlay.shutdownProvider();
  return result;
}

}  // namespace overlaydemo
