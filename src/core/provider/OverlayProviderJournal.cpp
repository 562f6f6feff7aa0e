// OverlayProvider: the journal ("overlay.journal"). Every accepted change is recorded in the
// persistent cache root before the caller returns and confirmed once the store has it; a
// provider that starts over a root whose journal holds pending changes re-applies them
// (JournalRecovery) before it answers its first call, and its replay takes them to the store.
#include "core/journal/ChangeJournal.h"
#include "core/journal/JournalReceipt.h"
#include "core/provider/JournalRecovery.h"
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"
#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>

#include <chrono>

namespace storage::overlayprovider {

using fsp::ErrorCode;
using fsp::Exception;
namespace log = foundation::log;

namespace {

// Set on the thread that re-applies the journal: its own calls into the provider must not
// wait for the recovery they are part of.
thread_local bool recoveringOnThisThread = false;

}  // namespace

std::shared_ptr<ChangeJournal> OverlayProvider::journal() const {
  std::lock_guard lock(initMutex_);
  return journal_;
}

std::shared_ptr<JournalReceipt> OverlayProvider::journalReceipt(const ReplayChange& change) const {
  const auto journal = this->journal();
  if (!journal) return nullptr;
  return std::make_shared<JournalReceipt>(journal,
                                          std::vector<std::uint64_t>{journal->append(change)});
}

void OverlayProvider::openJournal() const {
  if (!journalEnabled_.load() || journal()) return;
  if (contentCache_->mode() != CacheMode::PERSISTENT) {
    throw Exception(ErrorCode::OperationRefused, publicRoot_,
                    "\"overlay.journal\" needs a persistent content cache "
                    "(\"overlay.persistContentCache\" with \"overlay.cacheRoot\"): the journal "
                    "refers to bytes in the cached bodies");
  }
  if (contentCacheDisabled_.load()) {
    throw Exception(ErrorCode::OperationRefused, publicRoot_,
                    "\"overlay.journal\" needs the content cache (\"overlay.disableContentCache\" "
                    "is set): the journal refers to bytes in the cached bodies");
  }
  ChangeJournal::Options options;
  options.folder = contentCache_->cacheRoot();
  options.syncInterval = std::chrono::milliseconds(journalSyncMs_.load());
  auto opened = ChangeJournal::open(options);
  std::lock_guard lock(initMutex_);
  journal_ = std::move(opened);
}

void OverlayProvider::ensureRecovered() const {
  if (recoveringOnThisThread) return;
  boost::call_once(recoveryFlag_, [this] {
    recoveringOnThisThread = true;
    try {
      recoverJournal();
    } catch (...) {
      recoveringOnThisThread = false;
      throw;
    }
    recoveringOnThisThread = false;
  });
}

void OverlayProvider::recoverJournal() const {
  const auto journal = this->journal();
  if (!journal || journal->recovered().empty()) return;
  const auto started = std::chrono::steady_clock::now();
  recoveredChanges_ = journal->recovered().size();
  OVERLAY_LOG(log::warning) << "replaying " << journal->recovered().size()
                            << " pending changes from an earlier run";
  // Re-applying must not wait for the store: the bound on queued work comes back after.
  if (const auto executor = executor_->load()) executor->setMaxQueueWeight(0);
  JournalRecovery recovery(*this, contentCache_->cacheRoot(), journal->recovered());
  const auto outcome = recovery.run();
  applyMaxQueueWeight();
  // Once the bodies go, only the new records can say what to replay: they must be on disk
  // first (finishRecovery syncs them and forgets the old ones).
  journal->sync();
  recovery.discardBodies();
  journal->finishRecovery();
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - started);
  OVERLAY_LOG(log::warning) << "journal: re-applied " << outcome.applied << " changes ("
                            << outcome.alreadyDone << " already on the store, " << outcome.refused
                            << " refused) in " << elapsed.count() << " ms";
}

}  // namespace storage::overlayprovider
