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
// provider's event threads (it takes its own mutex, see ProviderTestSupport.h).
#pragma once

#include "../providers/ProviderTestSupport.h"

#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/StorageItem.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
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
  // Whether the store keeps extended attributes; one that does not refuses them (NotSupported).
  virtual bool keepsExtendedAttributes() const { return true; }
  // Why this provider cannot be tested on this machine (the test is skipped); empty when it
  // can (a store that needs a server the machine cannot start).
  virtual std::string skipReason() const { return {}; }
};

struct ContractParam {
  std::string name;
  std::function<std::unique_ptr<ProviderUnderTest>()> make;
};

void PrintTo(const ContractParam& param, std::ostream* out);
// Names each instantiated test after its provider: Contract/ProviderContract.X/<name>.
std::string paramName(const ::testing::TestParamInfo<ContractParam>& info);

using EventRecorder = fsp::test::EventRecorder;

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
  // Drops the fixture's root item and the provider under test, with whatever backs it.
  void dropProvider();

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
