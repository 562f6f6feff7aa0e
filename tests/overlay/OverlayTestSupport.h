// An overlay over an instrumented in-memory store, for the overlay's own unit tests: the
// instrumentation counts what reaches the inner store and injects its failures.
// Ownership: the fixture owns the store, the wrapper and the overlay, and shuts the overlay down
// before the others go. Threads: called from the test's thread only.
#pragma once

#include "../providers/ProviderTestSupport.h"
#include "core/provider/OverlayProvider.h"

#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

namespace overlaytest {

namespace fsp = foundation::storage::provider;

struct OverlayOverMem {
  explicit OverlayOverMem(fsp::mem::MemProvider::Options options = {});
  // A new overlay over an existing store.
  explicit OverlayOverMem(std::shared_ptr<fsp::mem::MemProvider> store);
  // Shuts the overlay down (which removes its content cache's default root).
  ~OverlayOverMem();

  // The overlay location of `path`.
  fsp::StorageIRI at(const std::u16string& path) const { return fsp::StorageIRI(root, path); }
  std::uint64_t innerCalls(std::string_view operation) const {
    return instrumented->callCount(operation);
  }
  // Replaces the inner store's file at `path` with `bytes`, past the overlay and the wrapper.
  void put(const std::u16string& path, const std::string& bytes) const;
  // The bytes of the inner store's file at `path`, read past the wrapper.
  std::string stored(const std::u16string& path) const;
  // Configures the overlay with a tree of these keys and values.
  void configure(const std::map<std::string, std::string>& settings) const;

  std::shared_ptr<fsp::mem::MemProvider> mem;
  std::shared_ptr<fsp::instrumented::InstrumentedProvider> instrumented;
  fsp::StorageItem innerRoot;
  std::shared_ptr<storage::overlayprovider::OverlayProvider> overlay;
  fsp::StorageIRI root;
};

using fsp::test::readAll;

}  // namespace overlaytest
