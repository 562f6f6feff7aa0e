// What reading and writing file bodies costs through the overlay, each figure against a
// baseline measured in the same run:
//
//   sequential-read  a 256 MiB file read in 1 MiB reads through an overlay whose cache was
//                    filled by a first full read, against read(2) of a local file in the page
//                    cache, 1 MiB at a time.
//   random-read      4 KiB reads at random offsets (seek + read) on an overlay stream of that
//                    warmed file, against pread(2) of 4 KiB on the local file.
//   cold-read        a 64 MiB file read in 1 MiB reads through a fresh overlay over a store
//                    10 ms away (call and stream latency), against reading it directly from
//                    that store in 4 MiB requests; the store's call counters of both.
//                    Median of three runs, each through a new overlay.
//   write            256 MiB written through the overlay in 128 KiB writes, then closed, then
//                    flushed, with an unbounded queue: the caller's time (open to close)
//                    against writing a local file the same way (no fsync), and the drain time
//                    (open to the flush's return) against writing the store directly in 4 MiB
//                    requests; the drain with the library's defaults and with writes merged
//                    as the mount has them (overlay.absorbChanges).
//   write-memory     the peak resident memory of the same write, in a child process of its
//                    own, with overlay.maxQueueWeight = 64 (64 MiB of queued writes); the
//                    caller then runs at the store's pace once the bound is reached.
//
//   ./overlay_bodies_benchmark               every case, then a table of ratios and targets
//   ./overlay_bodies_benchmark cold write    the cases whose names contain one of the words
//   ./overlay_bodies_benchmark --list        the case names
//
// The store "10 ms away" is the in-memory store behind the instrumented wrapper. The memory
// case puts a local directory behind the wrapper instead: an in-memory store keeps the whole
// file in this process, which would hide what the overlay itself holds.
//
// Every byte read is compared with what was written (a pattern derived from the offset),
// so a run is also a check that bodies survive the trip: untimed passes compare everything,
// timed ones the first word of each read. A mismatch fails the case and the exit status.
// Repeated measurements report their median.
#include "BenchmarkSupport.h"
#include "core/provider/OverlayProviderFactory.h"

#include <foundation/storage/provider/IConfigurableProvider.h>
#include <foundation/storage/provider/StorageItem.h>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.h>
#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
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

constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::uint64_t kSequentialBytes = 256 * kMiB;
constexpr std::uint64_t kColdBytes = 64 * kMiB;
constexpr std::uint64_t kWriteBytes = 256 * kMiB;
constexpr long kAppRequest = 1 << 20;  // what an application asks for at a time
// What a writer hands over at a time: 128 KiB is what the kernel passes to a FUSE file system
// per write and what cp(1) uses. (With 1 MiB writes, blocks hold 3 MiB: a block never grows to
// its full 4 MiB capacity, so the store sees a third more requests.)
constexpr long kAppWrite = 128 << 10;
constexpr long kStoreRequest = 4 << 20;  // what a client of the store itself would ask for
constexpr long kRandomRead = 4096;
constexpr auto kRemoteLatency = std::chrono::milliseconds(10);
constexpr int kQueueBoundMiB = 64;
// What the overlay may hold beyond its queue bound: thread stacks, its own buffers of a few
// MiB, allocator slack.
constexpr std::uint64_t kMemorySlack = 16 * kMiB;

const char* const kMemoryChildFlag = "--memory-child";
const char* const kResultPrefix = "@result ";

double mibPerSecond(std::uint64_t bytes, double s) { return static_cast<double>(bytes) / kMiB / s; }

// --- the bytes: each 8-byte word is a function of its offset and of the file's seed ---

std::uint64_t patternWord(std::uint64_t seed, std::uint64_t offset) {
  std::uint64_t z = seed ^ (offset * 0x9e3779b97f4a7c15ULL);  // splitmix64
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

void fillPattern(char* out, std::uint64_t bytes, std::uint64_t offset, std::uint64_t seed) {
  for (std::uint64_t i = 0; i < bytes; i += 8) {
    const std::uint64_t word = patternWord(seed, offset + i);
    std::memcpy(out + i, &word, 8);
  }
}

// Throws naming the first wrong word. Offsets and sizes are multiples of 8 throughout.
void checkPattern(const char* data, std::uint64_t bytes, std::uint64_t offset, std::uint64_t seed,
                  const std::string& what) {
  for (std::uint64_t i = 0; i < bytes; i += 8) {
    std::uint64_t word;
    std::memcpy(&word, data + i, 8);
    if (word != patternWord(seed, offset + i)) {
      throw std::runtime_error(what + ": wrong bytes at offset " + std::to_string(offset + i));
    }
  }
}

void checkFirstWord(const char* data, std::uint64_t offset, std::uint64_t seed,
                    const std::string& what) {
  checkPattern(data, 8, offset, seed, what);
}

// --- stream and file helpers ---

// Reads until `count` bytes or the end; returns the bytes read.
long readUpTo(fsp::ByteStream& stream, char* buffer, long count) {
  long total = 0;
  while (total < count) {
    const long got = stream.read(buffer + total, count - total);
    if (got <= 0) break;
    total += got;
  }
  return total;
}

void readExactly(fsp::ByteStream& stream, char* buffer, long count, const std::string& what) {
  if (readUpTo(stream, buffer, count) != count) throw std::runtime_error(what + ": file too short");
}

void writeExactly(fsp::ByteStream& stream, const char* buffer, long count) {
  if (stream.write(buffer, count) != count) throw std::runtime_error("short stream write");
}

class Fd {
 public:
  Fd(const std::string& path, int flags) : fd_(::open(path.c_str(), flags, 0644)) {
    if (fd_ < 0) throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
  }
  ~Fd() { ::close(fd_); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

void posixReadExactly(int fd, char* buffer, std::uint64_t count) {
  std::uint64_t total = 0;
  while (total < count) {
    const ssize_t got = ::read(fd, buffer + total, count - total);
    if (got <= 0) throw std::runtime_error("local file: short read");
    total += static_cast<std::uint64_t>(got);
  }
}

void posixWriteExactly(int fd, const char* buffer, std::uint64_t count) {
  std::uint64_t total = 0;
  while (total < count) {
    const ssize_t put = ::write(fd, buffer + total, count - total);
    if (put <= 0) throw std::runtime_error("local file: short write");
    total += static_cast<std::uint64_t>(put);
  }
}

// Writes `bytes` pattern bytes to a local file through the page cache.
void writeLocalFile(const std::string& path, std::uint64_t bytes, std::uint64_t seed) {
  std::vector<char> chunk(kAppRequest);
  Fd fd(path, O_WRONLY | O_CREAT | O_TRUNC);
  for (std::uint64_t offset = 0; offset < bytes; offset += kAppRequest) {
    fillPattern(chunk.data(), kAppRequest, offset, seed);
    posixWriteExactly(fd.get(), chunk.data(), kAppRequest);
  }
}

void checkLocalFile(const std::string& path, std::uint64_t bytes, std::uint64_t seed) {
  if (std::filesystem::file_size(path) != bytes) throw std::runtime_error(path + ": wrong size");
  std::vector<char> chunk(kAppRequest);
  Fd fd(path, O_RDONLY);
  for (std::uint64_t offset = 0; offset < bytes; offset += kAppRequest) {
    posixReadExactly(fd.get(), chunk.data(), kAppRequest);
    checkPattern(chunk.data(), kAppRequest, offset, seed, path);
  }
}

// --- resident memory ---

std::uint64_t statusKiB(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field + ":", 0) == 0) return std::stoull(line.substr(field.size() + 1));
  }
  throw std::runtime_error("no " + field + " in /proc/self/status");
}

// Lowers the high-water mark (VmHWM) to the current resident size.
void resetPeakResident() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  clear.flush();
  if (!clear) throw std::runtime_error("cannot reset the peak resident size");
}

// --- the store 10 ms away and the overlay over it ---

// An inner provider behind the instrumented wrapper. Bytes are put and checked on the inner
// provider itself, so neither costs latency nor shows in the wrapper's counters.
class InstrumentedStore {
 public:
  InstrumentedStore(std::shared_ptr<fsp::IProvider> inner, fsp::StorageIRI rootLocation)
      : inner_(std::move(inner)),
        remote_(std::make_shared<InstrumentedProvider>(inner_)),
        rootLocation_(std::move(rootLocation)) {}
  ~InstrumentedStore() { remote_->shutdown(); }
  InstrumentedStore(const InstrumentedStore&) = delete;
  InstrumentedStore& operator=(const InstrumentedStore&) = delete;

  void setLatency(std::chrono::microseconds latency) {
    remote_->setCallLatency(latency);
    remote_->setStreamLatency(latency);
  }
  InstrumentedProvider& remote() const { return *remote_; }
  fsp::StorageItem root() const { return fsp::StorageItem(remote_, rootLocation_); }
  fsp::StorageItem innerItem(const std::u16string& path) const {
    return fsp::StorageItem(fsp::StorageItem(inner_, rootLocation_), path);
  }

  void put(const std::u16string& path, std::uint64_t bytes, std::uint64_t seed) const {
    std::vector<char> chunk(kStoreRequest);
    auto stream = innerItem(path).openStream(fsp::ByteStreamOpenOptions::overwrite());
    for (std::uint64_t offset = 0; offset < bytes; offset += kStoreRequest) {
      fillPattern(chunk.data(), kStoreRequest, offset, seed);
      writeExactly(*stream, chunk.data(), kStoreRequest);
    }
    stream->close();
  }

  void check(const std::u16string& path, std::uint64_t bytes, std::uint64_t seed) const {
    const auto item = innerItem(path);
    if (item.getFileAttributes().getSize() != bytes) {
      throw std::runtime_error("the store's copy has the wrong size");
    }
    std::vector<char> chunk(kStoreRequest);
    auto stream = item.openReadOnlyStream();
    for (std::uint64_t offset = 0; offset < bytes; offset += kStoreRequest) {
      readExactly(*stream, chunk.data(), kStoreRequest, "the store's copy");
      checkPattern(chunk.data(), kStoreRequest, offset, seed, "the store's copy");
    }
    stream->close();
  }

  std::string callsText() const {
    std::string text = std::to_string(remote_->totalCalls()) + " (";
    const char* separator = "";
    for (const auto& [operation, count] : remote_->instrumentation().counters.snapshot()) {
      text += separator + operation + " " + std::to_string(count);
      separator = ", ";
    }
    return text + ")";
  }

 private:
  std::shared_ptr<fsp::IProvider> inner_;
  std::shared_ptr<InstrumentedProvider> remote_;
  fsp::StorageIRI rootLocation_;
};

struct MemStore : InstrumentedStore {
  MemStore()
      : InstrumentedStore(std::make_shared<fsp::mem::MemProvider>(),
                          fsp::mem::MemProvider::rootLocation()) {}
};

// An overlay made by the factory over `inner`, with a cache root of its own (removed with it)
// and the given settings. Initialised, and the tree listed, before it is handed out, so that
// what the cases time is the bodies.
class Overlay {
 public:
  Overlay(const fsp::StorageItem& inner, const std::map<std::string, std::string>& settings = {}) {
    OverlayProviderFactory factory;
    provider_ = factory.createProvider(inner);
    root_ = factory.getRootLocation(inner);
    auto* configurable = dynamic_cast<fsp::IConfigurableProvider*>(provider_.get());
    if (configurable == nullptr) throw std::runtime_error("the overlay cannot be configured");
    boost::property_tree::ptree config;
    config.put("overlay.cacheRoot", cacheRoot_.path());
    for (const auto& [key, value] : settings) config.put(key, value);
    configurable->configure(config);
    item(u"/").getFolderAttributes();
  }
  ~Overlay() {
    try {
      provider_->shutdown();
    } catch (const std::exception& e) {
      std::cerr << "overlay shutdown failed: " << e.what() << "\n";
    }
  }
  Overlay(const Overlay&) = delete;
  Overlay& operator=(const Overlay&) = delete;

  fsp::StorageItem item(const std::u16string& path) const {
    return fsp::StorageItem(fsp::StorageItem(provider_, root_), path);
  }
  void flush() const {
    auto* flushable = dynamic_cast<fsp::extensions::IFlushableFilesystem*>(provider_.get());
    if (flushable == nullptr) throw std::runtime_error("the overlay cannot be flushed");
    flushable->flushFilesystem();
  }

 private:
  TempDir cacheRoot_{"overlay-bodies"};  // first member: removed after the provider is gone
  std::shared_ptr<fsp::IProvider> provider_;
  fsp::StorageIRI root_;
};

// --- measuring ---

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const auto n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// The median duration of `run` in seconds: at least 3 runs, more (up to 30) while the runs so
// far took less than `budget`. A pass over a cached file takes milliseconds, and single
// passes vary by tens of percent.
double medianSeconds(const std::function<void()>& run, double budget = 2.0) {
  std::vector<double> times;
  double spent = 0;
  while (times.size() < 3 || (times.size() < 30 && spent < budget)) {
    const auto start = Clock::now();
    run();
    times.push_back(seconds(Clock::now() - start));
    spent += times.back();
  }
  return median(times);
}

struct SummaryRow {
  std::string measure, overlay, baseline, ratio, target;
  bool met;
};

class Summary {
 public:
  void add(SummaryRow row) { rows_.push_back(std::move(row)); }
  void print() const {
    if (rows_.empty()) return;
    std::cout << "\n";
    const char* header = "%-26s %-22s %-22s %-10s %-16s %s\n";
    std::cout << format(header, "measure", "overlay", "baseline", "ratio", "target", "met");
    for (const auto& r : rows_) {
      std::cout << format(header, r.measure.c_str(), r.overlay.c_str(), r.baseline.c_str(),
                          r.ratio.c_str(), r.target.c_str(), r.met ? "yes" : "no");
    }
  }

 private:
  std::vector<SummaryRow> rows_;
};

// --- the warmed 256 MiB file shared by the two cached cases ---

constexpr std::uint64_t kSequentialSeed = 1;
const std::u16string kSequentialPath = u"/sequential.bin";

void readWholeThroughOverlay(const Overlay& overlay, std::vector<char>& buffer, bool fullCheck) {
  auto stream = overlay.item(kSequentialPath).openReadOnlyStream();
  for (std::uint64_t offset = 0; offset < kSequentialBytes; offset += kAppRequest) {
    readExactly(*stream, buffer.data(), kAppRequest, "overlay read");
    if (fullCheck) {
      checkPattern(buffer.data(), kAppRequest, offset, kSequentialSeed, "overlay read");
    } else {
      checkFirstWord(buffer.data(), offset, kSequentialSeed, "overlay read");
    }
  }
  stream->close();
}

struct WarmedFile {
  WarmedFile() : localPath(localDir.path() + "/sequential.bin") {
    store.put(kSequentialPath, kSequentialBytes, kSequentialSeed);
    store.setLatency(kRemoteLatency);
    overlay.emplace(store.root());
    std::vector<char> buffer(kAppRequest);
    auto start = Clock::now();
    readWholeThroughOverlay(*overlay, buffer, true);
    std::cout << format("  first read through the overlay (fills its cache): %.2f s\n",
                        seconds(Clock::now() - start));
    start = Clock::now();
    readWholeThroughOverlay(*overlay, buffer, true);
    std::cout << format("  second read, every byte checked: %.2f s\n",
                        seconds(Clock::now() - start));
    writeLocalFile(localPath, kSequentialBytes, kSequentialSeed);
    checkLocalFile(localPath, kSequentialBytes, kSequentialSeed);  // also loads the page cache
  }

  MemStore store;
  std::optional<Overlay> overlay;  // made once the store holds the file
  TempDir localDir{"overlay-bodies"};
  std::string localPath;
};

struct Context {
  Summary summary;
  std::optional<WarmedFile> warmed;

  WarmedFile& warmedFile() {
    if (!warmed) {
      std::cout << "  preparing the 256 MiB file (store 10 ms away, overlay, local copy)\n";
      warmed.emplace();
    }
    return *warmed;
  }
};

// --- the cases ---

void sequentialRead(Context& context) {
  auto& file = context.warmedFile();
  std::vector<char> buffer(kAppRequest);
  const double overlaySeconds =
      medianSeconds([&] { readWholeThroughOverlay(*file.overlay, buffer, false); });
  const double localSeconds = medianSeconds([&] {
    Fd fd(file.localPath, O_RDONLY);
    for (std::uint64_t offset = 0; offset < kSequentialBytes; offset += kAppRequest) {
      posixReadExactly(fd.get(), buffer.data(), kAppRequest);
      checkFirstWord(buffer.data(), offset, kSequentialSeed, "local read");
    }
  });
  const double overlayRate = mibPerSecond(kSequentialBytes, overlaySeconds);
  const double localRate = mibPerSecond(kSequentialBytes, localSeconds);
  std::cout << format("  overlay (cached): %.0f MiB/s   local file: %.0f MiB/s   ratio %.1f %%\n",
                      overlayRate, localRate, 100 * overlayRate / localRate);
  context.summary.add({"cached sequential read", format("%.0f MiB/s", overlayRate),
                       format("%.0f MiB/s", localRate),
                       format("%.1f %%", 100 * overlayRate / localRate), ">= 80 %",
                       overlayRate >= 0.8 * localRate});
}

// The mean cost of one read in microseconds, over rounds of about `roundSeconds` each (median
// of 3 rounds). `readAt(i)` makes the i-th read.
double microsecondsPerRead(std::size_t available, double roundSeconds,
                           const std::function<void(std::size_t)>& readAt) {
  std::vector<double> perRead;
  std::size_t next = 0;
  for (int round = 0; round < 3; ++round) {
    std::size_t reads = 0;
    const auto start = Clock::now();
    double elapsed = 0;
    while (elapsed < roundSeconds) {
      for (int i = 0; i < 16; ++i, ++reads) readAt(next++ % available);
      elapsed = seconds(Clock::now() - start);
    }
    perRead.push_back(elapsed * 1e6 / static_cast<double>(reads));
  }
  return median(perRead);
}

void randomRead(Context& context) {
  auto& file = context.warmedFile();
  std::mt19937_64 random(42);
  std::uniform_int_distribution<std::uint64_t> block(0, kSequentialBytes / kRandomRead - 1);
  std::vector<std::uint64_t> offsets(1 << 18);
  for (auto& offset : offsets) offset = block(random) * kRandomRead;
  std::vector<char> buffer(kRandomRead);

  auto stream = file.overlay->item(kSequentialPath).openReadOnlyStream();
  auto overlayRead = [&](std::size_t i) {
    if (stream->seek(static_cast<long>(offsets[i]), std::ios_base::beg) !=
        static_cast<long>(offsets[i])) {
      throw std::runtime_error("overlay seek landed elsewhere");
    }
    readExactly(*stream, buffer.data(), kRandomRead, "overlay random read");
  };
  for (std::size_t i = 0; i < 64; ++i) {  // untimed, every byte checked
    overlayRead(i);
    checkPattern(buffer.data(), kRandomRead, offsets[i], kSequentialSeed, "overlay random read");
  }
  const double overlayMicros = microsecondsPerRead(offsets.size(), 0.5, [&](std::size_t i) {
    overlayRead(i);
    checkFirstWord(buffer.data(), offsets[i], kSequentialSeed, "overlay random read");
  });
  stream->close();

  Fd fd(file.localPath, O_RDONLY);
  auto localRead = [&](std::size_t i) {
    if (::pread(fd.get(), buffer.data(), kRandomRead, static_cast<off_t>(offsets[i])) !=
        kRandomRead) {
      throw std::runtime_error("local pread: short read");
    }
  };
  for (std::size_t i = 0; i < 64; ++i) {
    localRead(i);
    checkPattern(buffer.data(), kRandomRead, offsets[i], kSequentialSeed, "local pread");
  }
  const double localMicros = microsecondsPerRead(offsets.size(), 0.5, [&](std::size_t i) {
    localRead(i);
    checkFirstWord(buffer.data(), offsets[i], kSequentialSeed, "local pread");
  });

  std::cout << format("  overlay stream (seek + read): %.2f us/read   pread: %.2f us/read\n",
                      overlayMicros, localMicros);
  context.summary.add({"cached random 4 KiB read", format("%.2f us", overlayMicros),
                       format("%.2f us", localMicros), format("%.1fx", overlayMicros / localMicros),
                       "< 5 us", overlayMicros < 5.0});
}

struct ColdRun {
  double seconds;
  std::uint64_t calls;
  std::string callsText;
};

// One timed read of the whole cold file by `read` into `destination`, checked afterwards. The
// store calls are those counted when the reader's close returned.
ColdRun timeColdRead(const InstrumentedStore& store, std::vector<char>& destination,
                     std::uint64_t seed, const std::string& what,
                     const std::function<void()>& read) {
  std::fill(destination.begin(), destination.end(), 0);
  store.remote().resetCounters();
  const auto start = Clock::now();
  read();
  ColdRun run{seconds(Clock::now() - start), store.remote().totalCalls(), store.callsText()};
  checkPattern(destination.data(), kColdBytes, 0, seed, what);
  return run;
}

// The run of median time among three.
ColdRun medianRun(std::vector<ColdRun> runs) {
  std::sort(runs.begin(), runs.end(),
            [](const ColdRun& a, const ColdRun& b) { return a.seconds < b.seconds; });
  return runs[runs.size() / 2];
}

void coldRead(Context& context) {
  constexpr std::uint64_t kSeed = 3;
  const std::u16string path = u"/cold.bin";
  MemStore store;
  store.put(path, kColdBytes, kSeed);
  store.setLatency(kRemoteLatency);
  std::vector<char> destination(kColdBytes);

  std::vector<ColdRun> directRuns, overlayRuns;
  for (int i = 0; i < 3; ++i) {
    directRuns.push_back(timeColdRead(store, destination, kSeed, "direct store read", [&] {
      auto stream = fsp::StorageItem(store.root(), path).openReadOnlyStream();
      for (std::uint64_t offset = 0; offset < kColdBytes; offset += kStoreRequest) {
        readExactly(*stream, destination.data() + offset, kStoreRequest, "direct store read");
      }
      stream->close();
    }));
  }
  for (int i = 0; i < 3; ++i) {
    Overlay overlay(store.root());  // a fresh one each time: nothing of the file cached
    if (overlay.item(path).getFileAttributes().getSize() != kColdBytes) {
      throw std::runtime_error("the overlay reports the wrong size");
    }
    overlayRuns.push_back(timeColdRead(store, destination, kSeed, "cold overlay read", [&] {
      auto stream = overlay.item(path).openReadOnlyStream();
      for (std::uint64_t offset = 0; offset < kColdBytes; offset += kAppRequest) {
        readExactly(*stream, destination.data() + offset, kAppRequest, "cold overlay read");
      }
      stream->close();
    }));
  }
  const auto direct = medianRun(directRuns);
  const auto overlay = medianRun(overlayRuns);

  std::cout << format("  overlay, 1 MiB reads: %.3f s   store calls ", overlay.seconds)
            << overlay.callsText << "\n"
            << format("  store directly, 4 MiB requests: %.3f s   store calls ", direct.seconds)
            << direct.callsText << "\n"
            << format("  ratio %.2fx (median of 3 runs each)\n", overlay.seconds / direct.seconds);
  context.summary.add(
      {"cold read 64 MiB",
       format("%.3f s, %llu calls", overlay.seconds,
              static_cast<unsigned long long>(overlay.calls)),
       format("%.3f s, %llu calls", direct.seconds, static_cast<unsigned long long>(direct.calls)),
       format("%.2fx", overlay.seconds / direct.seconds), "<= 1.5x",
       overlay.seconds <= 1.5 * direct.seconds});
}

std::map<std::string, std::string> boundedQueue() {
  return {{"overlay.maxQueueWeight", std::to_string(kQueueBoundMiB)}};
}

struct Drain {
  double callerSeconds;
  double drainSeconds;
  std::string callsText;
};

// 256 MiB written through a fresh overlay in caller-sized writes, closed, then flushed.
Drain drainThroughOverlay(MemStore& store, const std::vector<char>& source, std::uint64_t seed,
                          const std::map<std::string, std::string>& settings) {
  const std::u16string path = u"/through-overlay.bin";
  Overlay overlay(store.root(), settings);
  store.remote().resetCounters();
  const auto start = Clock::now();
  {
    auto stream = overlay.item(path).openStream(fsp::ByteStreamOpenOptions::overwrite());
    for (std::uint64_t offset = 0; offset < kWriteBytes; offset += kAppWrite) {
      writeExactly(*stream, source.data() + offset, kAppWrite);
    }
    stream->close();
  }
  const double callerSeconds = seconds(Clock::now() - start);
  overlay.flush();
  Drain drain{callerSeconds, seconds(Clock::now() - start), store.callsText()};
  store.check(path, kWriteBytes, seed);
  store.innerItem(path).removeFile();
  return drain;
}

void write(Context& context) {
  constexpr std::uint64_t kSeed = 4;
  std::vector<char> source(kWriteBytes);
  fillPattern(source.data(), kWriteBytes, 0, kSeed);

  TempDir localDir{"overlay-bodies"};
  int copy = 0;
  const double localSeconds = medianSeconds(
      [&] {
        const auto path = localDir.path() + "/copy" + std::to_string(copy++);
        {
          Fd fd(path, O_WRONLY | O_CREAT | O_TRUNC);
          for (std::uint64_t offset = 0; offset < kWriteBytes; offset += kAppWrite) {
            posixWriteExactly(fd.get(), source.data() + offset, kAppWrite);
          }
        }
        if (copy == 1) checkLocalFile(path, kWriteBytes, kSeed);
        std::filesystem::remove(path);  // unwritten dirty pages go with it: no writeback piles up
      },
      1.0);

  MemStore store;
  store.setLatency(kRemoteLatency);
  const std::u16string directPath = u"/direct.bin";
  auto start = Clock::now();
  {
    auto stream = fsp::StorageItem(store.root(), directPath)
                      .openStream(fsp::ByteStreamOpenOptions::overwrite());
    for (std::uint64_t offset = 0; offset < kWriteBytes; offset += kStoreRequest) {
      writeExactly(*stream, source.data() + offset, kStoreRequest);
    }
    stream->close();
  }
  const double directSeconds = seconds(Clock::now() - start);
  store.check(directPath, kWriteBytes, kSeed);
  store.innerItem(directPath).removeFile();

  const auto defaults = drainThroughOverlay(store, source, kSeed, {});
  const auto merging =
      drainThroughOverlay(store, source, kSeed, {{"overlay.absorbChanges", "true"}});
  const double callerRate = mibPerSecond(kWriteBytes, defaults.callerSeconds);
  const double localRate = mibPerSecond(kWriteBytes, localSeconds);
  std::cout << format(
      "  caller (open to close): %.0f MiB/s   local file: %.0f MiB/s   ratio %.1f %%\n", callerRate,
      localRate, 100 * callerRate / localRate);
  for (const auto* drain : {&defaults, &merging}) {
    std::cout << format(
                     "  drain (open to flush), %s: %.3f s   store directly, 4 MiB requests: "
                     "%.3f s   ratio %.2fx\n",
                     drain == &defaults ? "library defaults" : "merging writes",
                     drain->drainSeconds, directSeconds, drain->drainSeconds / directSeconds)
              << "    store calls through the overlay: " << drain->callsText << "\n";
  }
  context.summary.add({"write: caller throughput", format("%.0f MiB/s", callerRate),
                       format("%.0f MiB/s", localRate),
                       format("%.1f %%", 100 * callerRate / localRate), ">= 50 %",
                       callerRate >= 0.5 * localRate});
  // The target is the mount's: blocks filled to the payload size need the merging that comes
  // with absorption; the library's defaults send a block one caller write short of it.
  context.summary.add({"write: drain time (merging)", format("%.3f s", merging.drainSeconds),
                       format("%.3f s", directSeconds),
                       format("%.2fx", merging.drainSeconds / directSeconds), "<= 1.1x",
                       merging.drainSeconds <= 1.1 * directSeconds});
}

// Runs in a child process of its own (a fresh heap, no other case's memory to reuse): the
// write case over a local directory 10 ms away; prints the peak growth of the resident size.
int memoryChild() {
  constexpr std::uint64_t kSeed = 5;
  TempDir storeDir{"overlay-bodies"};
  InstrumentedStore store(std::make_shared<fsp::file::FileProvider>(storeDir.path()),
                          fsp::file::FileProvider::rootLocation());
  store.setLatency(kRemoteLatency);
  const std::u16string path = u"/through-overlay.bin";
  Overlay overlay(store.root(), boundedQueue());
  std::vector<char> chunk(kAppWrite);
  fillPattern(chunk.data(), kAppWrite, 0, kSeed);  // touched before the baseline

  resetPeakResident();
  const std::uint64_t baseline = statusKiB("VmRSS") * 1024;
  const auto start = Clock::now();
  {
    auto stream = overlay.item(path).openStream(fsp::ByteStreamOpenOptions::overwrite());
    for (std::uint64_t offset = 0; offset < kWriteBytes; offset += kAppWrite) {
      fillPattern(chunk.data(), kAppWrite, offset, kSeed);
      writeExactly(*stream, chunk.data(), kAppWrite);
    }
    stream->close();
  }
  overlay.flush();
  const double drainSeconds = seconds(Clock::now() - start);
  const std::uint64_t peak = statusKiB("VmHWM") * 1024;
  store.check(path, kWriteBytes, kSeed);
  std::cout << format("  (child) drain over the local directory: %.3f s\n", drainSeconds)
            << kResultPrefix << (peak > baseline ? peak - baseline : 0) << std::endl;
  return 0;
}

void writeMemory(Context& context) {
  std::vector<char> self(4096);
  const ssize_t length = ::readlink("/proc/self/exe", self.data(), self.size() - 1);
  if (length <= 0) throw std::runtime_error("cannot find this program's path");
  const std::string command =
      "'" + std::string(self.data(), static_cast<std::size_t>(length)) + "' " + kMemoryChildFlag;
  std::FILE* child = ::popen(command.c_str(), "r");
  if (child == nullptr) throw std::runtime_error("cannot start the child process");
  std::optional<std::uint64_t> peakGrowth;
  char line[512];
  while (std::fgets(line, sizeof line, child) != nullptr) {
    const std::string text(line);
    if (text.rfind(kResultPrefix, 0) == 0) {
      peakGrowth = std::stoull(text.substr(std::strlen(kResultPrefix)));
    } else {
      std::cout << text;
    }
  }
  if (::pclose(child) != 0 || !peakGrowth) throw std::runtime_error("the child process failed");

  const std::uint64_t bound = kQueueBoundMiB * kMiB;
  const double peakMiB = static_cast<double>(*peakGrowth) / kMiB;
  std::cout << format("  overlay.maxQueueWeight %d: bound %d MiB, peak resident growth %.1f MiB\n",
                      kQueueBoundMiB, kQueueBoundMiB, peakMiB);
  context.summary.add({"write: peak memory", format("%.1f MiB", peakMiB),
                       format("bound %d MiB", kQueueBoundMiB),
                       format("%.2fx", peakMiB / kQueueBoundMiB),
                       format("<= %d MiB", kQueueBoundMiB + static_cast<int>(kMemorySlack / kMiB)),
                       *peakGrowth <= bound + kMemorySlack});
}

struct Case {
  const char* name;
  void (*run)(Context&);
};

const Case kCases[] = {
    {"sequential-read", sequentialRead},
    {"random-read", randomRead},
    {"cold-read", coldRead},
    {"write", write},
    {"write-memory", writeMemory},
};

bool selected(const std::string& name, const std::vector<std::string>& words) {
  if (words.empty()) return true;
  return std::any_of(words.begin(), words.end(),
                     [&](const std::string& word) { return name.find(word) != std::string::npos; });
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 1 && words[0] == kMemoryChildFlag) {
    try {
      return memoryChild();
    } catch (const std::exception& e) {
      std::cout << "  (child) failed: " << e.what() << "\n";
      return 1;
    }
  }
  if (!words.empty() && (words[0] == "--list" || words[0] == "--help")) {
    std::cout << "usage: " << argv[0] << " [word ...]  runs the cases whose names contain a word\n";
    for (const auto& c : kCases) std::cout << "  " << c.name << "\n";
    return 0;
  }

  Context context;
  int failures = 0;
  for (const auto& c : kCases) {
    if (!selected(c.name, words)) continue;
    std::cout << c.name << "\n" << std::flush;
    try {
      c.run(context);
    } catch (const std::exception& e) {
      std::cout << "  FAILED: " << e.what() << "\n";
      ++failures;
    }
    std::cout << std::flush;
  }
  context.warmed.reset();
  context.summary.print();
  return failures == 0 ? 0 : 1;
}
