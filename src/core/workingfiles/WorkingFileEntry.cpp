// WorkingFileEntry: the caller's side (streams, reads, writes, closing) and the content
// cache's view. The inner stream and the transactions are in WorkingFileEntryInner.cpp.
#include "core/workingfiles/WorkingFileEntry.h"

#include "core/cacheresources/FilesystemCacheResource.h"
#include "core/cacheresources/NOOPCacheResource.h"
#include "core/journal/JournalReceipt.h"
#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <boost/date_time/posix_time/conversion.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

namespace storage::overlayprovider {

using fsp::ErrorCode;
using fsp::Exception;
namespace log = foundation::log;

namespace {

constexpr std::int64_t kMinimumFetch = 128 * 1024;

std::chrono::milliseconds waitForZeroPeriod() {
  const char* text = std::getenv("QV_OVERLAY_WAIT_FOR_ZERO_PERIOD");
  return std::chrono::milliseconds(text ? std::strtol(text, nullptr, 10) : 2000);
}

std::int64_t steadyNow() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

std::shared_ptr<CacheResource> makeResource(const std::shared_ptr<FileMetadata>& record,
                                            const boost::filesystem::path& cacheDirectory,
                                            bool disabled) {
  if (disabled) return std::make_shared<NOOPCacheResource>();
  return std::make_shared<FilesystemCacheResource>(record, cacheDirectory);
}

}  // namespace

WorkingFileEntry::WorkingFileEntry(std::shared_ptr<FileMetadata> record,
                                   const boost::filesystem::path& cacheDirectory, CacheMode mode,
                                   WorkingFileSettings settings)
    : record_(std::move(record)),
      settings_(std::move(settings)),
      mode_(mode),
      resource_(makeResource(record_, cacheDirectory, settings_.contentCacheDisabled)),
      body_(dynamic_cast<FilesystemCacheResource*>(resource_.get())),
      lastAccess_(steadyNow()),
      innerLocation_(record_->getIRI()),
      location_(record_->getIRI()),
      size_(static_cast<std::int64_t>(record_->getSize())) {}

WorkingFileEntry::~WorkingFileEntry() {
  // Reached with a hold only when the executor dropped the closing transaction unrun.
  if (writesHeld_) record_->releaseWrites();
}

void WorkingFileEntry::touch() { lastAccess_.store(steadyNow()); }

std::uint64_t WorkingFileEntry::registerStream(bool writable) {
  touch();
  std::lock_guard lock(mutex_);
  const auto id = nextStreamId_++;
  openStreams_.insert(id);
  if (writable) {
    writableStreams_.insert(id);
    holdRecordLocked();
    openBodyLocked();
  }
  return id;
}

// A writer may outlive its provider, whose shutdown removes a temporary cache root, and a
// cleaner may delete the cache folder under an open file: opened now, the body stays usable
// through its descriptor for as long as the entry lives. Readers open it lazily, so a plain
// open of a file that is never read creates no body; a reader that loses the folder reads
// from the store instead.
void WorkingFileEntry::openBodyLocked() {
  if (body_ && !body_->hasFailed()) body_->openDescriptor();
}

std::shared_ptr<StreamRegistration> WorkingFileEntry::openReadOnly() {
  return std::make_shared<StreamRegistration>(weak_from_this(), registerStream(false));
}

std::shared_ptr<StreamRegistration> WorkingFileEntry::openReadWrite(
    const fsp::ByteStreamOpenOptions& options, std::function<void()> onOpened) {
  auto registration =
      std::make_shared<StreamRegistration>(weak_from_this(), registerStream(options.write));
  // Held across the emptying and its transaction, so that no write of another stream can be
  // queued between them (it would land on the store before the store's copy is emptied).
  std::lock_guard order(submitMutex_);
  const auto opening = change(FILE_OPEN_READWRITE, ChangeAction::OpenFile)
                           .withFlags((options.create ? ReplayChange::kOpenCreates : 0) |
                                      (options.truncate ? ReplayChange::kOpenTruncates : 0));
  // Recorded before the body is emptied: the records of earlier writes refer to its bytes.
  auto recorded = options.create || options.truncate ? journalReceipt(opening) : nullptr;
  if (options.truncate) {
    std::lock_guard lock(mutex_);
    // The store's copy is emptied by the open below; so is ours, and with it every range.
    holdUnsentBytesLocked();
    resource_->doRemove();
    openBodyLocked();
    pendingWrites_.clear();
    size_ = 0;
    ++generation_;
    record_->setSize(0).setLastModified(resource_->lastModified());
  }
  if (options.create || options.truncate) {
    submit([self = shared_from_this(), options,
            onOpened](const ReplayChange&) { self->runOpen(options, onOpened); },
           [onOpened] {
             if (onOpened) onOpened();
           },
           opening, settings_.minQueueItemWeight, std::move(recorded));
  } else if (onOpened) {
    onOpened();
  }
  return registration;
}

// --- reading ---

std::int64_t WorkingFileEntry::readAt(std::int64_t offset, char* buffer, std::int64_t count) {
  touch();
  if (offset < 0) throw Exception(ErrorCode::IOError, location(), "negative read position");
  bool waitedForTheStore = false;
  for (;;) {
    bool storeMayLag = false;
    {
      std::lock_guard lock(mutex_);
      if (offset >= size_) return -1;
      count = std::min(count, size_ - offset);
      if (count <= 0) return 0;
      if (const auto n = serveCachedLocked(offset, buffer, count); n > 0) return n;
      if (!bodyMayLackPendingWritesLocked()) {
        // A change of this file that the store has not received yet (its creation, a move
        // onto it, a truncation) leaves older bytes or none there: the store catches up first.
        if (waitedForTheStore || !record_->isFrozenByChange()) break;
        storeMayLag = true;
      }
    }
    if (storeMayLag) {
      waitForEarlierChanges();
      waitedForTheStore = true;
    } else if (!waitForPendingWrites()) {
      break;
    }
  }
  return fetch(offset, buffer, count);
}

std::optional<fsp::extensions::LocalBytes> WorkingFileEntry::locateAt(std::int64_t offset,
                                                                      std::int64_t count) {
  touch();
  if (offset < 0) throw Exception(ErrorCode::IOError, location(), "negative read position");
  std::lock_guard lock(mutex_);
  if (offset >= size_) return fsp::extensions::LocalBytes{};
  count = std::min(count, size_ - offset);
  if (resource_->queryRange(offset, count).status != RangeStatus::FULLY_CACHED) return std::nullopt;
  auto located = resource_->localBytes(offset, count);
  if (located) nextSequential_ = offset + count;
  return located;
}

void WorkingFileEntry::waitForEarlierChanges() {
  if (const auto executor = settings_.executor ? settings_.executor->load() : nullptr) {
    executor->waitForPendingToFinish();
  }
}

std::int64_t WorkingFileEntry::serveCachedLocked(std::int64_t offset, char* buffer,
                                                 std::int64_t count) {
  const auto n = readCachedLocked(offset, buffer, count);
  if (n > 0) nextSequential_ = offset + n;
  return n;
}

std::int64_t WorkingFileEntry::readCachedLocked(std::int64_t offset, char* buffer,
                                                std::int64_t count) {
  const auto query = resource_->queryRange(offset, count);
  if (query.status == RangeStatus::FULLY_CACHED) return resource_->read(offset, buffer, count);
  if (query.status == RangeStatus::PARTIALLY_CACHED && query.gap && query.gap->from > offset) {
    return resource_->read(offset, buffer, query.gap->from - offset);
  }
  return 0;
}

bool WorkingFileEntry::bodyMayLackPendingWritesLocked() const {
  return bodyLost_ || resource_->hasFailed();
}

// Hands the pending blocks over and waits until this file's transactions have drained (or the
// entry is aborted). Returns whether there was anything to wait for, so the caller reads the
// cache again before asking the store.
bool WorkingFileEntry::waitForPendingWrites() {
  enqueueProviderWrite();
  std::unique_lock lock(pendingMutex_);
  // An aborted entry waits for nothing: its file is gone or being replaced.
  if (pendingTransactions_ == 0 || aborted_.load()) return false;
  const auto period = waitForZeroPeriod();
  while (pendingTransactions_ > 0 && !aborted_.load()) {
    pendingChanged_.wait_for(lock, period);
  }
  return true;
}

std::int64_t WorkingFileEntry::fetchWindowLocked(std::int64_t offset, std::int64_t count) const {
  const auto limit = std::max<std::int64_t>(settings_.maxReadPayloadSize, 1);
  if (offset == 0) {
    // Reading from the start is the strongest sign of a sequential reader.
    readAhead_ = limit;
  } else if (offset == nextSequential_ && readAhead_ > 0) {
    readAhead_ = std::min(limit, std::max(readAhead_ * 2, count));
  } else {
    readAhead_ = std::min(limit, std::max(count, kMinimumFetch));
  }
  auto window = std::min(readAhead_, size_ - offset);
  // Never fetch over cached bytes: they may be writes the store has not seen yet.
  if (body_) {
    if (const auto next = body_->firstCachedAfter(offset))
      window = std::min(window, *next - offset);
  }
  return std::max<std::int64_t>(window, 1);
}

std::int64_t WorkingFileEntry::fetch(std::int64_t offset, char* buffer, std::int64_t count) {
  std::lock_guard inner(innerMutex_);
  std::int64_t window = 0;
  std::uint64_t generation = 0;
  bool cacheable = false;
  {
    std::lock_guard lock(mutex_);
    // Another reader's fetch, which this one waited for, may have brought the bytes: the
    // kernel reads ahead on several threads at once, and asking the store again would fetch
    // them twice and, on a stream that reads ahead, throw away what it has in flight.
    if (offset < size_) {
      if (const auto n = serveCachedLocked(offset, buffer, std::min(count, size_ - offset)); n > 0)
        return n;
    }
    window = fetchWindowLocked(offset, count);
    generation = generation_;
    cacheable = !resource_->hasFailed();
  }
  ensureInnerStreamLocked(false);
  seekInnerLocked(offset);
  if (!cacheable) {
    const auto n = readInnerLocked(buffer, std::min(count, window));
    return n > 0 ? n : -1;
  }
  // Not zero-filled: every byte served is one the store sent.
  const std::unique_ptr<char[]> data(new char[static_cast<std::size_t>(window)]);
  const auto n = readInnerLocked(data.get(), window);
  if (n <= 0) return -1;
  {
    std::lock_guard lock(mutex_);
    // A write that arrived meanwhile is newer than what the store sent: keep it.
    if (generation == generation_) resource_->write(offset, data.get(), n);
    nextSequential_ = offset + std::min(n, count);
  }
  const auto served = std::min(n, count);
  std::memcpy(buffer, data.get(), static_cast<std::size_t>(served));
  return served;
}

// --- writing ---

std::int64_t WorkingFileEntry::writeAt(std::int64_t offset, const char* data, std::int64_t count) {
  if (offset < 0) throw Exception(ErrorCode::IOError, location(), "negative write position");
  if (count <= 0) return 0;
  if (settings_.eventLatch) settings_.eventLatch->trigger();
  touch();
  checkSpace(offset, count);
  checkCacheRoom(offset, count);
  std::vector<std::shared_ptr<PendingWriteBlock>> beforeGap;
  std::vector<std::shared_ptr<PendingWriteBlock>> handOver;
  std::int64_t extendTo = -1;
  std::lock_guard order(submitMutex_);
  // Recorded before the bytes land in the body: a crash in between then replays the write with
  // the bytes that were there, which changes nothing, rather than letting the records of
  // earlier writes of the range replay bytes that no record accounts for.
  const auto own =
      recordInJournal(change(FILE_WRITE, ChangeAction::WriteRange).range(offset, count));
  try {
    std::lock_guard lock(mutex_);
    checkGrowthLocked(offset + count);
    if (offset > size_) {
      // The gap is a hole, here and on the store: an extension, then the write. Merging, the
      // write's own replay extends the store's file (a store's stream writes past its end
      // with zeros between), which saves a truncation and a new stream, and the blocks before
      // wait for the pages of the gap that the kernel's writeback threads send late.
      truncateBodyLocked(offset);
      if (settings_.mergeWrites) {
        accountSizeChangeLocked(size_, offset);
        size_ = offset;
      } else {
        resizeLocked(offset, beforeGap);
        extendTo = offset;
      }
    }
    writeLocked(offset, data, count, handOver);
  } catch (...) {
    retract(own);
    throw;
  }
  submitWrites(beforeGap);
  // The write's record says the file grows: a write past the end extends it when replayed too.
  if (extendTo >= 0) submitTruncation(extendTo, std::nullopt);
  if (own) unconfirmedWrites_.push_back(*own);
  submitWrites(handOver);
  return count;
}

void WorkingFileEntry::truncate(std::uint64_t size) {
  if (size > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    throw Exception(ErrorCode::CacheSpaceExhausted, location(),
                    "file too large: " + std::to_string(size) + " bytes");
  }
  if (settings_.eventLatch) settings_.eventLatch->trigger();
  touch();
  const auto newSize = static_cast<std::int64_t>(size);
  std::vector<std::shared_ptr<PendingWriteBlock>> handOver;
  bool closeAfter = false;
  std::lock_guard order(submitMutex_);
  // Recorded before the body is cut, for the same reason as a write.
  const auto own = recordInJournal(change(FILE_WRITE, ChangeAction::Truncate).range(0, newSize));
  try {
    std::lock_guard lock(mutex_);
    // A size the body cannot take is refused as such, even where the quota would refuse it
    // too; an extension of the body is undone when the quota then refuses the growth.
    const auto before = size_;
    truncateBodyLocked(newSize);
    try {
      checkGrowthLocked(newSize);
    } catch (...) {
      if (newSize > before && body_ && !body_->hasFailed()) body_->truncate(before, newSize);
      throw;
    }
    resizeLocked(newSize, handOver);
    // Held as a writer's open holds it, so that a folder listed again from the store before
    // the truncation reaches it keeps the new size; the closing transaction releases it.
    holdRecordLocked();
    if (openStreams_.empty()) {
      state_ = 1;
      ++closesQueued_;
      closeAfter = true;
    }
  } catch (...) {
    retract(own);
    throw;
  }
  submitWrites(handOver);
  submitTruncation(newSize, own);
  if (closeAfter) {
    submitClose();
  }
}

void WorkingFileEntry::truncateBodyLocked(std::int64_t size) {
  if (body_ && !body_->hasFailed() && !settings_.contentCacheDisabled) {
    const int error = body_->truncate(size, size_);
    if (error == EFBIG) {
      throw Exception(ErrorCode::CacheSpaceExhausted, location_,
                      "file too large: the content cache's file system cannot hold " +
                          std::to_string(size) + " bytes");
    }
    if (error != 0) {
      // The body cannot follow: it goes, and reads wait for the store to have the change.
      OVERLAY_LOG(log::error) << "The cached body of " << location_.toString()
                              << " could not be truncated (" << std::strerror(error)
                              << "); it is dropped";
      holdUnsentBytesLocked();
      resource_->doRemove();
      bodyLost_ = true;
      return;
    }
    noteBodyWrittenLocked();
  }
}

// The journal's record of the change refers to the body's bytes: its next sync flushes them.
void WorkingFileEntry::noteBodyWrittenLocked() {
  if (settings_.journal && body_) settings_.journal->noteBodyWritten(body_->descriptor());
}

void WorkingFileEntry::resizeLocked(std::int64_t size,
                                    std::vector<std::shared_ptr<PendingWriteBlock>>& handOver) {
  // What was written before goes to the store before the truncation.
  handOverLocked(handOver);
  if (size < size_) {
    for (const auto& block : handOver) block->clip(size);
    for (const auto& block : unsentBodyBlocks_) block->clip(size);
    std::erase_if(unsentBodyBlocks_, [](const auto& block) { return block->size() == 0; });
  }
  accountSizeChangeLocked(size_, size);
  size_ = size;
  ++generation_;
  record_->setSize(static_cast<std::uint64_t>(size_)).setLastModified(resource_->lastModified());
}

void WorkingFileEntry::accountSizeChangeLocked(std::int64_t from, std::int64_t to) {
  if (!settings_.quotaAccountant || from == to) return;
  if (to > from) {
    settings_.quotaAccountant->addGrowth(static_cast<std::uint64_t>(to - from));
  } else {
    settings_.quotaAccountant->releaseSpace(static_cast<std::uint64_t>(from - to));
  }
}

void WorkingFileEntry::submitTruncation(std::int64_t size, std::optional<std::uint64_t> own) {
  // Counted with the writes: it changes the file's bytes, and the queue has no kind of its own
  // for it.
  const auto truncation = change(FILE_WRITE, ChangeAction::Truncate).range(0, size);
  submit([self = shared_from_this(), size](const ReplayChange&) { self->runTruncate(size); }, [] {},
         truncation, settings_.minQueueItemWeight, receiptWith(truncation, own));
}

void WorkingFileEntry::submitClose() {
  submit([self = shared_from_this()](const ReplayChange&) { self->runClose(); },
         [self = shared_from_this()] { self->finishClose(); },
         change(FILE_CLOSE, ChangeAction::CloseFile), settings_.minQueueItemWeight);
}

std::int64_t WorkingFileEntry::append(const char* data, std::int64_t count) {
  std::int64_t end = 0;
  {
    std::lock_guard lock(mutex_);
    end = size_;
  }
  return writeAt(end, data, count);
}

void WorkingFileEntry::checkSpace(std::int64_t offset, std::int64_t count) {
  // A store without a cache of its own would answer from its storage figures, which for a
  // remote store is a round trip on the caller's thread at every write; the quota
  // accountant's estimate (checkGrowthLocked) stands for those, and counts the bytes still
  // queued, which the store's own figures cannot.
  if (!settings_.storeReportsCacheUsage) return;
  const auto available = settings_.innerRoot->getProviderCacheUsage().getSpaceAvailable();
  if (available < static_cast<std::uint64_t>(offset + count)) {
    // What was written so far still goes to the store.
    enqueueProviderWrite();
    throw Exception(ErrorCode::CacheSpaceExhausted, location(), "the store's cache has no room");
  }
}

void WorkingFileEntry::checkCacheRoom(std::int64_t offset, std::int64_t count) {
  if (!settings_.cacheRoom || !body_) return;
  std::int64_t end = 0;
  {
    std::lock_guard lock(mutex_);
    if (body_->hasFailed()) return;
    end = size_;
  }
  // Only bytes past the end take new room: an overwrite reuses the body's blocks, and a gap
  // before the write is a hole.
  const auto added = offset + count - std::max(offset, end);
  if (added <= 0 || settings_.cacheRoom(static_cast<std::uint64_t>(added))) return;
  // What was written so far still goes to the store.
  enqueueProviderWrite();
  throw Exception(ErrorCode::CacheSpaceExhausted, location(),
                  "the content cache has no room for the write");
}

// Only growth counts (see QuotaAccountant.h): an overwrite takes no space in the store.
void WorkingFileEntry::checkGrowthLocked(std::int64_t end) const {
  if (!settings_.quotaAccountant || state_ == 1 || end <= size_) return;
  const auto limit = settings_.quotaAccountant->getSpaceAvailable();
  if (limit && static_cast<std::uint64_t>(end - size_) > *limit) {
    throw Exception(ErrorCode::QuotaExceeded, location_, "the change would exceed the quota");
  }
}

void WorkingFileEntry::writeLocked(std::int64_t offset, const char* data, std::int64_t count,
                                   std::vector<std::shared_ptr<PendingWriteBlock>>& handOver) {
  bool inBody = false;
  if (!resource_->hasFailed()) {
    resource_->write(offset, data, count);
    // A body that just failed keeps what it had; the unsent bytes are taken out of it now.
    if (resource_->hasFailed()) holdUnsentBytesLocked();
    inBody = !resource_->hasFailed() && !settings_.contentCacheDisabled;
    if (inBody) noteBodyWrittenLocked();
  }
  recordLocked(offset, data, count, inBody, handOver);
  accountSizeChangeLocked(size_, std::max(size_, offset + count));
  size_ = std::max(size_, offset + count);
  ++generation_;
  record_->setSize(static_cast<std::uint64_t>(size_)).setLastModified(resource_->lastModified());
}

void WorkingFileEntry::recordLocked(std::int64_t offset, const char* data, std::int64_t count,
                                    bool inBody,
                                    std::vector<std::shared_ptr<PendingWriteBlock>>& handOver) {
  if (!inBody) holdUnsentBytesLocked();
  const auto first = handOver.size();
  pendingWrites_.record(offset, data, count, inBody, settings_.contentCacheDisabled, handOver);
  noteHandedOverLocked(handOver, first);
}

void WorkingFileEntry::handOverLocked(std::vector<std::shared_ptr<PendingWriteBlock>>& handOver) {
  const auto first = handOver.size();
  pendingWrites_.takeAll(handOver);
  noteHandedOverLocked(handOver, first);
}

void WorkingFileEntry::noteHandedOverLocked(
    const std::vector<std::shared_ptr<PendingWriteBlock>>& handOver, std::size_t first) {
  for (auto i = first; i < handOver.size(); ++i) {
    if (handOver[i]->refersToBody()) unsentBodyBlocks_.push_back(handOver[i]);
  }
}

std::int64_t WorkingFileEntry::readBodyLocked(std::int64_t position, char* buffer,
                                              std::int64_t count) const {
  return body_ ? body_->readBack(position, buffer, count) : 0;
}

void WorkingFileEntry::holdUnsentBytesLocked() {
  const auto reader = [this](std::int64_t position, char* buffer, std::int64_t count) {
    return readBodyLocked(position, buffer, count);
  };
  const auto materialise = [&](PendingWriteBlock& block) {
    try {
      block.materialise(reader);
    } catch (...) {
      logCaughtException("Unexpected exception during write operation");
    }
  };
  for (const auto& block : unsentBodyBlocks_) materialise(*block);
  unsentBodyBlocks_.clear();
  for (const auto& block : pendingWrites_.blocks()) materialise(*block);
}

void WorkingFileEntry::enqueueProviderWrite() {
  std::lock_guard order(submitMutex_);
  std::vector<std::shared_ptr<PendingWriteBlock>> handOver;
  {
    std::lock_guard lock(mutex_);
    handOverLocked(handOver);
  }
  submitWrites(handOver);
}

void WorkingFileEntry::submitWrites(const std::vector<std::shared_ptr<PendingWriteBlock>>& blocks) {
  for (const auto& block : blocks) {
    if (!block || block->size() == 0) continue;
    submit([self = shared_from_this(),
            block](const ReplayChange& replayed) { self->writeInner(block, replayed.flags); },
           [self = shared_from_this(), block] { self->forgetUnsent(block); },
           change(FILE_WRITE, ChangeAction::WriteRange).range(block->start(), block->size()),
           transactionWeight(settings_.minQueueItemWeight, block->size()));
  }
}

void WorkingFileEntry::flushContentCache() {
  enqueueProviderWrite();
  std::unique_lock lock(pendingMutex_);
  pendingChanged_.wait(lock, [this] { return pendingTransactions_ == 0; });
}

// --- closing ---

void WorkingFileEntry::close(std::uint64_t streamId) {
  std::lock_guard order(submitMutex_);
  std::vector<std::shared_ptr<PendingWriteBlock>> handOver;
  bool lastClose = false;
  {
    std::lock_guard lock(mutex_);
    handOverLocked(handOver);
    const bool wasOpen = openStreams_.erase(streamId) > 0;
    writableStreams_.erase(streamId);
    lastClose = wasOpen && openStreams_.empty();
    if (lastClose) {
      state_ = 1;
      ++closesQueued_;
    }
  }
  submitWrites(handOver);
  if (lastClose) {
    submitClose();
  }
}

void WorkingFileEntry::releaseStream(std::uint64_t streamId) {
  {
    std::lock_guard lock(mutex_);
    if (!openStreams_.count(streamId)) return;
  }
  OVERLAY_LOG(log::notice) << "A stream on " << location().toString()
                           << " was dropped without being closed; closing it.";
  close(streamId);
}

// --- transactions ---

class WorkingFileEntry::PendingTicket {
 public:
  explicit PendingTicket(std::shared_ptr<WorkingFileEntry> entry) : entry_(std::move(entry)) {
    std::lock_guard lock(entry_->pendingMutex_);
    ++entry_->pendingTransactions_;
  }
  // Runs when the transaction has run or was dropped unrun: either way it is no longer
  // pending, and waiters must not wait for it for ever.
  ~PendingTicket() {
    std::lock_guard lock(entry_->pendingMutex_);
    --entry_->pendingTransactions_;
    entry_->pendingChanged_.notify_all();
  }

 private:
  std::shared_ptr<WorkingFileEntry> entry_;
};

std::optional<std::uint64_t> WorkingFileEntry::recordInJournal(const ReplayChange& change) {
  if (!settings_.journal) return std::nullopt;
  return settings_.journal->append(change);
}

void WorkingFileEntry::retract(std::optional<std::uint64_t> record) {
  if (record) settings_.journal->confirm(*record);
}

std::shared_ptr<JournalReceipt> WorkingFileEntry::journalReceipt(const ReplayChange& change) {
  // A write was recorded when it was made; a stream following a move needs no record of its
  // own (the move has one).
  const bool ownRecord =
      change.action != ChangeAction::WriteRange && change.action != ChangeAction::Relocate;
  return receiptWith(change, ownRecord ? recordInJournal(change) : std::nullopt);
}

std::shared_ptr<JournalReceipt> WorkingFileEntry::receiptWith(const ReplayChange& change,
                                                              std::optional<std::uint64_t> own) {
  if (!settings_.journal) return nullptr;
  std::vector<std::uint64_t> records;
  if (change.action == ChangeAction::CloseFile || change.action == ChangeAction::Truncate ||
      change.action == ChangeAction::OpenFile) {
    records.swap(unconfirmedWrites_);
  }
  if (own) records.push_back(*own);
  if (records.empty()) return nullptr;
  return std::make_shared<JournalReceipt>(settings_.journal, std::move(records));
}

ReplayChange WorkingFileEntry::change(ObservableTransactionType kind, ChangeAction action) const {
  return ReplayChange(kind, action, location());
}

void WorkingFileEntry::submit(std::function<void(const ReplayChange&)> run,
                              std::function<void()> moot, const ReplayChange& change, double weight,
                              std::optional<std::shared_ptr<JournalReceipt>> recorded) {
  const auto kind = change.kind;
  const auto executor = settings_.executor ? settings_.executor->load() : nullptr;
  if (!executor) {
    OVERLAY_LOG(log::error) << "No executor for " << kind << " of " << location().toString();
    return;
  }
  auto ticket = std::make_shared<PendingTicket>(shared_from_this());
  const auto receipt = recorded ? std::move(*recorded) : journalReceipt(change);
  // Both halves hold the ticket: the transaction is pending until whichever runs has run.
  ReplayTask task{change,
                  [self = shared_from_this(), run = std::move(run), ticket, receipt,
                   retry = settings_.unavailableRetry](const ReplayChange& replayed) {
                    if (replayed.flags & ReplayChange::kFollowsMove) {
                      self->followMove(replayed.location);
                    }
                    // A failure is logged where it happens; a later process could not do
                    // better with the record, so it is confirmed either way, unless the
                    // provider shut down meanwhile (the store may have been away): then the
                    // record stays for the next process, which does the change again.
                    try {
                      run(replayed);
                    } catch (...) {
                      if (receipt && !retry.stopped()) receipt->confirm();
                      throw;
                    }
                    if (receipt && !retry.stopped()) receipt->confirm();
                  },
                  nullptr, weight};
  if (moot) {
    task.moot = [moot = std::move(moot), ticket, receipt] {
      moot();
      if (receipt) receipt->confirm();
    };
  }
  executor->submit(std::move(task));
}

// --- the content cache's view ---

std::size_t WorkingFileEntry::openCount() const {
  std::lock_guard lock(mutex_);
  return openStreams_.size();
}

bool WorkingFileEntry::isIdle() {
  if (pins_.load() > 0) return false;
  {
    std::lock_guard lock(mutex_);
    if (!openStreams_.empty() || !pendingWrites_.empty()) return false;
  }
  std::lock_guard pending(pendingMutex_);
  return pendingTransactions_ == 0;
}

int WorkingFileEntry::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

void WorkingFileEntry::stampAndWake() {
  touch();
  std::lock_guard lock(pendingMutex_);
  pendingChanged_.notify_all();
}

void WorkingFileEntry::removeCachedBody() {
  std::lock_guard lock(mutex_);
  holdUnsentBytesLocked();
  resource_->doRemove();
  bodyLost_ = true;
  ++generation_;
}

std::shared_ptr<FileMetadata> WorkingFileEntry::record() const {
  std::lock_guard lock(mutex_);
  return record_;
}

void WorkingFileEntry::adoptRecord(const std::shared_ptr<FileMetadata>& record) {
  if (!record) return;
  std::lock_guard lock(mutex_);
  if (record == record_) return;
  record->setSize(static_cast<std::uint64_t>(size_)).setLastModified(record_->getLastModified());
  if (writesHeld_) {
    record->holdForWrites();
    record_->releaseWrites();
  }
  record_ = record;
}

void WorkingFileEntry::holdRecordLocked() {
  if (writesHeld_) return;
  writesHeld_ = true;
  record_->holdForWrites();
}

void WorkingFileEntry::releaseRecordLocked() {
  if (!writesHeld_) return;
  writesHeld_ = false;
  record_->releaseWrites();
}

void WorkingFileEntry::moveTo(const fsp::StorageIRI& location) {
  fsp::StorageIRI from;
  {
    std::lock_guard lock(mutex_);
    resource_->move(location);
    from = location_;
    location_ = location;
  }
  std::lock_guard order(submitMutex_);
  // Taken out when the move takes the file's unsent creation along (see ChangeAbsorber): the
  // stream has then followed already.
  submit(
      [self = shared_from_this(), location](const ReplayChange&) { self->relocateInner(location); },
      [self = shared_from_this(), location] { self->relocateInner(location); },
      ReplayChange(FILE_CLOSE, ChangeAction::Relocate, from).to(location),
      settings_.minQueueItemWeight);
}

void WorkingFileEntry::detach() {
  std::lock_guard lock(mutex_);
  // Another entry may take the body over (and find it stale): what is unsent leaves it now.
  holdUnsentBytesLocked();
  // A stream still open here (a caller that has not reopened after a replacing move) must not
  // reach the next entry's body through the name; see FilesystemCacheResource.
  if (body_) body_->keepToDescriptor();
  // A body already removed has nothing left to stamp (and asking costs a look-up).
  if (openStreams_.empty() && !bodyLost_ && !bodyCompleteLocked()) stampBodyLocked();
}

bool WorkingFileEntry::bodyCompleteLocked() const {
  return body_ && !body_->hasFailed() && !bytesLost_ && body_->coversWhole(size_);
}

// A complete body carries the file's last-modified time, a partial one the epoch (so the
// staleness check of a later entry discards it).
void WorkingFileEntry::stampBodyLocked() {
  if (!body_) return;
  if (!bodyCompleteLocked()) {
    body_->stamp(boost::posix_time::from_time_t(0));
  } else if (mode_ == CacheMode::PERSISTENT && !settings_.journal) {
    // With a journal, its syncs take the bodies to disk with the records (see ChangeJournal):
    // one flush a close would cost a busy writer a disk round trip a file.
    body_->sync(record_->getLastModified());
  } else {
    body_->stamp(record_->getLastModified());
  }
}

// --- queries ---

fsp::StorageIRI WorkingFileEntry::location() const {
  std::lock_guard lock(mutex_);
  return location_;
}

std::uint64_t WorkingFileEntry::size() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::uint64_t>(size_);
}

bool WorkingFileEntry::isOpenForWriting() const {
  std::lock_guard lock(mutex_);
  return !writableStreams_.empty();
}

boost::posix_time::ptime WorkingFileEntry::lastModified() const {
  return record()->getLastModified();
}

std::shared_ptr<CacheResource> WorkingFileEntry::resource() const {
  std::lock_guard lock(mutex_);
  return resource_;
}

}  // namespace storage::overlayprovider
