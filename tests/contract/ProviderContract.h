// The provider contract suite: one parameterised GoogleTest fixture that states what every
// storage provider must do, whatever it stores in. Each provider's tests instantiate it with a
// ContractParam whose factory makes a fresh, empty store per test:
//
//   INSTANTIATE_TEST_SUITE_P(Contract, ProviderContract,
//                            ::testing::Values(ContractParam{"mem", makeMem}),
//                            contract::paramName);
//
// Ownership: the fixture owns the ProviderUnderTest made for the running test and drops it
// (after the root item) in TearDown. The provider under test owns whatever backs the store
// (a temporary directory, an inner provider).
// Threads: the tests run on GoogleTest's main thread; only EventRecorder is reached from the
// provider's event threads (it takes its own mutex, see below).
#pragma once

#include "../providers/ProviderTestSupport.h"

#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/StorageItem.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace contract {

namespace fsp = foundation::storage::provider;

// One provider set up for one test. Implemented by each instantiation.
struct ProviderUnderTest {
  virtual ~ProviderUnderTest();
  // The root item of a fresh, empty store.
  virtual fsp::StorageItem root() = 0;
  // Sets an extended attribute on the entry at `path` behind the provider's back (on the
  // real file, in the memory store's test API), as another program would.
  virtual void setExtendedAttributeBehind(const std::u16string& path, const std::string& name,
                                          const std::string& value) = 0;
  // Makes every change the provider accepted so far reach its backing store (an overlay
  // flushes its write-behind queue). Nothing to do for providers that write through.
  virtual void settle() {}
  // For a provider that wraps another: the inner store's root, where settled changes must
  // show up. Empty for providers that are their own backing store.
  virtual std::optional<fsp::StorageItem> backingStore() { return std::nullopt; }
  // Whether streams refuse every call after close and refuse a negative seek with a failure.
  // The overlay's streams are cursors over a shared working file instead: they keep no closed
  // state (a second close is harmless) and answer a negative seek with -1.
  virtual bool strictStreams() const { return true; }
  virtual std::string name() const = 0;
};

struct ContractParam {
  std::string name;
  std::function<std::unique_ptr<ProviderUnderTest>()> make;
};

void PrintTo(const ContractParam& param, std::ostream* out);
// Names each instantiated test after its provider: Contract/ProviderContract.X/<name>.
std::string paramName(const ::testing::TestParamInfo<ContractParam>& info);

// Collects the events a provider publishes, from the provider's threads, and lets the test
// wait (bounded) until the events it expects have arrived. The publisher shares the state, so
// an event arriving after the recorder is gone is harmless.
// Locking: one mutex guards the recorded events; publishers notify under it.
class EventRecorder {
 public:
  struct Event {
    foundation::storage::events::Kind kind;
    std::u16string path;
    std::u16string otherPath;
    foundation::storage::events::EntryType type;
  };
  using Predicate = std::function<bool(const std::vector<Event>&)>;

  EventRecorder();
  fsp::EventPublisher publisher() const;
  // Waits until `done` holds for the events seen so far. Fails the test (naming
  // `expectation` and listing what did arrive) when it does not hold within the bound.
  bool waitFor(const Predicate& done, const std::string& expectation,
               std::chrono::seconds bound = std::chrono::seconds(10)) const;
  // Waits for one event of `kind` whose location has this path.
  bool waitForEvent(foundation::storage::events::Kind kind, const std::u16string& path) const;
  // Waits for both ends of a move of an entry of `type`: Disappeared at `from` naming `to`,
  // then Appeared at `to` naming `from`. Fails the test when either is missing or they came
  // in the other order.
  bool waitForMove(const std::u16string& from, const std::u16string& to,
                   foundation::storage::events::EntryType type) const;
  std::vector<Event> events() const;
  void clear();

  static bool contains(const std::vector<Event>& events, foundation::storage::events::Kind kind,
                       const std::u16string& path);
  static std::string describe(const std::vector<Event>& events);

 private:
  struct State {
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;
  };
  std::shared_ptr<State> state_;
};

class ProviderContract : public ::testing::TestWithParam<ContractParam> {
 protected:
  void SetUp() override;
  void TearDown() override;

  const fsp::StorageItem& root() const { return *root_; }
  ProviderUnderTest& underTest() const { return *underTest_; }
  const fsp::IProvider& provider() const { return *root_->getProvider(); }
  // The item at the absolute `path` of the provider under test.
  fsp::StorageItem at(const std::u16string& path) const;
  fsp::StorageIRI loc(const std::u16string& path) const { return at(path).getLocation(); }

  // Creates or replaces the file at `path` with `bytes` through a stream.
  void writeFile(const std::u16string& path, std::string_view bytes) const;
  // Creates each folder (with its ancestors) of the list.
  void makeFolders(const std::vector<std::u16string>& paths) const;

 private:
  std::unique_ptr<ProviderUnderTest> underTest_;
  std::optional<fsp::StorageItem> root_;
};

// --- helpers shared by the suite's files ---

// The item at `relative` below `base` (for instance below a backing store's root).
fsp::StorageItem below(const fsp::StorageItem& base, const std::u16string& relative);
using fsp::test::readAll;
inline std::string readRest(fsp::ByteStream& stream) { return readAll(stream); }
using fsp::test::readFile;
using fsp::test::writeFile;
// Every row of a listing, in the order produced.
std::vector<fsp::FolderEntry> rows(fsp::FolderEntryIteratorPtr it);
// The names of a listing (UTF-8), sorted, since listing order is unspecified.
std::vector<std::string> names(fsp::FolderEntryIteratorPtr it);
std::vector<std::string> sortedUtf8(const fsp::NameList& list);
// A deterministic, non-repeating-looking buffer of `size` bytes (every byte value occurs).
std::string patternBytes(std::size_t size);
// A time truncated to whole seconds (stores keep times at least to the second).
boost::posix_time::ptime toSeconds(const boost::posix_time::ptime& time);

// Where a check was called from, named in its failure. Not std::source_location: clang 14 with
// libstdc++ 12 cannot compile that header, while both compilers fill these builtins in at the
// caller of a function whose default argument calls here().
struct CallSite {
  static CallSite here(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    return CallSite{file, line};
  }
  const char* file;
  int line;
};

// Runs `operation` and checks that it throws Exception with `code`, and with `location` unless
// the contract leaves the refusal's location open (nullopt).
void expectError(fsp::ErrorCode code, const std::optional<fsp::StorageIRI>& location,
                 const std::function<void()>& operation, CallSite where = CallSite::here());

// Runs `operation` and checks that it throws the ByteStream failure kind Failure with `code`.
template <class Failure>
void expectStreamFailure(fsp::ErrorCode code, const std::function<void()>& operation,
                         CallSite where = CallSite::here()) {
  try {
    operation();
    ADD_FAILURE_AT(where.file, where.line) << "expected " << Failure::kName;
  } catch (const Failure& e) {
    if (e.getErrorCode() != code) {
      ADD_FAILURE_AT(where.file, where.line)
          << "expected " << Failure::kName << " with " << code << ", got " << e.getErrorCode();
    }
  } catch (const std::exception& e) {
    ADD_FAILURE_AT(where.file, where.line)
        << "expected " << Failure::kName << ", caught: " << e.what();
  }
}

}  // namespace contract
