// ChangePoller and ChangePollers: the framework's default change polling. Each poller owns
// one thread that lists its location every period and publishes the differences between two
// consecutive listings (Created, Removed, Modified). Owned by IProvider; the provider must
// outlive its pollers (IProvider stops them in shutdown() and in its destructor).
//
// Locks: ChangePollers has none of its own (IProvider's pollers mutex guards it); each poller
// has one mutex for its stop flag, never held while listing or publishing.
#pragma once

#include <foundation/storage/provider/IProvider.h>

#include <condition_variable>
#include <map>
#include <memory>
#include <thread>

namespace foundation::storage::provider::detail {

class ChangePoller {
 public:
  ChangePoller(const IProvider& provider, StorageIRI location, EventPublisher publisher,
               std::vector<events::Kind> kinds, long periodMs, bool recursive);
  ~ChangePoller();  // stops and joins

 private:
  struct Seen {
    bool file;
    std::optional<std::uint64_t> size;
    posix_time::ptime lastModified;
  };
  using Snapshot = std::map<std::u16string, Seen>;

  Snapshot takeSnapshot() const;
  void publishDifferences(const Snapshot& before, const Snapshot& after) const;
  void publish(events::Kind kind, const std::u16string& relative, bool file) const;
  void run();

  const IProvider& provider_;
  StorageIRI location_;
  EventPublisher publisher_;
  std::vector<events::Kind> kinds_;
  long periodMs_;
  bool recursive_;
  Snapshot last_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
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
