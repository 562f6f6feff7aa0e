// What one large folder costs the metadata cache on a case-insensitive store: adding n
// records to one folder entry and looking names up in it under another spelling. Each name is
// lower-cased once, when it enters the folder's index, so both stay near n log n.
//
//   ./folder_entry_benchmark     (Google Benchmark; n = 10,000 and 100,000)
#include "core/metadata/FileMetadata.h"
#include "core/metadata/IFolderEntry.h"

#include <foundation/text/Unicode.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using storage::overlayprovider::FileMetadata;
using storage::overlayprovider::IFolderEntry;
namespace fsp = foundation::storage::provider;

fsp::StorageIRI child(int i, bool upper) {
  const std::u16string name =
      (upper ? u"File-" : u"file-") + foundation::text::toUtf16(std::to_string(i)) + u".TXT";
  return fsp::StorageIRI(u"overlay", u"/big/" + name);
}

std::unique_ptr<IFolderEntry> filled(int n) {
  auto entry = std::make_unique<IFolderEntry>(fsp::StorageIRI(u"overlay", u"/big"));
  for (int i = 0; i < n; ++i) {
    entry->addFile(std::make_shared<FileMetadata>(child(i, false), false), false);
  }
  return entry;
}

void AddRecordsToOneFolder(benchmark::State& state) {
  const auto n = static_cast<int>(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(filled(n));
  state.SetItemsProcessed(state.iterations() * n);
}

void LookUpUnderAnotherSpelling(benchmark::State& state) {
  const auto n = static_cast<int>(state.range(0));
  const auto entry = filled(n);
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(entry->getFileMetadata(child(i, true), false));
    i = (i + 7919) % n;
  }
}

BENCHMARK(AddRecordsToOneFolder)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(LookUpUnderAnotherSpelling)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
