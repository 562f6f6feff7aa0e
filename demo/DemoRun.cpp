#include "DemoRun.h"

#include "StoreContents.h"
#include "Workload.h"

#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

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
  ~SlowStore() { mem->shutdown(); }
  fsp::StorageItem root() const { return fsp::StorageItem(slow, MemProvider::rootLocation()); }
};

// Runs the workload on `root`, then compares the raw in-memory store with what it wrote.
void runAndCheck(const fsp::StorageItem& root, const SlowStore& store, RunResult& result,
                 const std::function<void()>& beforeCheck) {
  Workload workload(root, result.timings);
  workload.run();
  beforeCheck();
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
  foundation::log::LogCapture capture(foundation::log::notice | foundation::log::warning |
                                      foundation::log::error | foundation::log::exception);
  const fsp::StorageItem overlay = registry.open(u"overlay", store.root());
  auto* flushable =
      dynamic_cast<fsp::extensions::IFlushableFilesystem*>(overlay.getProvider().get());
  if (flushable == nullptr) throw std::runtime_error("the overlay provider cannot be flushed");
  runAndCheck(overlay, store, result,
              [&] { result.timings.time("flush", [&] { flushable->flushFilesystem(); }); });
  for (const auto& record : capture.matching("\"queueStats\"", foundation::log::notice)) {
    result.queueStats.push_back(record.message);
  }
  overlay.shutdownProvider();
  return result;
}

}  // namespace overlaydemo
