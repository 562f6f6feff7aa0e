// What a cached query costs through the overlay, against the same query on the inner store:
// an in-memory store 10 ms away (a remote store) and the local file system.
//
//   ./overlay_queries_benchmark            all cases, then a table of ratios
//
// Each store holds one folder of 1,000 files. The overlay's cases run after one warm-up
// call, so they measure the cached path; the inner stores have no cache to warm.
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderFactory.h"

#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>
#include <foundation/text/Unicode.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>

namespace fsp = foundation::storage::provider;
using storage::overlayprovider::OverlayProviderFactory;

namespace {

constexpr int kFiles = 1000;
constexpr auto kRemoteLatency = std::chrono::milliseconds(10);

std::u16string fileName(int i) { return u"file" + foundation::text::toUtf16(std::to_string(i)); }

void fill(const fsp::StorageItem& root) {
  const fsp::StorageItem folder(root, u"/bench");
  folder.createFolder();
  for (int i = 0; i < kFiles; ++i) {
    auto stream = fsp::StorageItem(root, u"/bench/" + fileName(i))
                      .openStream(fsp::ByteStreamOpenOptions::overwrite());
    stream->write("payload", 7);
    stream->close();
  }
}

// The stores, made once for the whole run.
struct Stores {
  Stores() {
    auto mem = std::make_shared<fsp::mem::MemProvider>(fsp::mem::MemProvider::Options{});
    remote = std::make_shared<fsp::instrumented::InstrumentedProvider>(mem);
    remoteRoot.emplace(remote, fsp::mem::MemProvider::rootLocation());
    fill(*remoteRoot);
    remote->setCallLatency(kRemoteLatency);

    std::string pattern = (std::filesystem::temp_directory_path() / "overlay-bench-XXXXXX");
    directory = ::mkdtemp(pattern.data());
    localRoot.emplace(std::make_shared<fsp::file::FileProvider>(directory),
                      fsp::file::FileProvider::rootLocation());
    fill(*localRoot);

    overRemote.emplace(overlayOver(*remoteRoot));
    overLocal.emplace(overlayOver(*localRoot));
  }
  ~Stores() {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  }

  static fsp::StorageItem overlayOver(const fsp::StorageItem& inner) {
    OverlayProviderFactory factory;
    return fsp::StorageItem(factory.createProvider(inner), factory.getRootLocation(inner));
  }

  std::shared_ptr<fsp::instrumented::InstrumentedProvider> remote;
  std::optional<fsp::StorageItem> remoteRoot, localRoot, overRemote, overLocal;
  std::filesystem::path directory;
};

Stores& stores() {
  static Stores instance;
  return instance;
}

const fsp::StorageItem& storeNamed(int which) {
  auto& s = stores();
  switch (which) {
    case 0:
      return *s.remoteRoot;
    case 1:
      return *s.localRoot;
    case 2:
      return *s.overRemote;
    default:
      return *s.overLocal;
  }
}

const char* const kStoreNames[] = {"remote mem (10 ms)", "local file", "overlay over remote mem",
                                   "overlay over local file"};

void FileExists(benchmark::State& state) {
  const auto item = fsp::StorageItem(storeNamed(state.range(0)), u"/bench/file500");
  benchmark::DoNotOptimize(item.fileExists());  // warm-up: fills the overlay's cache
  for (auto _ : state) benchmark::DoNotOptimize(item.fileExists());
  state.SetLabel(kStoreNames[state.range(0)]);
}

void GetFileAttributes(benchmark::State& state) {
  const auto item = fsp::StorageItem(storeNamed(state.range(0)), u"/bench/file500");
  benchmark::DoNotOptimize(item.getFileAttributes());
  for (auto _ : state) benchmark::DoNotOptimize(item.getFileAttributes());
  state.SetLabel(kStoreNames[state.range(0)]);
}

void ListFolderOf1000(benchmark::State& state) {
  const auto folder = fsp::StorageItem(storeNamed(state.range(0)), u"/bench");
  auto count = [&] {
    auto it = folder.listAll();
    int rows = 0;
    while (it->hasNext()) {
      it->next();
      benchmark::DoNotOptimize(it->current());
      ++rows;
    }
    return rows;
  };
  if (count() != kFiles) state.SkipWithError("listing is incomplete");
  for (auto _ : state) benchmark::DoNotOptimize(count());
  state.SetLabel(kStoreNames[state.range(0)]);
}

BENCHMARK(FileExists)->DenseRange(0, 3)->Unit(benchmark::kMicrosecond);
BENCHMARK(GetFileAttributes)->DenseRange(0, 3)->Unit(benchmark::kMicrosecond);
BENCHMARK(ListFolderOf1000)->DenseRange(0, 3)->Unit(benchmark::kMicrosecond);

// Prints the usual console report, then how many times faster the overlay answers.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      const auto name = run.benchmark_name();
      const auto slash = name.find('/');
      times_[name.substr(0, slash)][std::stoi(name.substr(slash + 1))] =
          run.GetAdjustedRealTime() * 1e-3;  // reported in microseconds
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::cout
        << "\noperation               overlay cached   vs remote mem (10 ms)   vs local file\n";
    for (const auto& [operation, byStore] : times_) {
      if (byStore.size() < 4) continue;
      std::cout << std::left << std::setw(24) << operation << std::right << std::setw(10)
                << std::fixed << std::setprecision(3) << byStore.at(2) * 1e3 << " us"
                << std::setw(16) << std::setprecision(0) << byStore.at(0) / byStore.at(2)
                << "x faster" << std::setw(10) << std::setprecision(1)
                << byStore.at(1) / byStore.at(3) << "x faster\n";
    }
  }

 private:
  std::map<std::string, std::map<int, double>> times_;  // milliseconds
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
