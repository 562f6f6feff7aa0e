// OverlayProvider: construction, locations, lazy initialisation, flush, invalidation and
// shutdown. The host operations are in OverlayProviderOperations.cpp and configuration in
// OverlayProviderConfiguration.cpp.
#include "core/provider/OverlayProvider.h"

#include "core/events/EventListener.h"
#include "core/execution/BackendExecutor.h"
#include "core/execution/SynchronousExecutor.h"
#include "core/provider/OverlayProviderSupport.h"
#include "core/quota/QuotaAccountant.h"
#include "core/support/InnerLocation.h"
#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/text/Unicode.h>

#include <boost/property_tree/json_parser.hpp>
#include <chrono>
#include <cstdlib>
#include <sstream>

namespace storage::overlayprovider {

using fsp::ErrorCode;
using fsp::Exception;
using fsp::StorageIRI;
using fsp::StorageItem;
namespace log = foundation::log;

namespace {

// The inner location named by a composed IRI: the text after the last "+" of its scheme.
StorageIRI composedInnerLocation(const StorageIRI& iri) {
  const auto text = foundation::text::toUtf16(iri.toString());
  const auto scheme = text.substr(0, text.find(u':'));
  return StorageIRI(text.substr(scheme.rfind(u'+') + 1));
}

constexpr long kQuotaPollPeriodMs = 30000;

// The factory's root location over an inner root: "overlay" over the inner root, path "/".
StorageIRI publicRootOver(const StorageItem& innerRoot) {
  return StorageIRI(u"overlay", StorageIRI(innerRoot.getLocation(), u"/"), u"/");
}

std::shared_ptr<MetadataCache> metadataCacheOver(const std::shared_ptr<StorageItem>& inner) {
  return std::make_shared<MetadataCache>(inner, inner->getFilenameSensitivity());
}

}  // namespace

OverlayProvider::OverlayProvider(StorageItem innerRoot)
    : inner_(std::make_shared<StorageItem>(std::move(innerRoot))),
      contentCache_(std::make_unique<ContentCache>()),
      publicRoot_(publicRootOver(*inner_)),
      metadataCache_(metadataCacheOver(inner_)) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kOverlayProviderSource);
}

OverlayProvider::OverlayProvider(StorageItem innerRoot, std::unique_ptr<ContentCache> contentCache,
                                 std::unique_ptr<MetadataCache> metadataCache,
                                 std::shared_ptr<IExecutor> executor)
    : inner_(std::make_shared<StorageItem>(std::move(innerRoot))),
      contentCache_(std::move(contentCache)),
      publicRoot_(publicRootOver(*inner_)),
      metadataCache_(std::move(metadataCache)),
      executor_(std::make_shared<ExecutorSlot>(std::move(executor))) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kOverlayProviderSource);
}

OverlayProvider::~OverlayProvider() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kOverlayProviderSource);
  try {
    // shutdown() stops the framework's change polling before doShutdown, so no polling
    // thread can call into this object while its members go away.
    shutdown();
  } catch (...) {
    // A destructor must not throw; doShutdown has already logged what it could.
  }
}

StorageIRI OverlayProvider::resolve(const StorageIRI& iri) const {
  std::optional<std::u16string> path;
  const auto& innerRoot = inner_->getLocation();
  if (iri.getScheme() == u"overlay") {
    path = iri.getPath();
  } else if (iri.hasInnerIRI()) {
    path = pathBelow(innerRoot, composedInnerLocation(iri));
  } else if (iri.getScheme() == innerRoot.getScheme()) {
    path = pathBelow(innerRoot, iri);
  }
  if (!path) {
    throw Exception(ErrorCode::InvalidLocation, iri, "not a location of this overlay");
  }
  if (backslashToForwardSlash_.load()) std::replace(path->begin(), path->end(), u'\\', u'/');
  return StorageIRI(u"overlay", *path);
}

StorageIRI OverlayProvider::publicLocation(const StorageIRI& resolved) const {
  return publicRoot_.withPath(resolved.getPath());
}

Exception OverlayProvider::refusalForHost(const Exception& inner) const {
  // The caches refuse with the overlay's own locations, the inner store with its own; the host
  // knows neither.
  const auto& location = inner.getLocation();
  if (location.getScheme() == u"overlay") {
    return Exception(inner.getErrorCode(), publicLocation(location), inner.what());
  }
  const auto path = pathBelow(inner_->getLocation(), location);
  if (!path || location.getScheme() != inner_->getLocation().getScheme()) return inner;
  return Exception(inner.getErrorCode(), publicRoot_.withPath(*path), inner.what());
}

StorageItem OverlayProvider::innerItem(const StorageIRI& location) const {
  return innerItemFor(*inner_, location);
}

PathGuardTable::Guard OverlayProvider::guard(const StorageIRI& location) const {
  return pathGuards_.acquire(location);
}

PathGuardTable::Guard OverlayProvider::guard(const StorageIRI& a, const StorageIRI& b) const {
  return pathGuards_.acquire(std::vector<StorageIRI>{a, b});
}

void OverlayProvider::ensureInitialized() const {
  // boost::call_once leaves the flag unset when lazyInitialize throws, so the next
  // operation tries again; threads arriving meanwhile wait for the outcome.
  boost::call_once(initFlag_, [this] { lazyInitialize(); });
  ensureRecovered();
}

void OverlayProvider::lazyInitialize() const {
  boost::property_tree::ptree echo;
  echo.put("overlay.initialization.maxQueueWeight", maxQueueWeight_.load());
  std::ostringstream text;
  boost::property_tree::write_json(text, echo, false);
  OVERLAY_LOG(log::info) << text.str();
  // First: a refused journal (another process holds the root) must leave nothing started.
  openJournal();

  {
    std::lock_guard lock(initMutex_);
    if (!executor_->load()) {
      executor_->store(std::make_shared<BackendExecutor>(
          backendActivityHook(), maxQueueWeight_.load(), replayWorkers_.load(),
          absorbChanges_.load(), std::chrono::milliseconds(absorbWindowMs_.load())));
    }
  }
  auto accountant = quotaAccountant();
  if (!accountant) {
    accountant = std::make_shared<QuotaAccountant>(inner_, kQuotaPollPeriodMs, metadataCache_);
    std::lock_guard lock(initMutex_);
    quotaAccountant_ = accountant;
  }
  startListening(accountant);
  // A mutation's checks must not cost a store round trip on the caller's thread.
  for (const auto feature :
       {fsp::ExtendedFeature::RemoveWhileOpen, fsp::ExtendedFeature::RemoveWhileClosing,
        fsp::ExtendedFeature::FolderWritableEnforced, fsp::ExtendedFeature::CacheUsage}) {
    innerHasFeature(feature);
  }
  metadataCache_->populateWholeFolderTreeWhenPossible(synchronous_.load());
}

void OverlayProvider::startListening(const std::shared_ptr<IQuotaAccountant>& accountant) const {
  if (eventLatch()) return;  // a failed initialisation got this far before
  auto listener = EventListener::create(*inner_, metadataCache_, *contentCache_, executor_,
                                        accountant, echoes_);
  const std::weak_ptr<EventListener> weak = listener;
  auto latch = std::make_shared<TimedLatch>(
      [weak] {
        if (const auto l = weak.lock()) l->pause();
      },
      [weak] {
        if (const auto l = weak.lock()) l->unpause();
      },
      eventRobustnessTimeoutMs());
  std::lock_guard lock(initMutex_);
  eventListener_ = std::move(listener);
  eventLatch_ = std::move(latch);
}

std::int64_t OverlayProvider::eventRobustnessTimeoutMs() {
  // Unset: 3 s. Set: read as a decimal number, where text that is no number reads as 0.
  const char* text = std::getenv("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT");
  return text ? std::strtol(text, nullptr, 10) : 3000;
}

std::shared_ptr<TimedLatch> OverlayProvider::eventLatch() const {
  std::lock_guard lock(initMutex_);
  return eventLatch_;
}

std::shared_ptr<EventListener> OverlayProvider::eventListener() const {
  std::lock_guard lock(initMutex_);
  return eventListener_;
}

void OverlayProvider::ensureReady() const {
  ensureInitialized();
  metadataCache_->waitForPopulation();
}

std::shared_ptr<IQuotaAccountant> OverlayProvider::quotaAccountant() const {
  std::lock_guard lock(initMutex_);
  return quotaAccountant_;
}

std::function<void()> OverlayProvider::backendActivityHook() const {
  return [cache = std::weak_ptr<ContentCache>(contentCache_)] {
    if (const auto live = cache.lock()) live->markActivity();
  };
}

bool OverlayProvider::innerHasFeature(fsp::ExtendedFeature feature) const {
  const auto index = static_cast<std::size_t>(feature);
  if (index >= innerFeatures_.size()) return inner_->hasFeature(feature);
  auto known = innerFeatures_[index].load();
  if (known == 0) {
    known = inner_->hasFeature(feature) ? 2 : 1;
    innerFeatures_[index].store(known);
  }
  return known == 2;
}

std::shared_ptr<IExecutor> OverlayProvider::makeSynchronousExecutor() const {
  return std::make_shared<SynchronousExecutor>(backendActivityHook());
}

void OverlayProvider::installExecutor(std::shared_ptr<IExecutor> executor) const {
  std::shared_ptr<IExecutor> previous;
  {
    // Under the initialisation mutex, so that lazy initialisation cannot install a
    // background executor over this one.
    std::lock_guard lock(initMutex_);
    previous = executor_->exchange(std::move(executor));
  }
  if (previous) {
    // A replaced background executor still owns a worker thread: let it finish what it
    // holds (nothing must be lost) and join it before it is released.
    previous->shutdown(false);
    previous->join();
  }
}

void OverlayProvider::doFlushFilesystem() {
  ensureReady();
  flushBody();
}

void OverlayProvider::doSyncChanges() {
  ensureReady();
  if (const auto journal = this->journal()) return journal->sync();
  flushBody();
}

std::string OverlayProvider::doQueueStatistics() {
  const auto executor = executor_->load();
  auto metrics = executor ? executor->captureQueueMetrics() : std::string("{}");
  const auto journal = this->journal();
  if (!journal) return metrics;
  boost::property_tree::ptree tree;
  std::istringstream text(metrics);
  boost::property_tree::read_json(text, tree);
  // What the journal still holds, and what an earlier run had left in it.
  tree.put("journal.pending", journal->pendingCount());
  tree.put("journal.bytes", journal->fileSize());
  tree.put("journal.recovered", recoveredChanges_.load());
  std::ostringstream out;
  boost::property_tree::write_json(out, tree, false);
  return out.str();
}

void OverlayProvider::flushBody() const {
  OVERLAY_LOG(log::info) << "Flushing filesystem";
  const auto started = std::chrono::steady_clock::now();
  // Bytes still waiting in open files' pending blocks are queued first, so that the flush
  // also covers what was written through streams that are not closed yet.
  if (contentCache_) {
    for (const auto& entry : contentCache_->entries()) entry->enqueueProviderWrite();
  }
  if (const auto executor = executor_->load()) {
    executor->waitForPendingToFinish();
  } else {
    OVERLAY_LOG(log::error) << "BackgroundExecutor should be in an initialized state.";
  }
  if (contentCache_) {
    try {
      contentCache_->releasePending();
    } catch (...) {
      // An unusable cache directory (logged by the cache) must not stop the flush.
    }
  } else {
    OVERLAY_LOG(log::error) << "ContentCache should be in an initialized state.";
  }
  metadataCache_->dropPendingState();
  if (const auto journal = this->journal()) journal->sync();
  const auto elapsed = std::chrono::steady_clock::now() - started;
  OVERLAY_LOG(log::info) << "Flush took "
                         << std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() /
                                1000000
                         << "ms";
}

void OverlayProvider::doInvalidate(const StorageIRI& iri) {
  FOUNDATION_TRACE_SCOPE_IRI(overlayLogger(), kOverlayProviderSource, iri);
  ensureReady();
  const auto location = resolve(iri);
  const auto held = guard(location);
  // The whole overlay is dropped, not only the location: what the host knows changed below
  // one location may have moved things elsewhere too.
  if (contentCache_) contentCache_->clear();
  metadataCache_->invalidate(StorageIRI(u"overlay", u"/"));
  fsp::invalidateProvider(*inner_);
}

void OverlayProvider::doShutdown() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kOverlayProviderSource);
  const auto held = guard(StorageIRI(u"overlay", u"/"));
  shutDown_->exchange(true);
  // The listener first: once it has stopped no event handler touches the caches, and the
  // latch, closed next, no longer resumes it.
  if (const auto listener = eventListener()) listener->stop();
  if (const auto latch = eventLatch()) latch->close();
  if (const auto accountant = quotaAccountant()) accountant->stop();
  if (const auto executor = executor_->load()) {
    executor->shutdown(true);
    executor->join();
  }
  // Nothing runs on the bodies any more; a temporary cache leaves none behind.
  if (contentCache_) contentCache_->discard();
  // What is still pending stays recorded for the next provider over the root, which may open
  // the journal as soon as the last task or working file holding it lets it go.
  std::shared_ptr<ChangeJournal> journal;
  {
    std::lock_guard lock(initMutex_);
    journal = std::move(journal_);
  }
  if (journal) journal->sync();
  inner_->shutdownProvider();
}

}  // namespace storage::overlayprovider
