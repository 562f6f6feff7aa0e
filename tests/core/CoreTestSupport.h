// Helpers shared by the overlay's unit tests: overlay and mem locations by path, the error
// code of a refused call, a mem store whose calls are counted and can be failed, JSON records
// read back, and a guard that turns a hang into a failure.
#pragma once

#include "../providers/ProviderTestSupport.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/StorageItem.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>

namespace coretest {

namespace fsp = foundation::storage::provider;

inline fsp::StorageIRI ov(const std::u16string& path) { return fsp::StorageIRI(u"overlay", path); }
inline fsp::StorageIRI mem(const std::u16string& path) { return fsp::StorageIRI(u"mem", path); }

using fsp::test::errorOf;
using fsp::test::readAll;
using fsp::test::refusalOf;
using fsp::test::thrown;
using fsp::test::whatOf;

// The code of the framework Exception that `call` throws; fails the test when none is thrown.
inline fsp::ErrorCode codeOf(const std::function<void()>& call) { return errorOf(call); }

// A mem store seen through the instrumented wrapper (so a test counts and fails the calls the
// code under test makes, while it sets the store up directly), and the wrapper's root item.
struct MemStore {
  explicit MemStore(fsp::mem::MemProvider::Options options = {})
      : mem(std::make_shared<fsp::mem::MemProvider>(options)),
        counted(std::make_shared<fsp::instrumented::InstrumentedProvider>(mem)),
        root(std::make_shared<fsp::StorageItem>(counted, fsp::mem::MemProvider::rootLocation())) {}
  ~MemStore() { counted->shutdown(); }

  // Replaces the file at `path` with `bytes`, past the wrapper.
  void write(const std::u16string& path, const std::string& bytes) const {
    auto stream = mem->openStream(coretest::mem(path), fsp::ByteStreamOpenOptions::overwrite());
    stream->write(bytes.data(), static_cast<long>(bytes.size()));
    stream->close();
  }

  std::shared_ptr<fsp::mem::MemProvider> mem;
  std::shared_ptr<fsp::instrumented::InstrumentedProvider> counted;
  std::shared_ptr<fsp::StorageItem> root;
};

inline boost::property_tree::ptree parseJson(const std::string& text) {
  std::istringstream in(text);
  boost::property_tree::ptree tree;
  boost::property_tree::read_json(in, tree);
  return tree;
}

// Runs an action on a thread of its own. finish() waits for it at most 10 s: a hang is a
// failure that cannot be cleaned up (shutdown or join would hang as well), so the process ends
// there instead of blocking; CTest runs every test in a process of its own.
struct Background {
  std::future<void> done;
  explicit Background(std::function<void()> action)
      : done(std::async(std::launch::async, std::move(action))) {}
  ~Background() { finish("a background call"); }
  bool returned() { return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
  void finish(const char* what) {
    if (!done.valid()) return;
    if (done.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      ADD_FAILURE() << what << " did not return within 10 s";
      std::fflush(stdout);
      std::_Exit(1);
    }
    done.get();
  }
};

inline void returnsInTime(std::function<void()> action, const char* what) {
  Background(std::move(action)).finish(what);
}

}  // namespace coretest
