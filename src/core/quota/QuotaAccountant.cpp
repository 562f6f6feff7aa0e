#include "core/quota/QuotaAccountant.h"

#include "core/metadata/MetadataCache.h"
#include "core/support/OverlayLog.h"
#include "core/support/ThreadName.h"

#include <foundation/storage/provider/Exception.h>

#include <algorithm>
#include <boost/exception/diagnostic_information.hpp>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

namespace {

constexpr const char* kTraceFile = "src/core/quota/QuotaAccountant";

// Call from inside a catch block: describes the exception being handled.
void logCaughtException() {
  OVERLAY_LOG(foundation::log::exception)
      << "Exception caught: " << boost::current_exception_diagnostic_information(true);
}

// The size the metadata cache reports, or nothing when it cannot size the location (then the
// adjustment is skipped: a wrong figure would last until the next poll, a missing one too).
template <class Query>
std::optional<std::uint64_t> sizeFromCache(Query&& query) {
  try {
    return std::forward<Query>(query)();
  } catch (...) {
    logCaughtException();
    return std::nullopt;
  }
}

}  // namespace

QuotaAccountant::QuotaAccountant(std::shared_ptr<fsp::StorageItem> inner, long periodMs,
                                 std::shared_ptr<MetadataCache> cache)
    : inner_(std::move(inner)), periodMs_(periodMs), metadataCache_(std::move(cache)) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  if (!inner_) throw std::invalid_argument("QuotaAccountant: the inner store item is null");
  if (!metadataCache_) throw std::invalid_argument("QuotaAccountant: the metadata cache is null");
  if (periodMs_ <= 0) throw std::invalid_argument("QuotaAccountant: the period must be positive");
  {
    std::lock_guard lock(mutex_);
    queryBackendForSpaceAvailable();
  }
  createAndStartPollThread();
}

QuotaAccountant::~QuotaAccountant() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  try {
    stop();
  } catch (...) {
    // A failed join leaves a joinable thread behind, and destroying it would end the
    // process; there is nothing better to do than report it first.
    OVERLAY_LOG(foundation::log::error) << "QuotaAccountant could not stop its poll thread";
    logCaughtException();
  }
}

std::optional<std::uint64_t> QuotaAccountant::getSpaceAvailable() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  std::lock_guard lock(mutex_);
  return spaceAvailable_;
}

std::optional<std::uint64_t> QuotaAccountant::getTotalQuota() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  std::lock_guard lock(mutex_);
  return totalQuota_;
}

void QuotaAccountant::stop() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
  }
  wakeUp_.notify_one();
  // Two threads stopping at once must not both join.
  std::lock_guard join(joinMutex_);
  if (pollThread_.joinable()) pollThread_.join();
}

void QuotaAccountant::removeFile(const fsp::StorageIRI& file) {
  FOUNDATION_TRACE_SCOPE_IRI(overlayLogger(), kTraceFile, file);
  std::lock_guard lock(mutex_);
  const auto size = sizeFromCache([&] { return metadataCache_->getFileSize(file); });
  if (size && spaceAvailable_) addToSpaceAvailable(*size);
}

void QuotaAccountant::removeFolderTree(const fsp::StorageIRI& folder) {
  FOUNDATION_TRACE_SCOPE_IRI(overlayLogger(), kTraceFile, folder);
  std::lock_guard lock(mutex_);
  const auto size = sizeFromCache([&] { return metadataCache_->getFolderTreeSize(folder); });
  if (size && spaceAvailable_) addToSpaceAvailable(*size);
}

void QuotaAccountant::addFolderTree(const fsp::StorageIRI& folder) {
  FOUNDATION_TRACE_SCOPE_IRI(overlayLogger(), kTraceFile, folder);
  std::lock_guard lock(mutex_);
  const auto size = sizeFromCache([&] { return metadataCache_->getFolderTreeSize(folder); });
  if (size && spaceAvailable_) removeFromSpaceAvailable(*size);
}

void QuotaAccountant::addBytesWritten(std::size_t bytes) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  std::lock_guard lock(mutex_);
  removeFromSpaceAvailable(bytes);
}

void QuotaAccountant::addGrowth(std::uint64_t bytes) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  std::lock_guard lock(mutex_);
  removeFromSpaceAvailable(bytes);
}

void QuotaAccountant::releaseSpace(std::uint64_t bytes) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  std::lock_guard lock(mutex_);
  if (spaceAvailable_) addToSpaceAvailable(bytes);
}

void QuotaAccountant::addToSpaceAvailable(std::uint64_t bytes) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  const std::uint64_t current = spaceAvailable_.value_or(0);
  const std::uint64_t total = totalQuota_.value_or(0);
  // Saturate instead of wrapping; the result is capped at the total anyway.
  const std::uint64_t sum = bytes > std::numeric_limits<std::uint64_t>::max() - current
                                ? std::numeric_limits<std::uint64_t>::max()
                                : current + bytes;
  spaceAvailable_ = std::min(sum, total);
}

void QuotaAccountant::removeFromSpaceAvailable(std::uint64_t bytes) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  if (!spaceAvailable_) return;
  *spaceAvailable_ = bytes >= *spaceAvailable_ ? 0 : *spaceAvailable_ - bytes;
}

void QuotaAccountant::queryBackendForSpaceAvailable() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  try {
    const fsp::ProviderStorageInfo info = inner_->getProviderStorageInfo();
    totalQuota_ = info.getStorageCapacity();
    spaceAvailable_ = info.getStorageCapacity();
    removeFromSpaceAvailable(info.getSpaceOccupied());
  } catch (const fsp::Exception&) {
    // Set before logging, so that polling ends even if the record cannot be written.
    stopRequested_ = true;
    OVERLAY_LOG(foundation::log::notice) << "Problem getting quota info. Shutting down poll.";
    logCaughtException();
  } catch (...) {
    OVERLAY_LOG(foundation::log::notice) << "Unexpected exception.";
    logCaughtException();
  }
}

void QuotaAccountant::createAndStartPollThread() {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  if (pollThread_.joinable()) pollThread_.join();
  pollThread_ = std::thread([this] { runPollLoop(); });
}

// Thread boundary: nothing may escape, or the process would end.
void QuotaAccountant::runPollLoop() {
  nameThisThread("ovl quota");
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kTraceFile);
  try {
    pollUntilStopped();
  } catch (...) {
    try {
      OVERLAY_LOG(foundation::log::error) << "Quota poll thread ended by an exception";
      logCaughtException();
    } catch (...) {
      // Logging itself failed; there is no other channel left to report it on.
    }
  }
}

void QuotaAccountant::pollUntilStopped() {
  std::unique_lock lock(mutex_);
  while (!stopRequested_) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(periodMs_);
    wakeUp_.wait_until(lock, deadline, [this] { return stopRequested_; });
    if (stopRequested_) return;
    queryBackendForSpaceAvailable();
  }
}

}  // namespace storage::overlayprovider
