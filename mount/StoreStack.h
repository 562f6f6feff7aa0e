// StoreStack: the stores behind a mount, made as a host makes them. The inner store (`file`
// over a directory, or `mem`) sits behind the instrumented wrapper, which adds the simulated
// latency and counts every call that reaches the store; over it, unless the mount is a
// pass-through, an `overlay` provider that the framework's BundleHost made from the bundle
// and the registry, configured with the "overlay." keys.
//
// Ownership: owns the bundle host and shares the providers; root() hands out items that share
// the provider, so they stay valid for as long as a caller holds them. shutdown() (also run
// by the destructor) shuts the providers down before the bundle is unloaded, and every item
// from root() must have been released by then. Threads: made and shut down on the main
// thread; root(), flush(), queueStatistics() and storeCalls() from any thread. No lock of
// its own; the providers take theirs.
#pragma once

#include "MountOptions.h"

#include <foundation/host/BundleHost.h>
#include <foundation/storage/provider/StorageItem.h>
#include <foundation/storage/provider/instrumented/InstrumentedProvider.h>

#include <cstdint>
#include <memory>
#include <string>

namespace storage::mount {

class StoreStack {
 public:
  // Throws what the bundle host, the factory or the providers throw.
  explicit StoreStack(const MountOptions& options);
  ~StoreStack();
  StoreStack(const StoreStack&) = delete;
  StoreStack& operator=(const StoreStack&) = delete;

  // What the mount serves: the overlay's root, or the store's own in a pass-through.
  const foundation::storage::provider::StorageItem& root() const { return root_; }
  bool isOverlay() const { return overlay_; }
  // Returns once every change accepted so far has reached the store (the overlay's flush;
  // nothing to wait for in a pass-through).
  void flush() const;
  // What fsync promises: with the journal (and no --fsync=store), that every change accepted
  // so far is durable on the local disk: the journal and the bodies it refers to (the
  // overlay's syncChanges). Otherwise flush().
  void sync() const;
  // Asks the overlay for its first answer, which waits until what an earlier run left in the
  // journal has been re-applied, and returns how many changes that was (0 without a journal).
  std::uint64_t recoverPendingChanges() const;
  // The overlay's queue snapshot as one line of JSON ("{}" in a pass-through).
  std::string queueStatistics() const;
  std::uint64_t storeCalls() const { return instrumented_->totalCalls(); }
  // The calls of one operation that reached the store ("listAll": folder listings).
  std::uint64_t storeCalls(const char* operation) const {
    return instrumented_->callCount(operation);
  }
  // "openStream 20, streamWrite 20, ...": every operation that reached the store, by name.
  std::string storeCallsByOperation() const;
  void shutdown() noexcept;

 private:
  // Makes the store and its wrapper; returns the store's root location.
  foundation::storage::provider::StorageIRI makeInner(const MountOptions& options);

  std::unique_ptr<foundation::host::BundleHost> host_;
  std::shared_ptr<foundation::storage::provider::IProvider> store_;
  std::shared_ptr<foundation::storage::provider::instrumented::InstrumentedProvider> instrumented_;
  foundation::storage::provider::StorageItem root_;
  bool overlay_ = false;
  bool journalSync_ = false;
  bool shutDown_ = false;
};

}  // namespace storage::mount
