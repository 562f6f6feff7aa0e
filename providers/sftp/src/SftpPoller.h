// SftpPoller: change events for a store that has no notifications. SFTP cannot tell a client
// what changed, so this thread lists what is subscribed every poll interval and publishes
// the differences (Appeared, Disappeared, Changed by size, time or kind) to the
// subscriptions (EventSubscriptions decides who hears what). Changes the provider makes itself
// are published at once instead (own()), with both ends of a move, and the poller's picture
// is corrected so that the next listing does not report them again; an entry that appears
// where the provider just moved something is reported as that move.
//
// Cost: at most Options::pollFoldersPerRound folder listings (one OPENDIR, READDIRs of ~100
// names each, one CLOSE) per interval, shared round-robin among the subscribed folders, the
// folders below recursive subscriptions and the parents of subscribed files; nothing when
// nothing is subscribed. A subscription lists its folder (and, when recursive, the folders
// below it) once at once, so that later changes are told from what was there before.
//
// Ownership: made and shared by the provider; the thread holds a shared_ptr to the
// provider's Impl (the sessions), never to the provider. Locks: mutex_ alone, never while a
// session's mutex is taken or while publishers run. Threads: subscribe/own/stop from any
// thread; the poll thread (started with the first subscription, stopped by stop(), which
// the provider's shutdown calls) lists and delivers. The thread body catches and logs
// everything.
#pragma once

#include "SftpProviderImpl.h"

#include <foundation/storage/provider/EventSubscriptions.h>

#include <condition_variable>
#include <map>
#include <set>
#include <thread>

namespace foundation::storage::provider::sftp {

class SftpPoller {
 public:
  explicit SftpPoller(std::shared_ptr<SftpProvider::Impl> impl);
  ~SftpPoller();

  void addFolder(const StorageIRI& folder, EventPublisher publisher,
                 std::vector<events::Kind> kinds, RecursiveFileWatching recursive);
  void addFile(const StorageIRI& file, EventPublisher publisher, std::vector<events::Kind> kinds);
  void remove(const StorageIRI& location);
  // A change this provider made: published on the poll thread, in order with the others.
  void own(events::Kind kind, const StorageIRI& at, const StorageIRI& other,
           events::EntryType type);
  void stop();
  // Whether anything is subscribed.
  bool listening();

 private:
  struct Sig {
    bool folder = false;
    std::uint64_t size = 0;
    std::uint32_t mtime = 0;
    bool known = false;  // false: adopt the next listing's values without an event
  };
  using Listing = std::map<std::string, Sig>;
  struct Watch {
    StorageIRI at;
    bool recursive;
  };
  struct Event {
    events::Kind kind;
    StorageIRI at, other;
    events::EntryType type;
  };

  void run();
  // Lists `folder` and returns the differences against the picture (under no lock).
  void pollOnce();
  std::vector<StorageIRI> foldersToList();
  bool underRecursiveWatch(const StorageIRI& folder) const;
  void baseline(const StorageIRI& folder, bool recursive);
  void start();

  std::shared_ptr<SftpProvider::Impl> impl_;
  EventSubscriptions subscriptions_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<Watch> watches_;
  std::map<StorageIRI, Listing> pictures_;
  std::vector<Event> pending_;
  std::size_t cursor_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace foundation::storage::provider::sftp
