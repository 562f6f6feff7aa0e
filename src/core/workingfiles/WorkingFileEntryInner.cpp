// WorkingFileEntry: the file's one stream on the inner store and the transactions that use it
// (open, write, close, relocation). Every function here runs with innerMutex_ held, on the
// executor's thread, except the read-miss helpers, which the caller's thread uses.
#include "core/support/InnerLocation.h"
#include "core/support/OverlayLog.h"
#include "core/workingfiles/WorkingFileEntry.h"

#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/extensions/IWholeFileWrites.h>

#include <stdexcept>

namespace storage::overlayprovider {

using fsp::ErrorCode;
using fsp::Exception;
namespace log = foundation::log;

namespace {

// A store that says it is unavailable may answer the next time; anything else is final.

}  // namespace

fsp::StorageItem WorkingFileEntry::innerItemLocked() const {
  return innerItemFor(*settings_.innerRoot, innerLocation_);
}

void WorkingFileEntry::openInnerLocked(const fsp::ByteStreamOpenOptions& options) {
  closeInnerLocked();
  // The entry seeks explicitly, so the inner stream is never in append mode.
  fsp::ByteStreamOpenOptions innerOptions = options;
  innerOptions.read = true;
  innerOptions.write = true;
  innerOptions.append = false;
  if (innerOptions.create && replaceOnCreation_) innerOptions.truncate = true;
  innerStream_ = innerItemLocked().openStream(innerOptions);
  // Only the first open after following a move may replace: a later creating open (a new
  // file under this name after a removal) creates as asked.
  replaceOnCreation_ = false;
  innerWritable_ = true;
  innerPosition_ = 0;
}

namespace {

// The store said it cannot answer now, through its provider or through one of its streams:
// the same call may succeed when tried again.
bool isUnavailable(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const Exception& e) {
    return e.getErrorCode() == ErrorCode::Unavailable;
  } catch (const fsp::ByteStreamFailure& e) {
    return e.getErrorCode() == ErrorCode::Unavailable;
  } catch (...) {
    return false;
  }
}

}  // namespace

void WorkingFileEntry::ensureInnerStreamLocked(bool forWriting, bool creating) {
  if (innerStream_ && (innerWritable_ || !forWriting)) return;
  if (forWriting) {
    openInnerLocked(creating ? fsp::ByteStreamOpenOptions::readWriteCreate()
                             : fsp::ByteStreamOpenOptions::readWrite());
    return;
  }
  innerStream_ = innerItemLocked().openReadOnlyStream();
  innerWritable_ = false;
  innerPosition_ = 0;
}

void WorkingFileEntry::seekInnerLocked(std::int64_t offset) {
  if (innerPosition_ == offset) return;
  innerPosition_ = -1;
  if (innerStream_->seek(static_cast<long>(offset), std::ios_base::beg) != offset) {
    throw Exception(ErrorCode::IOError, location(), "the store's stream did not seek");
  }
  innerPosition_ = offset;
}

std::int64_t WorkingFileEntry::readInnerLocked(char* buffer, std::int64_t count) {
  std::int64_t done = 0;
  while (done < count) {
    const auto n = innerStream_->read(buffer + done, static_cast<long>(count - done));
    if (n <= 0) break;
    done += n;
  }
  innerPosition_ += done;
  return done;
}

const char* WorkingFileEntry::blockBytesLocked(const std::shared_ptr<PendingWriteBlock>& block) {
  std::lock_guard lock(mutex_);
  std::erase(unsentBodyBlocks_, block);
  if (!block->refersToBody()) return block->bytes().data();
  innerBuffer_.resize(static_cast<std::size_t>(block->size()));
  if (readBodyLocked(block->start(), innerBuffer_.data(), block->size()) != block->size()) {
    // Only the process's own failure can get here: the body is read through the descriptor
    // that wrote it, which outlives a deletion of the body or of its folder from outside.
    bytesLost_ = true;
    const auto lost = std::to_string(block->size()) + " bytes written to " + location_.toString() +
                      " at offset " + std::to_string(block->start()) +
                      " never reach the store: the cached body no longer holds them";
    OVERLAY_LOG(log::error) << lost;
    throw std::runtime_error(lost);
  }
  return innerBuffer_.data();
}

void WorkingFileEntry::writeInnerLocked(const std::shared_ptr<PendingWriteBlock>& block,
                                        bool creating) {
  const char* bytes = blockBytesLocked(block);
  if (creating && !innerStream_ && settings_.noteReplayedChange)
    settings_.noteReplayedChange(innerLocation_, ReplayedChange::Created);
  ensureInnerStreamLocked(true, creating);
  seekInnerLocked(block->start());
  std::int64_t done = 0;
  while (done < block->size()) {
    const auto n = innerStream_->write(bytes + done, static_cast<long>(block->size() - done));
    if (n <= 0) throw Exception(ErrorCode::IOError, location(), "the store's stream took nothing");
    done += n;
    innerPosition_ += n;
  }
  innerWritten_ = true;
}

void WorkingFileEntry::writeWholeFileLocked(const std::shared_ptr<PendingWriteBlock>& block) {
  const char* bytes = blockBytesLocked(block);
  const auto item = innerItemLocked();
  const auto* whole =
      dynamic_cast<const fsp::extensions::IWholeFileWrites*>(item.getProvider().get());
  closeInnerLocked();
  const auto note = [&](ReplayedChange change) {
    if (settings_.noteReplayedChange) settings_.noteReplayedChange(innerLocation_, change);
  };
  note(ReplayedChange::Created);
  if (whole == nullptr) {
    openInnerLocked(fsp::ByteStreamOpenOptions::overwrite());
    writeInnerLocked(block, false);  // the close stamps the time
    return;
  }
  note(ReplayedChange::Written);
  note(ReplayedChange::AttributesSet);
  const auto lastModified = record()->getLastModified();
  whole->writeWholeFile(item.getLocation(),
                        std::string_view(bytes, static_cast<std::size_t>(block->size())),
                        lastModified);
  replaceOnCreation_ = false;
  innerWritten_ = true;
  innerStampedAt_ = lastModified;
}

void WorkingFileEntry::writeInner(const std::shared_ptr<PendingWriteBlock>& block, int flags) {
  std::lock_guard inner(innerMutex_);
  retryingInnerCall(
      [&] {
        if (flags & ReplayChange::kWholeFile) {
          writeWholeFileLocked(block);
        } else {
          writeInnerLocked(block, (flags & ReplayChange::kCreatesFile) != 0);
        }
      },
      "Unexpected exception during write operation");
}

void WorkingFileEntry::forgetUnsent(const std::shared_ptr<PendingWriteBlock>& block) {
  std::lock_guard lock(mutex_);
  std::erase(unsentBodyBlocks_, block);
}

bool WorkingFileEntry::retryingInnerCall(const std::function<void()>& call, const char* failure) {
  const auto since = UnavailableRetry::Clock::now();
  for (int attempt = 1;; ++attempt) {
    try {
      call();
      return true;
    } catch (...) {
      innerPosition_ = -1;  // the next attempt seeks again
      const bool unavailable = isUnavailable(std::current_exception());
      // A stream the store could not answer on is kept: one that resumes on a new connection
      // (sftp's) sends again what it had not seen answered. Any other failure may have broken
      // it, and the next attempt (or write) opens a new one.
      if (unavailable && settings_.unavailableRetry.again(attempt, since)) continue;
      innerStream_.reset();
      innerWritable_ = false;
      logCaughtException(failure);
      return false;
    }
  }
}

void WorkingFileEntry::closeInnerLocked() {
  if (innerStream_ && innerWritable_ && settings_.noteReplayedChange)
    settings_.noteReplayedChange(innerLocation_, ReplayedChange::Written);
  auto stream = std::move(innerStream_);
  innerStream_.reset();
  innerWritable_ = false;
  innerPosition_ = -1;
  if (stream) stream->close();
}

void WorkingFileEntry::runOpen(const fsp::ByteStreamOpenOptions& options,
                               const std::function<void()>& onOpened) {
  {
    std::lock_guard inner(innerMutex_);
    if (options.create && settings_.noteReplayedChange)
      settings_.noteReplayedChange(innerLocation_, ReplayedChange::Created);
    // A created or emptied file gets its time stamped at close even if nothing is written.
    if (retryingInnerCall([&] { openInnerLocked(options); },
                          "Unexpected exception during open operation")) {
      innerWritten_ = true;
    }
  }
  try {
    if (onOpened) onOpened();
  } catch (...) {
    logCaughtException("Unexpected exception during open operation");
  }
}

void WorkingFileEntry::runTruncate(std::int64_t size) {
  std::lock_guard inner(innerMutex_);
  const auto truncated = retryingInnerCall(
      [&] {
        closeInnerLocked();
        const auto item = innerItemLocked();
        if (settings_.noteReplayedChange)
          settings_.noteReplayedChange(innerLocation_, ReplayedChange::Written);
        item.getProvider()->truncateToSize(item.getLocation(), static_cast<std::uint64_t>(size));
      },
      "Unexpected exception during truncate operation");
  // The closing transaction stamps the store's copy with the file's time.
  if (truncated) innerWritten_ = true;
}

void WorkingFileEntry::runClose() {
  bool written = false;
  {
    std::lock_guard inner(innerMutex_);
    // The stream stays until its close succeeds, so that a store that was away gets the close
    // (and what the stream had not seen answered) once it is back.
    retryingInnerCall(
        [&] {
          if (!innerStream_) return;
          if (innerWritable_ && settings_.noteReplayedChange)
            settings_.noteReplayedChange(innerLocation_, ReplayedChange::Written);
          innerStream_->close();
          innerStream_.reset();
          innerWritable_ = false;
          innerPosition_ = -1;
        },
        "Unexpected exception during close operation");
    written = innerWritten_;
    innerWritten_ = false;
    const auto lastModified = record()->getLastModified();
    if (written) updateStoreAfterWrites(lastModified, innerStampedAt_ == lastModified);
    innerStampedAt_.reset();
  }
  finishClose();
}

void WorkingFileEntry::finishClose() {
  std::lock_guard lock(mutex_);
  --closesQueued_;
  // A stream opened meanwhile keeps the entry open, and a later session's close still queued
  // has its writes behind this task: each of those stamps the body and releases in its turn.
  if (openStreams_.empty() && closesQueued_ == 0) {
    state_ = 0;
    if (!aborted_.load()) stampBodyLocked();
    // Every write queued before the last close has been replayed before this task.
    releaseRecordLocked();
  }
}

void WorkingFileEntry::updateStoreAfterWrites(const boost::posix_time::ptime& lastModified,
                                              bool stamped) {
  const auto item = innerItemLocked();
  if (!stamped) {
    if (settings_.noteReplayedChange)
      settings_.noteReplayedChange(innerLocation_, ReplayedChange::AttributesSet);
    retryingInnerCall([&] { item.setLastModified(lastModified); },
                      "Exception during attempt to set last modified time");
  }
  if (settings_.readAttributesLazily) {
    record()->markExtendedAttributesUnread();
    return;
  }
  try {
    // A store that keeps none (sftp) is not asked: it would only refuse, a call per file.
    if (settings_.storeKeepsExtendedAttributes) {
      record()->setExtendedAttributes(item.getExtendedAttributes());
    }
  } catch (...) {
    logCaughtException("Unexpected exception during attempt to update extended attributes");
  }
}

void WorkingFileEntry::followMove(const fsp::StorageIRI& location) {
  std::lock_guard inner(innerMutex_);
  if (innerLocation_ == location) return;
  // The chain starts with the file's creation, so no stream is open at the old name.
  innerLocation_ = location;
  replaceOnCreation_ = true;
}

void WorkingFileEntry::relocateInner(const fsp::StorageIRI& location) {
  std::lock_guard inner(innerMutex_);
  try {
    closeInnerLocked();
  } catch (...) {
    logCaughtException("Unexpected exception during close operation");
  }
  innerLocation_ = location;
}

}  // namespace storage::overlayprovider
