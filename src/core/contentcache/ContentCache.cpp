#include "core/contentcache/ContentCache.h"

#include "core/cacheresources/CacheResourceLog.h"
#include "core/contentcache/CachingErrorException.h"
#include "core/contentcache/LocalFSCacheSpaceArbitrator.h"
#include "core/support/OverlayLog.h"

#include <foundation/text/Unicode.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace storage::overlayprovider {

namespace fs = boost::filesystem;
namespace log = foundation::log;
using fsp::StorageIRI;

namespace {

fs::path defaultCacheRoot() {
  return fs::temp_directory_path() /
         ("overlay_cache-" + boost::uuids::to_string(boost::uuids::random_generator()()));
}

}  // namespace

ContentCache::ContentCache()
    : cacheRoot_(defaultCacheRoot()), arbitratorFactory_([](const fs::path& directory) {
        return std::make_unique<LocalFSCacheSpaceArbitrator>(directory);
      }) {}

ContentCache::~ContentCache() {
  try {
    discard();
  } catch (...) {
    logCaughtException(nullptr);
  }
}

void ContentCache::discard() {
  std::vector<std::shared_ptr<WorkingFileEntry>> released;
  fs::path madeRoot;
  {
    MutexLock lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end();) it = eraseLocked(it);
    released.swap(pendingRelease_);
    if (mode_ == CacheMode::TEMPORARY) deleteMadeBodies();
    // A later use makes the root again (every operation does), and the next discard ends it.
    if (mode_ == CacheMode::TEMPORARY && madeRoot_) madeRoot = cacheRoot_;
  }
  disposal_.drain();
  if (!madeRoot.empty()) removeMadeRoot(madeRoot);
}

void ContentCache::removeMadeRoot(const fs::path& root) noexcept {
  boost::system::error_code error;
  fs::remove_all(root, error);
  if (error) {
    try {
      OVERLAY_LOG(log::error) << "Could not remove the temporary cache root " << root.string()
                              << ": " << error.message();
    } catch (...) {
    }
  }
}

void ContentCache::deleteMadeBodies() noexcept {
  for (const auto& [body, entries] : madeBodies_) {
    boost::system::error_code ignored;
    fs::remove(fs::path(body), ignored);
  }
  madeBodies_.clear();
}

void ContentCache::setCacheRoot(fs::path root) {
  MutexLock lock(mutex_);
  cacheRoot_ = std::move(root);
  madeRoot_ = false;
}

void ContentCache::setPersistent() {
  MutexLock lock(mutex_);
  mode_ = CacheMode::PERSISTENT;
}

void ContentCache::setArbitratorFactory(ArbitratorFactory factory) {
  MutexLock lock(mutex_);
  arbitratorFactory_ = std::move(factory);
  arbitrator_.reset();
  initialized_ = false;
}

CacheMode ContentCache::mode() const {
  MutexLock lock(mutex_);
  return mode_;
}

fs::path ContentCache::cacheRoot() const {
  MutexLock lock(mutex_);
  return cacheRoot_;
}

fs::path ContentCache::versionDirectory() const {
  MutexLock lock(mutex_);
  return cacheRoot_ / "V1.0";
}

void ContentCache::ensureInitialized() {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
}

void ContentCache::ensureInitializedLocked() {
  fs::path versionDirectory;
  try {
    versionDirectory = (cacheRoot_ / "V1.0").make_preferred();
  } catch (...) {
    OVERLAY_LOG(log::error) << "Problem initializing cache root.";
    logCaughtException(nullptr);
    throw;
  }
  try {
    if (!fs::exists(versionDirectory)) fs::create_directories(versionDirectory);
  } catch (...) {
    OVERLAY_LOG(log::error) << "Problem checking or creating cache root";
    logCaughtException(nullptr);
    throw;
  }
  if (initialized_) return;
  if (!bodiesFound_) {
    // Bodies left by an earlier run under the same root (kept on purpose in persistent mode).
    boost::system::error_code error;
    for (fs::directory_iterator it(versionDirectory, error), end; !error && it != end;
         it.increment(error)) {
      foundBodies_.insert(it->path().string());
    }
    bodiesFound_ = true;
  }
  if (arbitrator_) {
    initialized_ = true;
    return;
  }
  try {
    arbitrator_ = arbitratorFactory_(versionDirectory);
    initialized_ = true;
  } catch (...) {
    OVERLAY_LOG(log::error) << "Problem initializing space arbitrator";
    logCaughtException(nullptr);
  }
}

std::shared_ptr<WorkingFileEntry> ContentCache::retrieve(
    const StorageIRI& iri, const std::shared_ptr<FileMetadata>& metadata,
    const WorkingFileSettings& settings) {
  MutexLock lock(mutex_);
  try {
    ensureInitializedLocked();
    auto it = entries_.find(iri);
    if (it != entries_.end() && !it->second->isAborted()) {
      it->second->pin();
      return it->second;
    }
    if (it != entries_.end()) {
      OVERLAY_LOG(log::notice) << "Retrieving " << iri.toString() << " due to previous abort.";
      it->second->removeCachedBody();
      eraseLocked(it);
    }
    makeRoomLocked(metadata->getSize());
    auto entry = std::make_shared<WorkingFileEntry>(metadata, cacheRoot_ / "V1.0", mode_, settings);
    noteBodyLocked(entry);
    entries_.emplace(iri, entry);
    ++entryCount_;
    entry->pin();
    return entry;
  } catch (const CachingErrorException&) {
    throw;
  } catch (...) {
    OVERLAY_LOG(log::notice) << "Content caching failure.";
    logCaughtException(nullptr);
    throw CachingErrorException("Caching failed due to an unknown error.");
  }
}

// Deliberately the whole size is asked for, even when part of the body is already on disk.
void ContentCache::makeRoomLocked(std::uint64_t bytes) {
  if (!arbitrator_) return;
  while (!arbitrator_->hasSpaceFor(bytes)) {
    if (entryCount_ == 0) {
      const auto reclaimed = reclaimUnusedBodiesLocked();
      if (reclaimed.deleted) continue;
      if (reclaimed.inUse) {
        OVERLAY_LOG(log::notice) << "The cached bodies still in use hold the space; the cache "
                                    "goes over its space until one settles.";
        return;
      }
      OVERLAY_LOG(log::notice) << "Content caching failure (no space).";
      throw CachingErrorException("Caching failed due to a lack of filespace.");
    }
    if (!evictOneLocked()) return;
  }
}

void ContentCache::noteBodyLocked(const std::shared_ptr<WorkingFileEntry>& entry) {
  const auto body = entry->resource()->path();
  if (body.empty()) return;
  auto& entries = madeBodies_[body.string()];
  std::erase_if(entries, [](const auto& made) { return made.expired(); });
  entries.push_back(entry);
}

ContentCache::Reclaimed ContentCache::reclaimUnusedBodiesLocked() {
  // Bodies of entries that left the registry stay on disk, to be taken up again by a later
  // entry of the same file; when the space is gone and no entry is left, they are what holds
  // it. Without this, bodies that nobody uses would turn the overlay into pass-through for good.
  // A body stays while an entry made over it still has a stream or queued work: its queued
  // writes read their bytes from it.
  const auto inUse = [](const std::vector<std::weak_ptr<WorkingFileEntry>>& entries) {
    return std::any_of(entries.begin(), entries.end(), [](const auto& made) {
      const auto entry = made.lock();
      return entry && !entry->isIdle();
    });
  };
  Reclaimed reclaimed;
  for (auto it = madeBodies_.begin(); it != madeBodies_.end();) {
    if (inUse(it->second)) {
      reclaimed.inUse = true;
      ++it;
      continue;
    }
    boost::system::error_code error;
    reclaimed.deleted |= fs::remove(fs::path(it->first), error);
    // A body that stays on disk stays known, so that a later file of its name discards it.
    it = error ? std::next(it) : madeBodies_.erase(it);
  }
  if (reclaimed.deleted) {
    OVERLAY_LOG(log::notice) << "Content cache out of space: cached bodies that no entry uses "
                                "were deleted.";
    arbitrator_->releaseSpace();
  }
  return reclaimed;
}

bool ContentCache::evictOneLocked() {
  OVERLAY_LOG(log::notice) << "Content cache out of space. "
                           << "Removing least recently accessed item.";
  auto oldest = entries_.end();
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (!isEvictable(*it->second)) continue;
    if (oldest == entries_.end() || it->second->lastAccess() < oldest->second->lastAccess()) {
      oldest = it;
    }
  }
  if (oldest == entries_.end()) {
    OVERLAY_LOG(log::notice) << "Every cached body is in use or ahead of the store; the cache "
                                "goes over its space until one settles.";
    return false;
  }
  oldest->second->removeCachedBody();
  eraseLocked(oldest);
  arbitrator_->releaseSpace();
  return true;
}

bool ContentCache::isEvictable(WorkingFileEntry& entry) {
  const auto record = entry.record();
  return entry.isIdle() && !(record && record->isFrozen());
}

ContentCache::EntryMap::iterator ContentCache::eraseLocked(EntryMap::iterator it) {
  auto entry = it->second;
  it = entries_.erase(it);
  --entryCount_;
  entry->detach();
  deferRelease(std::move(entry));
  return it;
}

void ContentCache::deferRelease(std::shared_ptr<WorkingFileEntry> entry) {
  if (activitySeen_.exchange(false)) pendingRelease_.clear();
  pendingRelease_.push_back(std::move(entry));
}

bool ContentCache::grantGrowth(std::uint64_t bytes) {
  try {
    MutexLock lock(mutex_);
    ensureInitializedLocked();
    if (!arbitrator_) return true;
    while (!arbitrator_->hasSpaceFor(bytes)) {
      if (!evictOneLocked()) return arbitrator_->canHold(bytes);
    }
    return true;
  } catch (...) {
    logCaughtException("The content cache's space could not be measured; the write goes ahead");
    return true;
  }
}

bool ContentCache::contains(const StorageIRI& iri) {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
  return entries_.count(iri) > 0;
}

std::shared_ptr<WorkingFileEntry> ContentCache::find(const StorageIRI& iri) {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
  const auto it = entries_.find(iri);
  return it == entries_.end() ? nullptr : it->second;
}

bool ContentCache::isInUse(const StorageIRI& iri, bool checkState) {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
  const auto it = entries_.find(iri);
  if (it == entries_.end() || it->second->openCount() < 1) return false;
  return !checkState || it->second->state() != 1;
}

void ContentCache::dropIfStale(const StorageIRI& iri, const std::string& watermark, bool notify) {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
  const auto it = entries_.find(iri);
  if (it == entries_.end() || it->second->record()->getWatermark() == watermark) return;
  if (notify) it->second->stampAndWake();
  it->second->removeCachedBody();
  eraseLocked(it);
}

void ContentCache::dropIfOutdated(const StorageIRI& iri,
                                  const std::shared_ptr<FileMetadata>& current) {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
  const auto it = entries_.find(iri);
  if (it == entries_.end()) return;
  const auto& made = it->second->record();
  if (made == current || (made->getLastModified() == current->getLastModified() &&
                          made->getSize() == current->getSize())) {
    return;
  }
  // Only an idle entry can be outdated by the store: one with open streams or unsent writes
  // is the newer truth, and the store is about to receive it.
  if (!it->second->isIdle()) return;
  OVERLAY_LOG(foundation::log::info)
      << "The store changed " << iri.toString() << " behind the overlay; its cached body goes.";
  it->second->removeCachedBody();
  eraseLocked(it);
}

void ContentCache::dropEntryLocked(EntryMap::iterator it, bool notify) {
  // Nothing written may be lost with the entry: its pending bytes go to the executor.
  it->second->enqueueProviderWrite();
  if (notify) it->second->stampAndWake();
  it->second->abort();
  eraseLocked(it);
}

void ContentCache::removeEntry(const StorageIRI& iri, bool notify) {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
  if (const auto it = entries_.find(iri); it != entries_.end()) dropEntryLocked(it, notify);
}

void ContentCache::discardEntry(const StorageIRI& iri, bool notify) {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
  const auto it = entries_.find(iri);
  if (it != entries_.end()) it->second->enqueueProviderWrite();
  // The entry knows its body's name; working it out again costs a digest.
  const auto body = it != entries_.end() ? it->second->resource()->path() : fs::path();
  if (body.empty()) {
    removeBodyFileLocked(iri);
  } else {
    removeBodyFileLocked(body);
  }
  if (it != entries_.end()) {
    it->second->removeCachedBody();  // the body has gone: this forgets its ranges
    if (notify) it->second->stampAndWake();
    it->second->abort();
    eraseLocked(it);
  }
}

void ContentCache::removeBodyFileLocked(const StorageIRI& iri) {
  try {
    removeBodyFileLocked(cacheRoot_ / "V1.0" / cacheFileName(iri));
  } catch (...) {
    logCaughtException("A cached body could not be deleted");
  }
}

void ContentCache::removeBodyFileLocked(const fs::path& body) {
  try {
    // A name that this cache never made a body for, and that had none when the cache started,
    // has none: most creations and moves name such a file, and asking the file system costs a
    // search of the bodies' directory.
    const auto& name = body.native();
    if (!madeBodies_.count(name) && !foundBodies_.count(name)) return;
    disposal_.dispose(cacheRoot_, body);
  } catch (...) {
    logCaughtException("A cached body could not be deleted");
  }
}

void ContentCache::removeFolderEntries(const StorageIRI& folder, bool notify) {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
  std::vector<EntryMap::iterator> below;
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (folder.isAncestorOf(it->first)) below.push_back(it);
  }
  for (const auto& it : below) dropEntryLocked(it, notify);
}

void ContentCache::clear() { removeFolderEntries(StorageIRI(u"overlay", u"/"), true); }

std::shared_ptr<WorkingFileEntry> ContentCache::moveEntry(const StorageIRI& from,
                                                          const StorageIRI& to) {
  MutexLock lock(mutex_);
  ensureInitializedLocked();
  const auto it = entries_.find(from);
  if (from == to) return it != entries_.end() ? it->second : nullptr;
  if (it == entries_.end()) {
    // The moved file's body is not here; one left at the destination is the replaced file's.
    const auto target = entries_.find(to);
    if (target == entries_.end()) removeBodyFileLocked(to);
    return target != entries_.end() ? target->second : nullptr;
  }
  auto entry = it->second;
  entries_.erase(it);
  --entryCount_;
  if (const auto target = entries_.find(to); target != entries_.end()) {
    target->second->abort();
    eraseLocked(target);
  }
  removeBodyFileLocked(to);  // the replaced file's body, set aside rather than renamed over
  entry->moveTo(to);
  noteBodyLocked(entry);
  entries_.emplace(to, entry);
  ++entryCount_;
  return entry;
}

void ContentCache::moveFolderEntries(const StorageIRI& from, const StorageIRI& to) {
  std::vector<std::pair<StorageIRI, StorageIRI>> moves;
  {
    MutexLock lock(mutex_);
    ensureInitializedLocked();
    const auto& fromPath = from.getPath();
    for (const auto& [iri, entry] : entries_) {
      if (!from.isAncestorOf(iri)) continue;
      const auto relative = iri.getPath().substr(fromPath == u"/" ? 0 : fromPath.size());
      moves.emplace_back(iri,
                         to.withPath(to.getPath() == u"/" ? relative : to.getPath() + relative));
    }
  }
  for (const auto& [source, target] : moves) moveEntry(source, target);
}

std::vector<std::shared_ptr<WorkingFileEntry>> ContentCache::entries() {
  MutexLock lock(mutex_);
  std::vector<std::shared_ptr<WorkingFileEntry>> all;
  all.reserve(entries_.size());
  for (const auto& [iri, entry] : entries_) all.push_back(entry);
  return all;
}

void ContentCache::releasePending() {
  std::vector<std::shared_ptr<WorkingFileEntry>> released;
  {
    MutexLock lock(mutex_);
    ensureInitializedLocked();
    released.swap(pendingRelease_);
  }
  // Entries are freed outside the lock: their last references may be the only ones.
}

}  // namespace storage::overlayprovider
