// What the journal costs the caller, and how fast a provider comes back with what a crash left.
//
//   caller   the time of a file creation, a rename, a removal and a 4 KiB write (open,
//            write, close) through the overlay over a store 10 ms away, with the journal and
//            without, in rounds that alternate the two (so that the disk's drift hits both), as
//            the median round's mean; the ratio with/without. The cache root is on a RAM file
//            system (/dev/shm) unless OVERLAY_BENCH_CACHE_DIR names another folder. The store never
//            catches up during the timing (10 ms a call, no queue bound): what is timed is the
//            caller's cost only.
//   recovery 10,000 changes left pending (created files with 4 KiB written, renamed, some
//            removed) by a provider that is shut down without a flush, then the time a new
//            provider over the same root takes to answer its first call.
#include "BenchmarkSupport.h"
#include "core/provider/OverlayProvider.h"

#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

#include <boost/property_tree/json_parser.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace fsp = foundation::storage::provider;
using storage::overlayprovider::OverlayProvider;

namespace {

using Clock = std::chrono::steady_clock;
using benchsupport::format;
using benchsupport::seconds;

constexpr int kRounds = 20;
constexpr int kPerRound = 100;
constexpr int kPendingForRecovery = 10000;

std::shared_ptr<fsp::instrumented::InstrumentedProvider> slowStore() {
  auto store = std::make_shared<fsp::instrumented::InstrumentedProvider>(
      std::make_shared<fsp::mem::MemProvider>());
  store->setCallLatency(std::chrono::milliseconds(10));
  store->setStreamLatency(std::chrono::milliseconds(10));
  return store;
}

std::shared_ptr<OverlayProvider> overlayOver(
    const std::shared_ptr<fsp::instrumented::InstrumentedProvider>& store,
    const std::string& cacheRoot, bool journal) {
  auto overlay = std::make_shared<OverlayProvider>(
      fsp::StorageItem(store, fsp::mem::MemProvider::rootLocation()));
  boost::property_tree::ptree config;
  config.put("overlay.cacheRoot", cacheRoot);
  config.put("overlay.maxQueueWeight", "0");
  config.put("overlay.replayWorkers", "8");
  config.put("overlay.absorbChanges",
             std::getenv("OVERLAY_BENCH_ABSORB") ? std::getenv("OVERLAY_BENCH_ABSORB") : "true");
  if (journal) {
    config.put("overlay.persistContentCache", "true");
    config.put("overlay.journal", "true");
  }
  overlay->configure(config);
  overlay->folderExists(fsp::StorageIRI(u"overlay", u"/"));
  return overlay;
}

fsp::StorageIRI at(const std::string& path) {
  return fsp::StorageIRI(u"overlay", std::u16string(path.begin(), path.end()));
}

void write4k(const OverlayProvider& overlay, const std::string& path) {
  static const std::string bytes(4096, 'x');
  auto stream = overlay.openStream(at(path), fsp::ByteStreamOpenOptions::readWrite());
  stream->write(bytes.data(), static_cast<long>(bytes.size()));
  stream->close();
}

struct Kind {
  const char* name;
  std::function<void(const OverlayProvider&, const std::string& name)> run;
};

const Kind kKinds[] = {
    {"creation", [](const auto& o, const auto& n) { o.createFile(at("/" + n)); }},
    {"4 KiB write", [](const auto& o, const auto& n) { write4k(o, "/" + n); }},
    {"rename",
     [](const auto& o, const auto& n) {
       o.moveFile(at("/" + n), at("/r" + n), fsp::ReplacementPolicy::Fail);
     }},
    {"removal", [](const auto& o, const auto& n) { o.removeFile(at("/r" + n)); }},
};

// Each kind's mean seconds per call in one round, appended to that kind's list.
using RoundMeans = std::vector<std::vector<double>>;
void timeRound(const OverlayProvider& overlay, int round, RoundMeans& means) {
  for (std::size_t kind = 0; kind < std::size(kKinds); ++kind) {
    const auto start = Clock::now();
    for (int i = 0; i < kPerRound; ++i) kKinds[kind].run(overlay, format("f%d-%d", round, i));
    means[kind].push_back(seconds(Clock::now() - start) / kPerRound);
  }
}

// The median round: this machine's other work (and the store's replay on the same two cores)
// now and then stalls a whole round, which would move a mean by a third.
double medianMicros(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2] * 1e6;
}

// The best round: what a call costs when nothing else on the machine gets in its way.
double bestMicros(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end()) * 1e6;
}

void callerCost() {
  const auto store = slowStore();
  const auto plainStore = slowStore();
  benchsupport::TempDir withRoot("journal-on");
  benchsupport::TempDir withoutRoot("journal-off");
  const auto with = overlayOver(store, withRoot.path(), true);
  const auto without = overlayOver(plainStore, withoutRoot.path(), false);
  RoundMeans withMeans(std::size(kKinds)), withoutMeans(std::size(kKinds));
  for (int round = 0; round < kRounds; ++round) {
    timeRound(*without, round, withoutMeans);
    timeRound(*with, round, withMeans);
  }
  std::cout << "caller's cost, median (and best) of " << kRounds << " rounds of " << kPerRound
            << " each (store 10 ms away, nothing drained):\n";
  for (std::size_t kind = 0; kind < std::size(kKinds); ++kind) {
    const double on = medianMicros(withMeans[kind]), off = medianMicros(withoutMeans[kind]);
    const double bestOn = bestMicros(withMeans[kind]), bestOff = bestMicros(withoutMeans[kind]);
    std::cout << format(
        "  %-12s with the journal %6.1f us (%5.1f), without %6.1f us (%5.1f): %.2fx\n",
        kKinds[kind].name, on, bestOn, off, bestOff, on / off);
  }
  with->shutdown();
  without->shutdown();
}

long pendingIn(OverlayProvider& overlay) {
  boost::property_tree::ptree statistics;
  std::istringstream text(overlay.queueStatistics());
  boost::property_tree::read_json(text, statistics);
  return statistics.get<long>("journal.pending", 0);
}

void recovery() {
  benchsupport::TempDir root("journal-recovery");
  const auto store = slowStore();
  {
    const auto overlay = overlayOver(store, root.path(), true);
    overlay->createFolder(at("/p"));
    // Four records a file (creation, open, write, close); the store takes some meanwhile.
    for (int i = 0; pendingIn(*overlay) < kPendingForRecovery; ++i) {
      const auto name = format("/p/f%d", i);
      overlay->createFile(at(name));
      write4k(*overlay, name);
    }
    overlay->shutdown();  // no flush: what is queued stays in the journal
  }
  const auto start = Clock::now();
  const auto overlay = overlayOver(store, root.path(), true);
  const double took = seconds(Clock::now() - start);
  boost::property_tree::ptree statistics;
  std::istringstream text(overlay->queueStatistics());
  boost::property_tree::read_json(text, statistics);
  std::cout << format("recovery: %s pending changes re-applied, first answer after %.2f s\n",
                      statistics.get<std::string>("journal.recovered", "?").c_str(), took);
  overlay->shutdown();
}

}  // namespace

int main() {
  try {
    const char* base = std::getenv("OVERLAY_BENCH_CACHE_DIR");
    const std::string cacheBase = base != nullptr ? base : "/dev/shm";
    ::setenv("TMPDIR", cacheBase.c_str(), 1);
    std::cout << "cache roots below " << cacheBase << "\n";
    callerCost();
    recovery();
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "overlay_journal_benchmark: " << e.what() << "\n";
    return 1;
  }
}
