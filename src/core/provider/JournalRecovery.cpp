#include "core/provider/JournalRecovery.h"

#include "core/cacheresources/CacheResourceLog.h"
#include "core/journal/RecoveredWrites.h"
#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/text/Unicode.h>

#include <algorithm>
#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>
#include <fstream>
#include <ios>

namespace storage::overlayprovider {

namespace fs = boost::filesystem;
namespace fsp = foundation::storage::provider;
namespace log = foundation::log;
using fsp::ErrorCode;

namespace {

fsp::StorageIRI overlayLocation(const fsp::StorageIRI& recorded) {
  return fsp::StorageIRI(u"overlay", recorded.getPath());
}

// The refusal that says the change's result is already there.
bool alreadyDone(ChangeAction action, ErrorCode code) {
  switch (action) {
    case ChangeAction::CreateFile:
    case ChangeAction::CreateFolder:
    case ChangeAction::CreateFolderTree:
      return code == ErrorCode::AlreadyExists;
    case ChangeAction::RemoveFile:
    case ChangeAction::RemoveFolder:
    case ChangeAction::RemoveFolderTree:
      return code == ErrorCode::NotFound;
    case ChangeAction::MoveFile:
    case ChangeAction::MoveFolder:
    case ChangeAction::CopyFile:
      // The source gone, or the destination there although the overlay had accepted the
      // change only where nothing was (or allowed replacing it): the store has it.
      return code == ErrorCode::NotFound || code == ErrorCode::AlreadyExists;
    default:
      return false;
  }
}

bool isMoveOrRemoval(ChangeAction action) {
  return action == ChangeAction::MoveFile || action == ChangeAction::MoveFolder ||
         action == ChangeAction::RemoveFile || action == ChangeAction::RemoveFolder ||
         action == ChangeAction::RemoveFolderTree;
}

bool contains(const std::u16string& folder, const std::u16string& path) {
  return path == folder ||
         (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
          (folder.ends_with(u'/') || path[folder.size()] == u'/'));
}

// A source that this recovery made again is the moved file itself, with its recovered bytes:
// what the store holds at the destination, although the move was accepted only where nothing
// was, can only be this file's own, left by the move before the crash or by its changes,
// which the move had taken along to the destination before they replayed. It is replaced
// rather than taken for the move done, which would keep a file whose writes were cut short.
fsp::ReplacementPolicy replacing(fsp::ReplacementPolicy policy) {
  return policy == fsp::ReplacementPolicy::Fail ? fsp::ReplacementPolicy::Overwrite : policy;
}

bool isMove(ChangeAction action) {
  return action == ChangeAction::MoveFile || action == ChangeAction::MoveFolder;
}

// The changes of a file's bytes and attributes: those that a move of a new file takes along to
// its destination before they replay.
bool followsMoves(ChangeAction action) {
  return action == ChangeAction::WriteRange || action == ChangeAction::Truncate ||
         action == ChangeAction::SetLastModified || action == ChangeAction::SetWritable;
}

bool writesBytes(ChangeAction action) {
  return action == ChangeAction::WriteRange || action == ChangeAction::OpenFile ||
         action == ChangeAction::Truncate;
}

}  // namespace

JournalRecovery::JournalRecovery(const fsp::IProvider& overlay, fs::path cacheRoot,
                                 std::vector<ReplayChange> changes)
    : overlay_(overlay),
      cacheRoot_(std::move(cacheRoot)),
      changes_(std::move(changes)),
      finals_(finalBodyLocations(changes_, [this](const fsp::StorageIRI& location) {
        return fs::exists(cacheRoot_ / "V1.0" / cacheFileName(location));
      })) {}

JournalRecovery::Outcome JournalRecovery::run() {
  setBodiesAside();
  for (std::size_t index = 0; index < changes_.size(); ++index) apply(index);
  try {
    closeStream();
  } catch (const fsp::Exception& refusal) {
    OVERLAY_LOG(log::warning) << "journal: closing " << refusal.getLocation().toString()
                              << " after recovery failed: " << refusal.what();
  }
  return outcome_;
}

void JournalRecovery::discardBodies() noexcept {
  boost::system::error_code ignored;
  fs::remove_all(cacheRoot_ / kBodiesFolder, ignored);
}

fs::path JournalRecovery::bodyOf(const fsp::StorageIRI& final) const {
  return cacheRoot_ / kBodiesFolder / cacheFileName(final);
}

void JournalRecovery::setBodiesAside() {
  // A folder left by an interrupted recovery holds the bytes as they were before it
  // re-applied anything: it is kept. One only half filled is filled on: what it holds already
  // left the cache.
  const auto folder = cacheRoot_ / kBodiesFolder;
  if (fs::exists(folder)) return;
  const auto filling = cacheRoot_ / (std::string(kBodiesFolder) + ".tmp");
  fs::create_directories(filling);
  for (const auto& final : finals_) {
    if (!final) continue;
    const auto name = cacheFileName(*final);
    const auto body = cacheRoot_ / "V1.0" / name;
    boost::system::error_code error;
    if (fs::exists(filling / name)) continue;
    if (!fs::exists(body, error)) {
      OVERLAY_LOG(log::warning) << "journal: no cached body for " << final->toString()
                                << "; its recorded writes cannot be replayed";
      continue;
    }
    // Moved, not linked: re-applying a truncation or a write would change a linked body in
    // place. The re-applied changes make the file's body anew, so the cache loses nothing.
    fs::rename(body, filling / name);
  }
  fs::rename(filling, folder);
}

void JournalRecovery::apply(std::size_t index) { applyAs(changes_[index], index, index); }

void JournalRecovery::applyAs(const ReplayChange& change, std::size_t index, std::size_t position) {
  const auto at = overlayLocation(change.location);
  try {
    const bool sameStream = streamLocation_ && streamLocation_->getPath() == at.getPath();
    if (!sameStream || !writesBytes(change.action)) closeStream();
    const auto to = change.destination ? overlayLocation(*change.destination) : at;
    const auto policy = static_cast<fsp::ReplacementPolicy>(change.flags);
    switch (change.action) {
      case ChangeAction::CreateFile:
        overlay_.createFile(at);
        break;
      case ChangeAction::CreateFolder:
        overlay_.createFolder(at);
        break;
      case ChangeAction::CreateFolderTree:
        overlay_.createFolderRecursive(at);
        break;
      case ChangeAction::RemoveFile:
        overlay_.removeFile(at);
        break;
      case ChangeAction::RemoveFolder:
        overlay_.removeFolder(at);
        break;
      case ChangeAction::RemoveFolderTree:
        overlay_.removeFolderRecursively(at);
        break;
      case ChangeAction::MoveFile:
        overlay_.moveFile(at, to, madeHere(change.location.getPath()) ? replacing(policy) : policy);
        break;
      case ChangeAction::MoveFolder:
        overlay_.moveFolder(at, to, policy);
        break;
      case ChangeAction::CopyFile:
        overlay_.copyFile(at, to, policy);
        break;
      case ChangeAction::SetLastModified:
        if (change.time) overlay_.setLastModified(at, *change.time);
        break;
      case ChangeAction::SetWritable:
        overlay_.setWritable(at, change.flags != 0);
        break;
      case ChangeAction::OpenFile:
      case ChangeAction::WriteRange:
      case ChangeAction::Truncate:
        applyStreamChange(change, index, position);
        break;
      case ChangeAction::CloseFile:
      case ChangeAction::Relocate:
      case ChangeAction::Invalidate:
        // The close is the stream's (closed above); the others change nothing of the store.
        return;
    }
    ++outcome_.applied;
    noteMade(change);
    if (isMove(change.action)) releaseHeld(change, index);
  } catch (const fsp::Exception& refusal) {
    stream_.reset();
    streamLocation_.reset();
    const auto code = refusal.getErrorCode();
    if (alreadyDone(change.action, code)) {
      ++outcome_.alreadyDone;
      if (isMove(change.action)) {
        undoCreation(change.location);
        releaseHeld(change, index);
      }
      return;
    }
    if (code == ErrorCode::NotFound) {
      if (const auto went = firstMoveOrRemovalAfter(change.location.getPath(), position)) {
        // The file went before the crash. A removal ends it; a move may have taken this change
        // along (a new file's changes follow its move before they replay), so it is made
        // again at the destination once the move is.
        if (followsMoves(change.action) && isMove(changes_[*went].action)) {
          held_[*went].emplace_back(change, index);
        } else {
          ++outcome_.alreadyDone;
        }
        return;
      }
    }
    refuse(change, index, refusal.what());
  }
}

void JournalRecovery::refuse(const ReplayChange& change, std::size_t index, const char* why) {
  ++outcome_.refused;
  OVERLAY_LOG(log::warning) << "journal: could not re-apply " << actionName(change.action) << " of "
                            << change.location.toString() << ": " << why;
  keepAside(index);
  // What waited for this move cannot follow it either.
  const auto found = held_.find(index);
  if (found == held_.end()) return;
  const auto held = std::move(found->second);
  held_.erase(found);
  for (const auto& [heldChange, heldIndex] : held) {
    refuse(heldChange, heldIndex, "the move that took its file away could not be re-applied");
  }
}

void JournalRecovery::releaseHeld(const ReplayChange& move, std::size_t index) {
  const auto found = held_.find(index);
  if (found == held_.end() || !move.destination) return;
  auto held = std::move(found->second);
  held_.erase(found);
  const auto& from = move.location.getPath();
  const auto& to = move.destination->getPath();
  for (auto& [change, recordIndex] : held) {
    const auto& path = change.location.getPath();
    change.location = fsp::StorageIRI(change.location.getScheme(), to + path.substr(from.size()));
    applyAs(change, recordIndex, index);
  }
}

void JournalRecovery::applyStreamChange(const ReplayChange& change, std::size_t index,
                                        std::size_t position) {
  const auto at = overlayLocation(change.location);
  if (change.action == ChangeAction::Truncate) {
    overlay_.truncateToSize(at, static_cast<std::uint64_t>(change.length));
    return;
  }
  if (change.action == ChangeAction::OpenFile) {
    fsp::ByteStreamOpenOptions options = fsp::ByteStreamOpenOptions::readWriteCreate();
    options.create = (change.flags & ReplayChange::kOpenCreates) != 0;
    options.truncate = (change.flags & ReplayChange::kOpenTruncates) != 0;
    // An open that neither creates nor empties changed nothing of the store.
    if (!options.create && !options.truncate) return;
    options.create = true;  // the file may have been removed since; the record made it
    openRecoveredStream(at, options);
    return;
  }
  writeRange(change, index, position);
}

void JournalRecovery::writeRange(const ReplayChange& change, std::size_t index,
                                 std::size_t position) {
  const auto at = overlayLocation(change.location);
  if (!stream_) {
    // A file that a later change moves or removes (it or a folder above it) and that is gone
    // went before the crash: the store's file, elsewhere, holds bytes that no pending record
    // names. Opened without creating, the refusal sends the write after the file (see apply);
    // made again here, the later move would carry a file of the recorded bytes alone over the
    // store's. Any other file missing is made again, so that the bytes are not lost. (Only a
    // missing file looks ahead in the journal: that walk, for every write, would make a long
    // recovery quadratic.)
    const bool makeAgain =
        !overlay_.fileExists(at) && !firstMoveOrRemovalAfter(change.location.getPath(), position);
    openRecoveredStream(at, makeAgain ? fsp::ByteStreamOpenOptions::readWriteCreate()
                                      : fsp::ByteStreamOpenOptions::readWrite());
  }
  // The bytes of the file's final body; none when a later change removes the file (they
  // would never be seen) or the body is shorter (a later truncation cuts them).
  std::vector<char> bytes;
  if (finals_[index]) {
    std::ifstream body(bodyOf(*finals_[index]).string(), std::ios::binary);
    if (body) {
      body.seekg(change.offset);
      bytes.resize(static_cast<std::size_t>(std::max<std::int64_t>(change.length, 0)));
      body.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      bytes.resize(static_cast<std::size_t>(std::max<std::streamsize>(body.gcount(), 0)));
    }
  }
  if (bytes.empty()) return;
  stream_->seek(static_cast<long>(change.offset), std::ios_base::beg);
  std::size_t done = 0;
  while (done < bytes.size()) {
    const auto written =
        stream_->write(bytes.data() + done, static_cast<long>(bytes.size() - done));
    if (written <= 0) {
      throw fsp::Exception(ErrorCode::IOError, at, "a recovered write made no progress");
    }
    done += static_cast<std::size_t>(written);
  }
}

void JournalRecovery::openRecoveredStream(const fsp::StorageIRI& at,
                                          const fsp::ByteStreamOpenOptions& options) {
  const bool existed = overlay_.fileExists(at);
  stream_ = overlay_.openStream(at, options);
  streamLocation_ = at;
  if (!existed) made_.insert(at.getPath());
}

void JournalRecovery::noteMade(const ReplayChange& change) {
  const auto& path = change.location.getPath();
  switch (change.action) {
    case ChangeAction::CreateFile:
    case ChangeAction::CreateFolder:
    case ChangeAction::CreateFolderTree:
      made_.insert(path);
      break;
    case ChangeAction::MoveFile:
    case ChangeAction::MoveFolder: {
      // What moves is no longer at its source; what this recovery made arrives with it.
      const bool wasMade = madeHere(path);
      std::erase_if(made_, [&](const auto& madePath) { return contains(path, madePath); });
      if (wasMade && change.destination) made_.insert(change.destination->getPath());
      break;
    }
    default:
      break;
  }
}

bool JournalRecovery::madeHere(const std::u16string& path) const {
  return std::any_of(made_.begin(), made_.end(),
                     [&](const auto& madePath) { return contains(madePath, path); });
}

std::optional<std::size_t> JournalRecovery::firstMoveOrRemovalAfter(const std::u16string& path,
                                                                    std::size_t index) const {
  for (auto later = index + 1; later < changes_.size(); ++later) {
    const auto& change = changes_[later];
    if (isMoveOrRemoval(change.action) && contains(change.location.getPath(), path)) return later;
  }
  return std::nullopt;
}

void JournalRecovery::undoCreation(const fsp::StorageIRI& source) {
  // The move had reached the store, and so had the creation of its source before it: the
  // source this recovery made again must go, or it would be left behind as a stray.
  if (!madeHere(source.getPath())) return;
  const auto at = overlayLocation(source);
  try {
    if (overlay_.folderExists(at)) {
      overlay_.removeFolderRecursively(at);
    } else if (overlay_.fileExists(at)) {
      overlay_.removeFile(at);
    }
  } catch (const fsp::Exception& refusal) {
    OVERLAY_LOG(log::warning) << "journal: could not remove " << source.toString()
                              << ", made again by the recovery: " << refusal.what();
  }
}

void JournalRecovery::closeStream() {
  if (!stream_) return;
  auto stream = std::move(stream_);
  streamLocation_.reset();
  stream->close();
}

void JournalRecovery::keepAside(std::size_t index) noexcept {
  try {
    const auto& final = finals_[index];
    if (!final || !writesBytes(changes_[index].action)) return;
    if (!keptAside_.insert(final->getPath()).second) return;
    const auto body = bodyOf(*final);
    if (!fs::exists(body)) return;
    auto relative = fs::path(foundation::text::toUtf8(final->getPath())).relative_path();
    const auto kept = cacheRoot_ / kLostAndFoundFolder / relative;
    fs::create_directories(kept.parent_path());
    fs::copy_file(body, kept, fs::copy_options::overwrite_existing);
    OVERLAY_LOG(log::warning) << "journal: the bytes of " << final->toString() << " are kept in "
                              << kept.string();
  } catch (...) {
    logCaughtException("Keeping the bytes of a refused change aside");
  }
}

}  // namespace storage::overlayprovider
