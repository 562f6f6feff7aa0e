// ReplayChange: what one queued transaction does to the inner store, as data rather than as a
// closure: its action, the location(s) it touches, the byte range or size it carries, and the
// time or flag it sets.
//
// The write-behind executor uses it to decide which transactions may replay at the same time
// (scopeKeys: two changes are ordered when one's location equals or contains the other's) and
// which queued changes a later one makes moot. It carries everything a replay needs except the
// bytes, which stay in the file's cached body, so that a record of it can be written down and
// replayed by a process that did not make it.
//
// A plain value: built by the submitting thread, copied into the queue, read by the workers.
#pragma once

#include "core/execution/ObservableTransactionType.h"

#include <foundation/storage/provider/StorageIRI.h>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace storage::overlayprovider {

// The numeric values may be written down: never renumber.
enum class ChangeAction : std::uint8_t {
  CreateFile = 0,
  CreateFolder = 1,
  CreateFolderTree = 2,  // the folder and every missing folder above it
  RemoveFile = 3,
  RemoveFolder = 4,
  RemoveFolderTree = 5,  // the folder and everything below it
  MoveFile = 6,
  MoveFolder = 7,
  CopyFile = 8,
  SetLastModified = 9,
  SetWritable = 10,
  OpenFile = 11,    // a stream open that creates or empties the file (flags: the open options)
  WriteRange = 12,  // bytes [offset, offset + length) of the file's cached body
  Truncate = 13,    // the file's size becomes `length`
  CloseFile = 14,   // the file's stream closes; its time is stamped when it was written
  Relocate = 15,    // the file's stream follows a move to `destination`
  Invalidate = 16,  // the store changed `location` (an event); the caches forget it
};

std::string_view actionName(ChangeAction action);

struct ReplayChange {
  ReplayChange(ObservableTransactionType kind, ChangeAction action,
               foundation::storage::provider::StorageIRI location)
      : kind(kind), action(action), location(std::move(location)) {}

  ReplayChange& to(foundation::storage::provider::StorageIRI where) {
    destination = std::move(where);
    return *this;
  }
  ReplayChange& at(boost::posix_time::ptime when) {
    time = when;
    return *this;
  }
  template <class Flags>
  ReplayChange& withFlags(Flags value) {
    flags = static_cast<int>(value);
    return *this;
  }
  ReplayChange& range(std::int64_t from, std::int64_t count) {
    offset = from;
    length = count;
    return *this;
  }

  // The locations whose order this change must keep: its location and its destination, as
  // lower-cased paths (so that two spellings of one name on a case-insensitive store are
  // ordered too; on a case-sensitive store that orders a few unrelated changes, which costs
  // only parallelism). The root is the empty key, which contains every other. A recursive
  // folder creation is keyed by the topmost folder it may make (the one below the root).
  std::vector<std::u16string> scopeKeys() const;

  ObservableTransactionType kind;
  ChangeAction action;
  foundation::storage::provider::StorageIRI location;
  std::optional<foundation::storage::provider::StorageIRI> destination;
  std::int64_t offset = 0;
  std::int64_t length = 0;
  std::optional<boost::posix_time::ptime> time;
  // The action's switch: the replacement policy of a move or copy, the writable flag, the
  // open options (kOpenCreates, kOpenTruncates); on a write, kCreatesFile.
  int flags = 0;

  static constexpr int kOpenCreates = 1;    // an open that creates the file (it is new)
  static constexpr int kOpenTruncates = 2;  // an open that empties the file
  // A write that took over the queued creation of its file: its stream must create the file.
  static constexpr int kCreatesFile = 4;
  // A file's stream change that the file's later move took along before either reached the
  // store: the stream works at `location` (the move's destination) and the file's creation
  // there replaces whatever the store holds under that name.
  static constexpr int kFollowsMove = 8;
  // A write that is all the file's stream wrote since the file was created or emptied, from
  // its start: its replay makes its bytes the file's whole content (creating the file or
  // emptying it first) and stamps the file's time, in one call where the store offers that.
  static constexpr int kWholeFile = 16;

  // Known to the submitter, kept in memory only (never written down): a move's destination
  // held nothing when the move was made, so nothing there needs replacing but the file itself.
  bool destinationWasFree = false;
};

// True when `key` (as scopeKeys gives it) is `other`, contains it or lies in it.
bool scopesOverlap(std::u16string_view key, std::u16string_view other);

// The scope key of an element of a set of keys, or of a map keyed by them.
inline const std::u16string& scopeKeyOf(const std::u16string& key) { return key; }
template <class Value>
const std::u16string& scopeKeyOf(const std::pair<const std::u16string, Value>& keyed) {
  return keyed.first;
}

// Calls `visit` with each element of `keys` (a sorted set, multiset or map whose keys are
// scope keys) whose key overlaps `key`: the key itself, the keys above it (the root's too) and
// the keys below it, found by look-ups rather than by a walk of every key. `visit` returns
// true to stop; so does this function when it stopped.
template <class SortedKeys, class Visit>
bool visitOverlappingKeys(const SortedKeys& keys, const std::u16string& key, Visit visit) {
  const auto visitEqual = [&](const std::u16string& other) {
    for (auto [it, end] = keys.equal_range(other); it != end; ++it) {
      if (visit(*it)) return true;
    }
    return false;
  };
  if (key.empty()) {  // the root holds every other key
    for (const auto& element : keys) {
      if (visit(element)) return true;
    }
    return false;
  }
  if (visitEqual(key) || visitEqual(std::u16string())) return true;
  for (auto slash = key.find(u'/', 1); slash != std::u16string::npos;
       slash = key.find(u'/', slash + 1)) {
    if (visitEqual(key.substr(0, slash))) return true;
  }
  const auto below = key + u'/';
  for (auto it = keys.lower_bound(below); it != keys.end(); ++it) {
    if (scopeKeyOf(*it).compare(0, below.size(), below) != 0) break;
    if (visit(*it)) return true;
  }
  return false;
}

}  // namespace storage::overlayprovider
