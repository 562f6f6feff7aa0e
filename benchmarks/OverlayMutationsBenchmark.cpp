// What file and folder changes cost the caller through the overlay over a store 10 ms away,
// each figure against the same work done on the store directly in the same run:
//
//   files    1,000 files created, written (4 KiB each) and closed in one folder: the caller's
//            files per second, and the drain time (from the first creation until a flush
//            returns). The store directly does the same for 50 files, and its time is scaled
//            to 1,000 (the whole run would take 1,000 x 4 calls x 10 ms, 40 s). The store's
//            calls of the overlay's run are counted. A second baseline creates, writes and
//            closes 1,000 plain files of the same size beside the overlay's content cache, in
//            rounds of 100 that alternate with the overlay's: every new file costs the overlay
//            one such body file, so the caller can go no faster than the cache's file system
//            creates files, and that speed drifts within a run.
//   changes  the caller's cost of one rename (moveFile), one removal (removeFile) and one
//            folder creation (createFolder), over 200 of each on the files of the first case,
//            the queue flushed before each batch: mean, median and slowest of the batch, and
//            the store calls from the batch's start until its flush returned; against the
//            mean of 20 of each on the store, and of 200 of the same on plain local files
//            (written with the first case's baseline), since the cache renames or deletes a
//            body file for each and this disk's cost for that varies from run to run.
//
// Before each case one lookup in the folder it changes is timed apart, with its store calls:
// when the overlay holds no listing of the folder (its first use, or marked stale by the
// store's events since) that lookup lists it, which the case's first change would otherwise
// pay on the caller's thread. The files case also states its rate with that lookup included.
//
// The store "10 ms away" is the in-memory store behind the instrumented wrapper, 10 ms per call
// and per stream call; the direct baselines use a second such store, so that the overlay's
// event listener does not answer their writes with calls of its own. The content cache lives
// in a fresh directory below the temporary directory (TMPDIR). After the run, every file's
// bytes and every change are checked in the stores themselves; a wrong result fails the exit
// status.
#include "BenchmarkSupport.h"
#include "core/provider/OverlayProviderFactory.h"

#include <foundation/storage/provider/IConfigurableProvider.h>
#include <foundation/storage/provider/StorageItem.h>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace fsp = foundation::storage::provider;
using fsp::instrumented::InstrumentedProvider;
using storage::overlayprovider::OverlayProviderFactory;

namespace {

using Clock = std::chrono::steady_clock;
using benchsupport::format;
using benchsupport::seconds;
using benchsupport::TempDir;

constexpr auto kRemoteLatency = std::chrono::milliseconds(10);
constexpr int kFiles = 1000;
constexpr int kFilesPerRound = 100;
constexpr int kDirectFiles = 50;
constexpr int kChanges = 200;
constexpr int kDirectChanges = 20;
constexpr std::size_t kFileBytes = 4096;
constexpr double kFilesPerSecondTarget = 10000;
constexpr double kChangeMicrosTarget = 50;

std::u16string wide(const std::string& text) { return {text.begin(), text.end()}; }

// The body of file `index`: its number repeated, so that a file with another's bytes shows.
std::string bodyOf(int index) {
  const auto word = format("%07d ", index);
  std::string body;
  while (body.size() < kFileBytes) body += word;
  body.resize(kFileBytes);
  return body;
}

std::string readAll(fsp::ByteStream& stream) {
  std::string bytes;
  char buffer[8192];
  for (long n; (n = stream.read(buffer, sizeof buffer)) > 0;) bytes.append(buffer, n);
  return bytes;
}

// The in-memory store behind the instrumented wrapper. Checks read the in-memory store itself,
// so they neither wait nor count.
struct Store {
  Store()
      : mem(std::make_shared<fsp::mem::MemProvider>()),
        remote(std::make_shared<InstrumentedProvider>(mem)) {}
  ~Store() { remote->shutdown(); }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  fsp::StorageItem root() const { return {remote, fsp::mem::MemProvider::rootLocation()}; }
  fsp::StorageItem inner(const std::string& path) const {
    return {fsp::StorageItem(mem, fsp::mem::MemProvider::rootLocation()), wide(path)};
  }
  std::string callsText() const {
    std::string text = std::to_string(remote->totalCalls()) + " (";
    const char* separator = "";
    for (const auto& [operation, count] : remote->instrumentation().counters.snapshot()) {
      text += separator + operation + " " + std::to_string(count);
      separator = ", ";
    }
    return text + ")";
  }

  std::shared_ptr<fsp::mem::MemProvider> mem;
  std::shared_ptr<InstrumentedProvider> remote;
};

std::string environmentOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : fallback;
}

// An overlay made by the factory over the store, initialised and its root listed before it is
// handed out, so that what is timed is the changes.
class Overlay {
 public:
  explicit Overlay(const fsp::StorageItem& inner) {
    OverlayProviderFactory factory;
    provider_ = factory.createProvider(inner);
    root_ = factory.getRootLocation(inner);
    auto* configurable = dynamic_cast<fsp::IConfigurableProvider*>(provider_.get());
    if (configurable == nullptr) throw std::runtime_error("the overlay cannot be configured");
    boost::property_tree::ptree config;
    config.put("overlay.cacheRoot", cacheRoot_.path());
    // The library's defaults unless asked: OVERLAY_BENCH_WORKERS=8 OVERLAY_BENCH_ABSORB=true
    // measure the replay as the mount configures it.
    config.put("overlay.replayWorkers", environmentOr("OVERLAY_BENCH_WORKERS", "1"));
    config.put("overlay.absorbChanges", environmentOr("OVERLAY_BENCH_ABSORB", "false"));
    // OVERLAY_BENCH_JOURNAL=true: every change recorded in a journal in the cache root first.
    if (environmentOr("OVERLAY_BENCH_JOURNAL", "false") == "true") {
      config.put("overlay.persistContentCache", "true");
      config.put("overlay.journal", "true");
    }
    configurable->configure(config);
    root().getFolderAttributes();
  }
  ~Overlay() {
    try {
      provider_->shutdown();
    } catch (const std::exception& e) {
      std::cerr << "overlay shutdown failed: " << e.what() << "\n";
    } catch (...) {
      std::cerr << "overlay shutdown failed\n";
    }
  }
  Overlay(const Overlay&) = delete;
  Overlay& operator=(const Overlay&) = delete;

  fsp::StorageItem root() const { return {provider_, root_}; }
  void flush() const {
    auto* flushable = dynamic_cast<fsp::extensions::IFlushableFilesystem*>(provider_.get());
    if (flushable == nullptr) throw std::runtime_error("the overlay cannot be flushed");
    flushable->flushFilesystem();
  }

 private:
  TempDir cacheRoot_{"overlay-mutations"};  // first member: removed after the provider is gone
  std::shared_ptr<fsp::IProvider> provider_;
  fsp::StorageIRI root_;
};

fsp::StorageItem at(const fsp::StorageItem& root, const std::string& path) {
  return {root, wide(path)};
}

// Files [first, first + count) of `folder`: created, opened, written and closed.
void writeFiles(const fsp::StorageItem& root, const std::string& folder, int first, int count) {
  for (int i = first; i < first + count; ++i) {
    const auto file = at(root, folder + "/f" + std::to_string(i));
    file.createFile();
    auto stream = file.openStream(fsp::ByteStreamOpenOptions::readWrite());
    const auto body = bodyOf(i);
    if (stream->write(body.data(), static_cast<long>(body.size())) !=
        static_cast<long>(kFileBytes)) {
      throw std::runtime_error("short stream write");
    }
    stream->close();
  }
}

// The three changes measured, each the i-th of its batch below `folder`: files f<first + i>
// are renamed to r<i> or removed; folders d<i> are made in <folder>-folders.
struct Change {
  const char* name;
  int firstFile;       // the batch's first file, for the file changes
  const char* suffix;  // of the folder changed: `folder` + suffix
  std::function<void(const fsp::StorageItem& root, const std::string& folder, int first, int i)>
      run;
};

const Change kChangeKinds[] = {
    {"rename (moveFile)", 0, "",
     [](const fsp::StorageItem& root, const std::string& folder, int first, int i) {
       at(root, folder + "/f" + std::to_string(first + i))
           .moveFile(at(root, folder + "/r" + std::to_string(i)).getLocation(),
                     fsp::ReplacementPolicy::Fail);
     }},
    {"removal (removeFile)", 1, "",
     [](const fsp::StorageItem& root, const std::string& folder, int first, int i) {
       at(root, folder + "/f" + std::to_string(first + i)).removeFile();
     }},
    {"folder creation", 2, "-folders",
     [](const fsp::StorageItem& root, const std::string& folder, int, int i) {
       at(root, folder + "-folders/d" + std::to_string(i)).createFolder();
     }},
};

// Seconds per change, in order, of `count` changes of `kind`; the files used are batch
// `firstFile` of `count` files.
std::vector<double> timeChanges(const Change& kind, const fsp::StorageItem& root,
                                const std::string& folder, int count) {
  const int first = kind.firstFile * count;
  std::vector<double> each;
  each.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    kind.run(root, folder, first, i);
    each.push_back(seconds(Clock::now() - start));
  }
  return each;
}

struct Spread {
  double mean, median, slowest;
};

Spread spreadOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  double sum = 0;
  for (const double v : values) sum += v;
  return {sum / static_cast<double>(values.size()), values[values.size() / 2], values.back()};
}

// Seconds of one lookup in `folder` through the overlay, printed with the store calls it made.
// It lists the folder when the overlay holds no listing of it: at its first use, or when the
// store's events have marked it stale since (the echoes of the overlay's own replays that
// arrive after the listener's quiet period do). A change in the folder would otherwise pay
// that listing, once, on the caller's thread; it is a lookup's cost and is reported apart.
double lookUpFirst(const Store& store, const fsp::StorageItem& root, const std::string& folder) {
  store.remote->resetCounters();
  const auto start = Clock::now();
  at(root, folder + "/none").fileExists();
  const double took = seconds(Clock::now() - start);
  std::cout << format("  first lookup in %s: %.1f ms, store calls: ", folder.c_str(), took * 1e3)
            << store.callsText() << "\n";
  return took;
}

// Plain files in a fresh directory beside the overlay's content cache: what the cache's file
// system costs at the moment of the run, for the same work that the cache does on its body
// files (a body is made for each new file, and renamed or deleted with it).
class LocalFiles {
 public:
  // Seconds to create, write (the same bodies) and close files [first, first + count).
  double write(int first, int count) const {
    const auto start = Clock::now();
    for (int i = first; i < first + count; ++i) {
      const auto path = name("f", i);
      const int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
      if (fd < 0) throw std::runtime_error("cannot create " + path);
      const auto body = bodyOf(i);
      const bool written =
          ::pwrite(fd, body.data(), body.size(), 0) == static_cast<ssize_t>(body.size());
      ::close(fd);
      if (!written) throw std::runtime_error("short write to " + path);
    }
    return seconds(Clock::now() - start);
  }
  // Mean seconds of the plain counterpart of `count` changes of the kind named by `firstFile`
  // (0 rename, 1 removal, 2 folder creation), on the files batch `firstFile` as in the overlay.
  double change(int firstFile, int count) const {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
      const auto file = name("f", firstFile * count + i);
      const bool done = firstFile == 0   ? ::rename(file.c_str(), name("r", i).c_str()) == 0
                        : firstFile == 1 ? ::unlink(file.c_str()) == 0
                                         : ::mkdir(name("d", i).c_str(), 0700) == 0;
      if (!done) throw std::runtime_error("plain change failed on " + file);
    }
    return seconds(Clock::now() - start) / count;
  }

 private:
  std::string name(const char* prefix, int i) const {
    return directory_.path() + "/" + prefix + std::to_string(i);
  }
  TempDir directory_{"overlay-mutations-local"};
};

// Throws naming the first thing the store holds wrongly after `count` changes of each kind on
// the `files` files of `folder`.
void checkStore(const Store& store, const std::string& folder, int files, int count) {
  const auto fail = [](const std::string& what) { throw std::runtime_error(what); };
  for (int i = 0; i < files; ++i) {
    const bool renamed = i < count, removed = i >= count && i < 2 * count;
    const auto name = folder + (renamed ? "/r" + std::to_string(i) : "/f" + std::to_string(i));
    const auto item = store.inner(name);
    if (removed) {
      if (item.fileExists()) fail(name + " was not removed");
      continue;
    }
    if (!item.fileExists()) fail(name + " is missing");
    auto stream = item.openReadOnlyStream();
    if (readAll(*stream) != bodyOf(i)) fail(name + " holds the wrong bytes");
    if (renamed && store.inner(folder + "/f" + std::to_string(i)).fileExists()) {
      fail(folder + "/f" + std::to_string(i) + " is still there after its rename");
    }
  }
  for (int i = 0; i < count; ++i) {
    const auto name = folder + "-folders/d" + std::to_string(i);
    if (!store.inner(name).folderExists()) fail(name + " is missing");
  }
}

struct Row {
  std::string measure, overlay, baseline, ratio, target, met;
};

void printTable(const std::vector<Row>& rows) {
  const char* line = "%-36s %-16s %-26s %-10s %-16s %s\n";
  std::cout << "\n" << format(line, "measure", "overlay", "baseline", "ratio", "target", "met");
  for (const auto& r : rows) {
    std::cout << format(line, r.measure.c_str(), r.overlay.c_str(), r.baseline.c_str(),
                        r.ratio.c_str(), r.target.c_str(), r.met.c_str());
  }
}

int run() {
  // The direct baselines run on a store of their own: the overlay listens to its store's events
  // and would answer the direct writes with store calls of its own.
  Store store, directStore;
  // The folders exist, and their events have been delivered, before the overlay first lists
  // the root.
  for (const auto* folder : {"/files", "/files-folders"}) store.inner(folder).createFolder();
  for (const auto* folder : {"/direct", "/direct-folders"})
    directStore.inner(folder).createFolder();
  store.mem->waitForEventsDelivered();
  Overlay overlay(store.root());
  for (const auto* slow : {&store, &directStore}) {
    slow->remote->setCallLatency(kRemoteLatency);
    slow->remote->setStreamLatency(kRemoteLatency);
  }
  std::vector<Row> rows;

  std::cout << "files: " << kFiles << " files of " << kFileBytes << " bytes in one folder\n"
            << std::flush;
  const double listing = lookUpFirst(store, overlay.root(), "/files");
  store.remote->resetCounters();
  // In rounds, each overlay round right after a plain round of the same size: this disk's
  // speed at creating files swings several-fold within minutes, and paired rounds see the same.
  const LocalFiles local;
  double caller = 0, localTime = 0;
  const auto start = Clock::now();
  for (int first = 0; first < kFiles; first += kFilesPerRound) {
    localTime += local.write(first, kFilesPerRound);
    const auto round = Clock::now();
    writeFiles(overlay.root(), "/files", first, kFilesPerRound);
    caller += seconds(Clock::now() - round);
  }
  const double callerRate = kFiles / caller;
  const double withListingRate = kFiles / (caller + listing);
  std::cout << format(
                   "  caller (through the overlay): %.3f s, %.0f files/s (%.0f with the first "
                   "lookup)\n",
                   caller, callerRate, withListingRate)
            << std::flush;
  overlay.flush();
  const double drain = seconds(Clock::now() - start) - localTime;
  const auto overlayCalls = store.callsText();
  const auto overlayCallCount = store.remote->totalCalls();

  auto directStart = Clock::now();
  writeFiles(directStore.root(), "/direct", 0, kDirectFiles);
  const double direct = seconds(Clock::now() - directStart) * kFiles / kDirectFiles;
  const auto directCallsPerFile =
      static_cast<double>(directStore.remote->totalCalls()) / kDirectFiles;
  const double localRate = kFiles / localTime;

  const double directRate = kFiles / direct;
  std::cout << format("  drain (until the flush returned): %.3f s\n", drain)
            << format("  store directly: %.3f s for %d files, %.3f s scaled to %d (%.0f files/s)\n",
                      direct * kDirectFiles / kFiles, kDirectFiles, direct, kFiles, directRate)
            << format(
                   "  plain local files beside the content cache (in rounds of %d, each just "
                   "before the overlay's): %.0f files/s\n",
                   kFilesPerRound, localRate)
            << "  store calls through the overlay: " << overlayCalls << "\n"
            << format("  store calls per file: overlay %.1f, directly %.1f\n",
                      static_cast<double>(overlayCallCount) / kFiles, directCallsPerFile);
  rows.push_back({format("%d files: caller", kFiles), format("%.0f files/s", callerRate),
                  format("%.0f files/s (scaled)", directRate),
                  format("%.1fx", callerRate / directRate),
                  format(">= %.0f files/s", kFilesPerSecondTarget),
                  callerRate >= kFilesPerSecondTarget ? "yes" : "no"});
  rows.push_back({"  same, against local files", "", format("%.0f files/s (local)", localRate),
                  format("%.2fx", callerRate / localRate), "", ""});
  rows.push_back({"  with the folder's first lookup", format("%.0f files/s", withListingRate), "",
                  "", "", ""});
  rows.push_back({format("%d files: drain", kFiles), format("%.2f s", drain),
                  format("%.2f s (scaled)", direct), format("%.2fx", drain / direct), "none", "-"});

  for (const auto& kind : kChangeKinds) {
    std::cout << "changes: " << kind.name << "\n" << std::flush;
    overlay.flush();
    lookUpFirst(store, overlay.root(), std::string("/files") + kind.suffix);
    store.remote->resetCounters();
    const auto through = spreadOf(timeChanges(kind, overlay.root(), "/files", kChanges));
    const auto drainStart = Clock::now();
    overlay.flush();
    const double drained = seconds(Clock::now() - drainStart);
    const auto calls = store.callsText();
    const double directly =
        spreadOf(timeChanges(kind, directStore.root(), "/direct", kDirectChanges)).mean;
    const double plain = local.change(kind.firstFile, kChanges);
    std::cout << format("  caller over %d: mean %.1f us, median %.1f us, slowest %.1f us\n",
                        kChanges, through.mean * 1e6, through.median * 1e6, through.slowest * 1e6)
              << format("  then drained in %.3f s; store calls: ", drained) << calls << "\n"
              << format("  store directly: %.2f ms each over %d\n", directly * 1e3, kDirectChanges)
              << format("  the same on plain local files: %.1f us each\n", plain * 1e6);
    rows.push_back({kind.name, format("%.1f us", through.mean * 1e6),
                    format("%.2f ms", directly * 1e3), format("%.4fx", through.mean / directly),
                    format("< %.0f us", kChangeMicrosTarget),
                    through.mean * 1e6 < kChangeMicrosTarget ? "yes" : "no"});
    rows.push_back({"  same, against local files", "", format("%.1f us (local)", plain * 1e6),
                    format("%.2fx", through.mean / plain), "", ""});
  }

  for (const auto* slow : {&store, &directStore}) {
    slow->remote->setCallLatency({});
    slow->remote->setStreamLatency({});
  }
  checkStore(store, "/files", kFiles, kChanges);
  checkStore(directStore, "/direct", kDirectFiles, kDirectChanges);
  std::cout << "check: the store holds every file's bytes and every change\n";
  printTable(rows);
  return 0;
}

}  // namespace

int main() {
  try {
    return run();
  } catch (const std::exception& e) {
    std::cout << "FAILED: " << e.what() << "\n";
  } catch (...) {
    std::cout << "FAILED: an unknown exception\n";
  }
  return 1;
}
