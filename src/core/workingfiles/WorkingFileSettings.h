// WorkingFileSettings: what the provider gives every working file it opens: the inner store,
// where to send transactions, the accountants and the configured limits.
//
// A plain value, copied into each WorkingFileEntry. Everything in it is held by shared
// ownership, so a working file (and a stream on it) may outlive the provider that made it.
#pragma once

#include "core/cacheresources/CacheMode.h"
#include "core/execution/ExecutorSlot.h"
#include "core/execution/TimedLatch.h"
#include "core/execution/UnavailableRetry.h"
#include "core/journal/ChangeJournal.h"
#include "core/quota/IQuotaAccountant.h"
#include "core/support/ReplayedChange.h"

#include <foundation/storage/provider/StorageItem.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace storage::overlayprovider {

class MetadataCache;

struct WorkingFileSettings {
  // The inner provider's root item; the file's own item is built from it and the path.
  std::shared_ptr<foundation::storage::provider::StorageItem> innerRoot;
  std::shared_ptr<ExecutorSlot> executor;
  // Told when a creation that an open queued has reached the inner store.
  std::shared_ptr<MetadataCache> metadataCache;
  // May be empty (before the provider has made them).
  std::shared_ptr<IQuotaAccountant> quotaAccountant;
  std::shared_ptr<TimedLatch> eventLatch;
  std::int64_t maxReadPayloadSize = 4194304;
  std::int64_t maxWritePayloadSize = 4194304;
  double minQueueItemWeight = 0.0;
  // "overlay.disableContentCache": no body is kept and every write goes through at once.
  bool contentCacheDisabled = false;
  // After a close has stamped the store's copy, its extended attributes are read back only
  // when someone asks for them (the provider's getExtendedAttributes), not at every close:
  // one store call less a file. Goes with "overlay.absorbChanges".
  bool readAttributesLazily = false;
  // Contiguous, overlapping and slightly out-of-order writes merge into full blocks
  // (PendingWriteBlock::span); otherwise a block takes only contiguous writes that leave it
  // below its capacity. Goes with "overlay.absorbChanges".
  bool mergeWrites = false;
  // The store keeps extended attributes (ExtendedFeature::ExtendedAttributes, asked once by
  // the provider); one that keeps none is never asked for them.
  bool storeKeepsExtendedAttributes = true;
  // The inner store keeps a local cache of its own and reports its room
  // (ExtendedFeature::CacheUsage, asked once by the provider). Only then is the store asked,
  // at each write, whether the file still fits there; it answers from memory. Any other store
  // is not asked: its room is what the quota accountant estimates.
  bool storeReportsCacheUsage = false;
  // Asks the content cache for room for `bytes` more body bytes on the local disk; false when
  // none can be had. Called with no lock of the working file held (the content cache takes
  // its own mutex, then other entries' locks). Empty: no limit. It holds the content cache
  // weakly, so a working file that outlives its cache is no longer limited.
  std::function<bool(std::uint64_t bytes)> cacheRoom;
  // Told just before a replayed store call changes the file (its creating open, its writes'
  // close, a truncation, its time stamp), so that the store's echo of it is recognised. Empty:
  // nobody listens. Never throws.
  ReplayedChangeNote noteReplayedChange;
  // "overlay.journal": every change of the file is recorded here before the caller returns
  // (writes as their byte range; the bytes stay in the body) and confirmed once the store has
  // it. Empty: changes live only in the queue.
  std::shared_ptr<ChangeJournal> journal;
  // How long a replayed stream call waits for a store that answers Unavailable.
  UnavailableRetry unavailableRetry;
};

// The weight of a queued transaction that carries `bytes` bytes: the minimum item weight plus
// one unit per MiB, so that "overlay.maxQueueWeight" bounds the MiB that queued writes hold.
inline double transactionWeight(double minQueueItemWeight, std::int64_t bytes) {
  return minQueueItemWeight + static_cast<double>(bytes) / 1048576.0;
}

}  // namespace storage::overlayprovider
