// InotifyWatcher: the file provider's change events. Watches every folder of the provider's
// tree with inotify and delivers what it sees through the provider's EventSubscriptions, on
// its own single event thread. Owned by FileProvider (one per provider).
//
// Life cycle: nothing is watched until ensureStarted() (the provider calls it on the first
// subscription). It then adds a watch to every folder of the existing tree, synchronously, so
// a change made after the subscription call has returned is seen, and starts the thread.
// Folders made after that get their watches from the event thread, when it comes to their
// IN_CREATE: so every later subscription calls ensureWatched(), which watches what it covers
// at once, for a subscription may come before the event thread has caught up (a folder just
// made, then subscribed to, and a file in it made and removed at once).
// Stopping the last subscription keeps the watches and the thread (they cost little and a new
// subscription then needs no new walk); stop() ends both, is idempotent, and the destructor
// calls it. ensureStarted() after stop() is refused with OperationRefused.
//
// Translation (locations are "file" IRIs of provider paths; kinds as in Events.h):
//   IN_CREATE -> Appeared; a new folder also gets watches, and its contents (which may have
//               been made before its watch existed) are scanned and reported as Appeared,
//               each folder before its contents. An entry made during that scan may be
//               reported twice.
//   IN_DELETE -> Disappeared.   IN_CLOSE_WRITE, IN_ATTRIB -> Changed.
//   IN_MODIFY is not watched: a write is reported once, as Changed when the writer closes.
//   IN_MOVED_FROM + IN_MOVED_TO with one cookie (a move inside the tree) -> Disappeared at
//               the source naming the destination, then Appeared at the destination naming
//               the source; the watches below a moved folder follow it. A MOVED_FROM whose
//               partner does not arrive within a short pairing wait (kPairingWaitMs) is a
//               move out of the tree: Disappeared, naming only itself (the destination is not
//               ours to name), and its watches are dropped. A lone MOVED_TO is a move into the
//               tree: Appeared, naming only itself, with a scan as for IN_CREATE.
//   IN_Q_OVERFLOW -> Rescan of "/" with EntryType::Unknown (whatever was lost, the whole tree
//               may differ), then every folder is watched again.
// Events on a watched folder itself (no name) are not reported: its parent's watch reports
// them. Symbolic links are never followed when watching, so changes reached only through a
// link to a folder are not reported.
//
// Threads and locks: ensureStarted() and stop() run on callers' threads; the event thread
// runs run(). mutex_ guards the descriptors, the watch table and the state flags; the event
// thread holds it while it translates one batch and releases it before delivering, so
// publishers never run under it (EventSubscriptions takes only its own mutex, after).
// A publisher may call the provider, but must not destroy the provider (the event thread would
// be left running on a freed watcher).
#pragma once

#include <foundation/storage/events/Events.h>
#include <foundation/storage/provider/EventSubscriptions.h>
#include <foundation/storage/provider/StorageIRI.h>
#include <foundation/storage/provider/file/LocalRoot.h>
#include <foundation/storage/provider/file/UniqueFd.h>

#include <sys/inotify.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace foundation::storage::provider::file {

class InotifyWatcher {
 public:
  static constexpr int kPairingWaitMs = 10;

  // Both must outlive the watcher.
  InotifyWatcher(const LocalRoot& root, const EventSubscriptions& subscriptions);
  ~InotifyWatcher();
  InotifyWatcher(const InotifyWatcher&) = delete;
  InotifyWatcher& operator=(const InotifyWatcher&) = delete;

  void ensureStarted();
  // Watches, before returning, every folder from the root down to `folder` and, with
  // `withSubfolders`, every folder below it. Watching a folder that is watched already changes
  // nothing. Nothing before ensureStarted() or after stop().
  void ensureWatched(const StorageIRI& folder, bool withSubfolders);
  void stop();

 private:
  struct Delivery {
    events::Kind kind;
    StorageIRI location;
    StorageIRI other;
    events::EntryType type;
  };
  struct PendingMove {
    std::uint32_t cookie;
    StorageIRI from;
    bool folder;
  };
  enum class Wake { Stop, Ready, Timeout };

  void run();
  void runOnce(std::vector<char>& buffer);
  Wake waitForEvents(int timeoutMs) const;
  // The rest run under mutex_.
  void processBuffer(const char* data, std::size_t length, std::vector<Delivery>& out);
  void processEvent(const inotify_event& event, std::vector<Delivery>& out);
  void processMovedTo(const StorageIRI& to, const inotify_event& event, std::vector<Delivery>& out);
  void flushPendingMove(std::vector<Delivery>& out);
  void processOverflow(std::vector<Delivery>& out);
  // Watches `folder` and every folder below it; with `created`, reports what it finds there.
  void watchTree(const StorageIRI& folder, std::vector<Delivery>* created);
  // Watches `folder` alone; false when it cannot be watched (gone, or not a folder).
  bool addWatch(const StorageIRI& folder);
  void renameWatches(const std::u16string& from, const std::u16string& to);
  void dropWatches(const std::u16string& under);
  void deliver(const std::vector<Delivery>& deliveries) const;

  const LocalRoot& root_;
  const EventSubscriptions& subscriptions_;

  mutable std::mutex mutex_;
  UniqueFd inotify_;
  UniqueFd wake_;
  std::thread thread_;
  bool started_ = false;
  bool stopped_ = false;
  std::map<int, std::u16string> watches_;   // watch descriptor -> provider path of the folder
  std::optional<PendingMove> pendingMove_;  // event thread only (and under mutex_)
};

}  // namespace foundation::storage::provider::file
