// JournalRecovery: re-applies the changes that an earlier process left pending in the journal,
// before the provider answers its first call, so that the caches show everything that was
// written before a crash; the replay then takes them to the store as it does any change.
//
// How: each recovered change is made again through the provider's own operations (creations,
// removals, moves, time stamps, streams for opens, writes and truncations), which apply it to
// both caches, record it in the journal anew and queue it for the store. The bytes of a write
// come from the cached body of the file's final location (see RecoveredWrites), moved into
// "<cache root>/recovery" before anything is re-applied, since re-applying a truncation, a
// truncating open or a replacing move changes or discards bodies (re-applying the writes
// makes the file's body anew). They stay until the caller
// has finished the journal's recovery, so a crash in the middle of a recovery starts the next one
// from the same bytes.
//
// Idempotence: the store, and so the overlay's view of it, may already hold some of the
// changes (they reached it before the crash, unconfirmed). A change whose result is already
// there is skipped: a creation of what exists, a removal of what is gone, a move whose source
// is gone or whose destination is already there (the overlay accepted it only where nothing
// was, or where it may replace), a change of a file that a later change removes and that is
// gone. A change of a file's bytes or attributes whose file is gone and that a later change
// moves is held until that move is re-applied or found done, then made at the destination:
// the move may have reached the store after it, or may have taken it along before it replayed
// (a new file moved before its replay is created at the destination, and its queued changes
// follow it there; their records still name the source). A creation re-applied although it
// had reached the store, because a later move took it away, is undone when that move turns
// out done. Writes and truncations are simply made again: the same bytes at the same place
// leave the same file.
//
// A change the overlay now refuses for good (its folder was removed by someone else, say) is
// logged with its location, and the bytes of a file it would have written are kept in
// "<cache root>/lost+found/<path>", never dropped silently.
//
// Ownership: a short-lived object made and run by the provider's first call; it holds the
// provider by reference only for that call. Threads: that one thread. Locks: none of its own;
// the provider's operations take theirs.
#pragma once

#include "core/execution/ReplayChange.h"

#include <foundation/storage/provider/ByteStream.h>
#include <foundation/storage/provider/IProvider.h>

#include <boost/filesystem/path.hpp>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace storage::overlayprovider {

class JournalRecovery {
 public:
  struct Outcome {
    std::size_t applied = 0;
    std::size_t alreadyDone = 0;  // found done on the store (or made moot by a later change)
    std::size_t refused = 0;      // logged; the bytes kept in lost+found
  };

  JournalRecovery(const foundation::storage::provider::IProvider& overlay,
                  boost::filesystem::path cacheRoot, std::vector<ReplayChange> changes);

  // Re-applies every change in order. Throws only when the bodies cannot be set aside.
  Outcome run();
  // Deletes the bodies set aside: call once the journal holds the re-applied changes durably.
  void discardBodies() noexcept;

  static constexpr const char* kBodiesFolder = "recovery";
  static constexpr const char* kLostAndFoundFolder = "lost+found";

 private:
  void setBodiesAside();
  void apply(std::size_t index);
  // Re-applies `change`: record `index`, or that record sent after its file's move. `position`
  // is where in the journal it is made (the record's own index, or the move's): later changes
  // are looked for after it.
  void applyAs(const ReplayChange& change, std::size_t index, std::size_t position);
  // Re-applies, at the destination of `move` (record `index`), the changes held for it.
  void releaseHeld(const ReplayChange& move, std::size_t index);
  // Counts and logs a change the overlay refuses for good, keeps its bytes in lost+found, and
  // does the same for the changes held for it.
  void refuse(const ReplayChange& change, std::size_t index, const char* why);
  void applyStreamChange(const ReplayChange& change, std::size_t index, std::size_t position);
  void writeRange(const ReplayChange& change, std::size_t index, std::size_t position);
  // Opens the stream that the following writes of the file use; a file it creates counts as
  // made by this recovery.
  void openRecoveredStream(const foundation::storage::provider::StorageIRI& at,
                           const foundation::storage::provider::ByteStreamOpenOptions& options);
  void closeStream();
  // The first change after record `index` that moves or removes `path` or a folder above it.
  std::optional<std::size_t> firstMoveOrRemovalAfter(const std::u16string& path,
                                                     std::size_t index) const;
  void undoCreation(const foundation::storage::provider::StorageIRI& source);
  void noteMade(const ReplayChange& applied);
  bool madeHere(const std::u16string& path) const;
  void keepAside(std::size_t index) noexcept;
  boost::filesystem::path bodyOf(const foundation::storage::provider::StorageIRI& final) const;

  const foundation::storage::provider::IProvider& overlay_;
  boost::filesystem::path cacheRoot_;
  std::vector<ReplayChange> changes_;
  std::vector<std::optional<foundation::storage::provider::StorageIRI>> finals_;
  // The stream that consecutive changes of one file share, and that file.
  foundation::storage::provider::ByteStreamPtr stream_;
  std::optional<foundation::storage::provider::StorageIRI> streamLocation_;
  std::set<std::u16string> keptAside_;
  // Paths where this recovery made something that was not there (by a creation, or a move of
  // something it made), with everything below them.
  std::set<std::u16string> made_;
  // Changes of a file that was gone, held until the move that took the file away (by its
  // record's index) is re-applied: each with the index of its own record.
  std::map<std::size_t, std::vector<std::pair<ReplayChange, std::size_t>>> held_;
  Outcome outcome_;
};

}  // namespace storage::overlayprovider
