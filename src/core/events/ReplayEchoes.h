// ReplayEchoes: recognises the inner store's change events that are only echoes of the
// overlay's own replay. The overlay applies every change to its caches at once; when the
// replay then makes the same change on the store, the store reports it back (inotify, the
// mem store's dispatcher), and acting on that report would throw away listings that are
// already right and list the folders again, which on a slow store costs far more than the
// change itself.
//
// The replay notes each change just before it makes the store call (note()); the listener
// asks consume() for every event as it arrives. An event matches a noted change at the same
// location whose kind it is an echo of:
//   - Appeared: Created or MovedTo at the location;
//   - Disappeared: Removed or MovedFrom at the location;
//   - Changed: Written or AttributesSet at the location;
//   - a Removed, MovedFrom or MovedTo also covers the events of the same direction below its
//     location (a recursive removal or a merging move reports each child), without being used
//     up by them: the event at its own location uses it up.
// A matched event at the noted location uses the change up (the oldest one that matches), so
// a later event there, someone else's, is handled as before. Rescan is never an echo.
// A change whose echo never comes (stores differ in what they report: the file store says
// nothing of a truncation, the mem store does) stays only for the lifetime (3 s by default)
// or until `capacity` newer changes push it out; meanwhile it would take a foreign event of
// the same kind at the same location for its echo, which is the price of not listing again.
//
// Off by default ("overlay.suppressEchoes"): then note() keeps nothing and consume() answers
// false, and the listener behaves exactly as without it.
//
// Ownership: made by the provider and shared (std::shared_ptr) with the listener, the
// provider's queued replay tasks and the working files' settings; any of them may outlive
// the others. Threads: note() on the executor's worker (and any thread that replays),
// consume() on the store's event threads, setEnabled() on the configuring thread. Locks: one
// mutex_ guards the table, taken alone, never while calling out.
#pragma once

#include "core/support/ReplayedChange.h"

#include <foundation/storage/events/Events.h>
#include <foundation/storage/provider/StorageIRI.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace storage::overlayprovider {

class ReplayEchoes {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kDefaultLifetime{3000};
  static constexpr std::size_t kDefaultCapacity = 4096;

  // `now` stands in for the steady clock (tests); empty: the steady clock.
  explicit ReplayEchoes(std::chrono::milliseconds lifetime = kDefaultLifetime,
                        std::size_t capacity = kDefaultCapacity,
                        std::function<Clock::time_point()> now = {});
  ReplayEchoes(const ReplayEchoes&) = delete;
  ReplayEchoes& operator=(const ReplayEchoes&) = delete;

  void setEnabled(bool enabled) { enabled_.store(enabled); }
  bool isEnabled() const { return enabled_.load(); }

  // The replay is about to make `change` at `location` (an overlay location) on the store.
  void note(const foundation::storage::provider::StorageIRI& location, ReplayedChange change);
  // True when the event (at an overlay location) is an echo of a noted change; the change at
  // that location is then used up.
  bool consume(const foundation::storage::provider::StorageIRI& location,
               foundation::storage::events::Kind kind);

  // The changes still waiting for their echo, and the events recognised so far.
  std::size_t waiting() const;
  std::uint64_t recognised() const { return recognised_.load(); }

  // A callback for the working files (WorkingFileSettings): notes through a weak hold, so a
  // working file that outlives this table notes nothing; never throws.
  static ReplayedChangeNote noteThrough(const std::shared_ptr<ReplayEchoes>& echoes);

 private:
  using Location = foundation::storage::provider::StorageIRI;
  struct Noted {
    ReplayedChange change;
    std::uint64_t serial;
  };

  Clock::time_point now() const { return now_ ? now_() : Clock::now(); }
  // Drops what has expired or no longer fits.
  void pruneLocked(Clock::time_point now);

  const std::chrono::milliseconds lifetime_;
  const std::size_t capacity_;
  const std::function<Clock::time_point()> now_;
  std::atomic<bool> enabled_{false};
  std::atomic<std::uint64_t> recognised_{0};
  mutable std::mutex mutex_;
  std::multimap<Location, Noted> noted_;
  // Every change noted, oldest first, with when it was noted; used-up ones are skipped.
  struct Order {
    Clock::time_point when;
    std::uint64_t serial;
    Location location;
  };
  std::deque<Order> order_;
  std::uint64_t nextSerial_ = 0;
};

}  // namespace storage::overlayprovider
