// QuotaAccountant: the one IQuotaAccountant. Asks the inner store for its storage figures
// once at construction and then once every period on a thread of its own; between those
// polls it adjusts the estimate for what happens through the overlay. A poll overwrites the
// local adjustments with the store's own figures.
//
// Failures of a poll:
//   - the store refuses with the framework's Exception: logged ("Problem getting quota info.
//     Shutting down poll.") and polling ends for good; the last figures stay in place (empty
//     if no poll ever succeeded);
//   - any other exception: logged ("Unexpected exception.") and polling goes on. Such a
//     failure says nothing about whether the store keeps quota figures at all, so the next
//     period gets another chance; the cost is one record per period while it lasts.
// A file or folder tree that the metadata cache cannot size is logged and its adjustment
// skipped.
//
// Deliberate deviation: the estimate falls by what a change adds to the store's occupied
// space (addGrowth), not by every byte written. Overwriting bytes a file already has takes no
// space in the store, yet counting each written byte made the estimate fall to 0 while the
// store still had room: a program that rewrote the same megabyte a thousand times over a
// 1 GiB store was refused with QuotaExceeded, and so was even a truncation down afterwards.
// Growth of a file's size and a new file's size take space; truncations down (releaseSpace)
// and removals give it back; overwrites take none. addBytesWritten stays for callers that
// know only a count of new bytes.
//
// Ownership: created and held by the provider (std::shared_ptr); holds the inner root item
// and shares the provider's MetadataCache.
// Locks: mutex_ guards every figure and stopRequested_; the store query and the metadata
// cache's size queries run while it is held, so readers wait for a poll in progress. The
// metadata cache must therefore never call into the accountant while holding its own lock.
// joinMutex_ serialises the join in stop() (taken after mutex_ has been released, never
// together with it; the poll thread never takes it).
// Threads: the constructor queries the store on the calling thread, then starts the poll
// thread. Every public operation may be called from any thread except the poll thread.
// stop() may be called any number of times, from several threads; the destructor calls it.
#pragma once

#include "core/quota/IQuotaAccountant.h"

#include <foundation/storage/provider/StorageItem.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace storage::overlayprovider {

class MetadataCache;

class QuotaAccountant final : public IQuotaAccountant {
 public:
  // Throws std::invalid_argument for a null item or cache, or a period that is not positive.
  QuotaAccountant(std::shared_ptr<foundation::storage::provider::StorageItem> inner, long periodMs,
                  std::shared_ptr<MetadataCache> cache);
  ~QuotaAccountant() override;
  QuotaAccountant(const QuotaAccountant&) = delete;
  QuotaAccountant& operator=(const QuotaAccountant&) = delete;

  std::optional<std::uint64_t> getSpaceAvailable() override;
  std::optional<std::uint64_t> getTotalQuota() override;
  void stop() override;
  void removeFile(const foundation::storage::provider::StorageIRI& file) override;
  void removeFolderTree(const foundation::storage::provider::StorageIRI& folder) override;
  void addFolderTree(const foundation::storage::provider::StorageIRI& folder) override;
  void addBytesWritten(std::size_t bytes) override;
  void addGrowth(std::uint64_t bytes) override;
  void releaseSpace(std::uint64_t bytes) override;

 private:
  // All three: caller holds mutex_.
  void addToSpaceAvailable(std::uint64_t bytes);
  void removeFromSpaceAvailable(std::uint64_t bytes);
  void queryBackendForSpaceAvailable();
  void createAndStartPollThread();
  void runPollLoop();
  void pollUntilStopped();

  std::shared_ptr<foundation::storage::provider::StorageItem> inner_;
  long periodMs_;
  std::shared_ptr<MetadataCache> metadataCache_;
  bool stopRequested_ = false;
  std::optional<std::uint64_t> totalQuota_;
  std::optional<std::uint64_t> spaceAvailable_;
  std::mutex mutex_;
  std::thread pollThread_;
  std::condition_variable wakeUp_;
  std::mutex joinMutex_;
};

}  // namespace storage::overlayprovider
