// Order and loss under load: threads drive a random mix of file and folder changes through the
// write-behind overlay over a slow store, each in a subtree of its own ("/t0", "/t1", ...), and
// apply each change also to a second in-memory store, the reference. A change must be refused
// by both with the same code or by neither, and reads must answer alike; after a
// flush the store behind the overlay, and the overlay itself, must hold the reference's tree:
// same names, kinds, sizes and bytes (times are not compared).
//
// A fault plan makes the store answer Unavailable now and then to one group of the calls the
// replay makes; the replay tries a call three times, so no change may be lost.
//
//   OVERLAY_ORDER_SEED=<n>  replays a run (every failure names its seed)
//   OVERLAY_ORDER_OPS=<n>   changes per thread (default 150)
//   OVERLAY_ORDER_TRACE=1   prints each thread's changes with the reference's answers
#include "OverlayTestSupport.h"

#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace overlaytest;
using fsp::ByteStreamOpenOptions;
using fsp::ReplacementPolicy;
using fsp::StorageIRI;

namespace {

constexpr int kThreads = 4;
// Slow enough that the replay falls behind the callers and the queue builds up.
constexpr auto kStoreDelay = std::chrono::microseconds(300);

std::u16string wide(const std::string& text) { return {text.begin(), text.end()}; }
std::string narrow(const std::u16string& text) { return {text.begin(), text.end()}; }

struct Side {
  std::shared_ptr<fsp::IProvider> provider;
  StorageIRI root;
  StorageIRI at(const std::string& path) const { return StorageIRI(root, wide(path)); }
  const fsp::IProvider* operator->() const { return provider.get(); }
};

// One change or read with its arguments drawn, applicable to either side; `apply` returns what
// the caller observed besides success (positions, what was read).
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

// Arguments come from a few names, so that changes often meet each other's results and
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

// Each kind of change with its weight in the mix.
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
    {2,
     [](Picker& p) {
       const auto path = p.file();
       return Change{"read " + path, [=](const Side& s) {
                       const auto bytes = readAll(*s->openReadOnlyStream(s.at(path)));
                       return std::to_string(std::hash<std::string>()(bytes));
                     }};
     }},
};

// One thread's part: its top folder, then `count` random changes, each applied to the overlay
// first. Stops at the first disagreement, since everything after it would differ too.
void drive(int index, std::uint64_t seed, int count, const Side& overlay, const Side& reference,
           std::string& problem, int& accepted) {
  try {
    Picker picker{std::mt19937_64(seed * kThreads + index), "/t" + std::to_string(index)};
    std::vector<double> weights;
    for (const auto& k : kKinds) weights.push_back(k.first);
    std::discrete_distribution<std::size_t> kind(weights.begin(), weights.end());
    const auto top = picker.top;
    auto change = act("createFolder " + top, [=](const Side& s) { s->createFolder(s.at(top)); });
    const bool tracing = std::getenv("OVERLAY_ORDER_TRACE") != nullptr;
    std::string history;
    for (int i = 0; i <= count; change = kKinds[kind(picker.random)].second(picker), ++i) {
      const auto seen = outcome(change, overlay), expected = outcome(change, reference);
      if (tracing) history += "\n    " + change.what + " -> " + expected.substr(0, 40);
      if (seen != expected) {
        problem = "change " + std::to_string(i) + ": " + change.what + "\n  overlay:   " + seen +
                  "\n  reference: " + expected + history;
        return;
      }
      if (i == count && tracing) std::fprintf(stderr, "thread %d:%s\n", index, history.c_str());
      accepted += seen.rfind("ok", 0) == 0;
    }
  } catch (...) {
    problem = "an exception escaped";
  }
}

// Arms Unavailable failures (one or two) of one of the plan's operations at a time, at random
// moments. The next is armed only when the store has counted two more calls of the operation
// than it takes to use the failures up: the replay is one worker, so the calls of one operation
// come one after another; by then the call after the last failure has been answered and, as a
// transaction calls an operation once per attempt, its transaction has ended. So a replayed
// call never meets more than two failures in a row, and its three attempts suffice.
class FaultPlan {
 public:
  FaultPlan(fsp::instrumented::InstrumentedProvider& store, std::vector<std::string> operations,
            std::uint64_t seed)
      : store_(store), operations_(std::move(operations)), random_(seed) {
    if (!operations_.empty()) thread_ = std::thread([this] { arm(); });
  }
  ~FaultPlan() { stop(); }
  void stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
  }
  // Failures known to be used up; asked after stop().
  unsigned used() const { return used_ + (usedUp() ? count_ : 0); }

 private:
  bool usedUp() const { return !count_ || store_.callCount(operation_) >= calls_ + count_ + 2; }
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
        used_ += count_;
        waited = 0;
        operation_ = pick();
        count_ = 1 + random_() % 2;
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
  // The last armed: used by the arming thread only, until stop().
  std::string operation_;
  std::uint64_t calls_ = 0;  // the operation's calls counted once armed
  unsigned count_ = 0, used_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

// Every entry below the root: what it is (for a file, its listed size, the size read and a
// hash, to show) and its bytes (to compare).
using Tree = std::map<std::string, std::pair<std::string, std::string>>;

Tree snapshot(const Side& side) {
  Tree tree;
  for (auto it = side->listAllRecursive(side.at("/")); it->hasNext();) {
    it->next();
    const auto row = it->current();
    const auto path = "/" + narrow(row.getName());
    if (!row.isFile()) {
      tree[path] = {"folder", ""};
      continue;
    }
    const auto listed = "listed " + std::to_string(row.getFileAttributes().getSize().value_or(0));
    try {
      auto bytes = readAll(*side->openReadOnlyStream(side.at(path)));
      tree[path] = {listed + ", " + std::to_string(bytes.size()) + " bytes, hash " +
                        std::to_string(std::hash<std::string>()(bytes)),
                    std::move(bytes)};
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
  return std::to_string(count) + " paths differ" + text;
}

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text ? std::stoull(text) : otherwise;
}

struct Plan {
  const char* name;
  std::vector<std::string> operations;  // to fail now and then
};
void PrintTo(const Plan& plan, std::ostream* out) { *out << plan.name; }

class OverlayOrder : public testing::TestWithParam<Plan> {};

TEST_P(OverlayOrder, TheStoreEndsAsTheReference) {
  const auto seed =
      fromEnvironment("OVERLAY_ORDER_SEED",
                      std::chrono::system_clock::now().time_since_epoch().count() % 1000000007);
  const auto count = static_cast<int>(fromEnvironment("OVERLAY_ORDER_OPS", 150));
  SCOPED_TRACE("OVERLAY_ORDER_SEED=" + std::to_string(seed) +
               " OVERLAY_ORDER_OPS=" + std::to_string(count));
  OverlayOverMem env;
  env.instrumented->setCallLatency(kStoreDelay);
  env.instrumented->setStreamLatency(kStoreDelay);
  const Side overlay{env.overlay, env.root};
  const Side store{env.mem, fsp::mem::MemProvider::rootLocation()};
  const Side reference{std::make_shared<fsp::mem::MemProvider>(),
                       fsp::mem::MemProvider::rootLocation()};

  std::vector<std::string> problems(kThreads);
  std::vector<int> accepted(kThreads);  // changes that neither side refused
  FaultPlan faults(*env.instrumented, GetParam().operations, seed);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back(drive, i, seed, count, std::cref(overlay), std::cref(reference),
                         std::ref(problems[i]), std::ref(accepted[i]));
  }
  for (auto& thread : threads) thread.join();
  // The replay lags behind the callers: most of it meets the faults during the flush.
  env.overlay->flushFilesystem();
  faults.stop();
  env.instrumented->instrumentation().faults.clear();

  for (int i = 0; i < kThreads; ++i)
    EXPECT_TRUE(problems[i].empty()) << "thread " << i << ", " << problems[i];
  EXPECT_EQ(faults.used() > 0, !GetParam().operations.empty()) << faults.used() << " failures used";
  const auto expected = snapshot(reference);
  EXPECT_GT(expected.size(), static_cast<std::size_t>(kThreads)) << "the run changed nothing";
  for (const auto& [name, side] : {std::pair{"store", store}, std::pair{"overlay", overlay}}) {
    const auto seen = snapshot(side);
    EXPECT_TRUE(seen == expected) << "the " << name
                                  << " differs from the reference: " << differences(seen, expected);
  }
  std::printf("seed %llu: %d threads x %d changes, %d accepted, %llu store calls, %u failures\n",
              static_cast<unsigned long long>(seed), kThreads, count,
              std::accumulate(accepted.begin(), accepted.end(), 0),
              static_cast<unsigned long long>(env.instrumented->totalCalls()), faults.used());
}

// Stream opens are a plan of their own, so that a failing run names the replayed call that lost
// a change.
INSTANTIATE_TEST_SUITE_P(
    FaultPlans, OverlayOrder,
    testing::Values(Plan{"NoFaults", {}},
                    Plan{"StreamWritesAndCloses", {"streamWrite", "streamClose"}},
                    Plan{"StreamOpens", {"openStream"}},
                    Plan{"Mutations",
                         {"createFile", "createFolder", "removeFile", "removeFolder",
                          "removeFolderRecursively", "moveFile", "moveFolder"}}),
    [](const testing::TestParamInfo<Plan>& info) { return info.param.name; });

}  // namespace
