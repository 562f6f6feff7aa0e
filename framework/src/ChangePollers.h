// ChangePoller and ChangePollers: the framework's default change polling. Each poller owns
// one thread that lists its location every period and publishes the differences between two
// consecutive listings (Appeared, Disappeared, Changed; a listing cannot tell a move from a
// removal and a creation, so a poller never names the other end). Owned by IProvider; the
// provider must outlive its pollers (IProvider stops them in shutdown() and in its destructor).
//
// A subscriber may stop polling from inside its own callback: the poller is then destroyed on
// its own thread, which cannot join itself. So the thread's state lives apart from the poller
// (shared by both), the destructor detaches the thread in that one case, and the thread ends
// as soon as its callback returns, publishing nothing more.
//
// Locks: ChangePollers has none of its own (IProvider's pollers mutex guards it); each poller
// has one mutex for its stop flag, never held while listing or publishing. The thread body
// catches and logs everything.
#pragma once

#include <foundation/storage/provider/IProvider.h>

#include <condition_variable>
#include <map>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace foundation::storage::provider::detail {

class ChangePoller {
 public:
  ChangePoller(const IProvider& provider, StorageIRI location, EventPublisher publisher,
               std::vector<events::Kind> kinds, long periodMs, bool recursive);
  // Stops the thread and joins it, or detaches it when called on that thread itself.
  ~ChangePoller();

 private:
  struct Seen {
    bool file;
    std::optional<std::uint64_t> size;
    posix_time::ptime lastModified;
  };
  using Snapshot = std::map<std::u16string, Seen>;
  // What the polling thread uses; shared so that it outlives a poller destroyed meanwhile.
  // Has a constructor rather than being an aggregate: make_shared initialises with
  // parentheses, which clang 14 does not accept for aggregates.
  struct State {
    State(const IProvider& provider, StorageIRI location, EventPublisher publisher,
          std::vector<events::Kind> kinds, long periodMs, bool recursive)
        : provider(provider),
          location(std::move(location)),
          publisher(std::move(publisher)),
          kinds(std::move(kinds)),
          periodMs(periodMs),
          recursive(recursive) {}

    const IProvider& provider;
    StorageIRI location;
    EventPublisher publisher;
    std::vector<events::Kind> kinds;
    long periodMs;
    bool recursive;
    Snapshot last;
    std::mutex mutex;
    std::condition_variable wake;
    bool stopping = false;

    bool isStopping();
    Snapshot takeSnapshot() const;
    void publishDifferences(const Snapshot& before, const Snapshot& after);
    void publish(events::Kind kind, const std::u16string& relative, bool file);
  };

  static void run(const std::shared_ptr<State>& state);

  std::shared_ptr<State> state_;
  std::thread thread_;
};

class ChangePollers {
 public:
  explicit ChangePollers(const IProvider& provider) : provider_(provider) {}
  // Replaces any poller of the same location.
  void start(const StorageIRI& location, const EventPublisher& publisher,
             const std::vector<events::Kind>& kinds, long periodMs, bool recursive);
  // Hands the location's poller to the caller (who stops it by destroying it), or null.
  std::unique_ptr<ChangePoller> release(const StorageIRI& location);

 private:
  const IProvider& provider_;
  std::map<StorageIRI, std::unique_ptr<ChangePoller>> pollers_;
};

}  // namespace foundation::storage::provider::detail
