#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/file/ErrnoTranslation.h>
#include <foundation/storage/provider/file/FileLogger.h>
#include <foundation/storage/provider/file/InotifyWatcher.h>
#include <foundation/storage/provider/file/UniqueDir.h>
#include <foundation/text/Unicode.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

namespace foundation::storage::provider::file {

namespace {

constexpr std::uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_CLOSE_WRITE | IN_ATTRIB |
                                     IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW |
                                     IN_EXCL_UNLINK;
constexpr std::size_t kBufferSize = 64 * 1024;

using events::EntryType;
using events::Kind;

EntryType typeOf(std::uint32_t mask) {
  return (mask & IN_ISDIR) ? EntryType::Folder : EntryType::File;
}

bool isFolderNoFollow(int dirFd, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  struct stat status {};
  return ::fstatat(dirFd, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISDIR(status.st_mode);
}

bool isUnder(const std::u16string& path, const std::u16string& folder) {
  return path == folder ||
         (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
          path[folder.size()] == u'/');
}

}  // namespace

InotifyWatcher::InotifyWatcher(const LocalRoot& root, const EventSubscriptions& subscriptions)
    : root_(root), subscriptions_(subscriptions) {}

InotifyWatcher::~InotifyWatcher() { stop(); }

void InotifyWatcher::ensureStarted() {
  std::lock_guard lock(mutex_);
  const StorageIRI rootLocation(u"file", u"/");
  if (stopped_) {
    throw Exception(ErrorCode::OperationRefused, rootLocation, "the provider is shut down");
  }
  if (started_) return;
  inotify_ = UniqueFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify_.valid()) throw errnoException(errno, rootLocation, "inotify_init1", root_.path());
  wake_ = UniqueFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!wake_.valid()) throw errnoException(errno, rootLocation, "eventfd", root_.path());
  watchTree(rootLocation, nullptr);
  thread_ = std::thread([this] { run(); });
  started_ = true;
}

void InotifyWatcher::ensureWatched(const StorageIRI& folder, bool withSubfolders) {
  std::lock_guard lock(mutex_);
  if (!started_ || stopped_) return;
  // The ancestors too: events on the folder itself come through its parent's watch.
  StorageIRI at(u"file", u"/");
  for (const auto& part : folder.getPathView()) {
    if (!addWatch(at)) return;
    at = StorageIRI(at, part);
  }
  if (withSubfolders) {
    watchTree(at, nullptr);
  } else {
    addWatch(at);
  }
}

void InotifyWatcher::stop() {
  std::thread thread;
  {
    std::lock_guard lock(mutex_);
    if (stopped_) return;
    stopped_ = true;
    if (!thread_.joinable()) return;
    const std::uint64_t one = 1;
    if (::write(wake_.get(), &one, sizeof one) != sizeof one) {
      FOUNDATION_LOG(fileLogger(), log::error)
          << "Cannot wake the event thread: " << std::generic_category().message(errno);
    }
    thread = std::move(thread_);
  }
  if (thread.get_id() == std::this_thread::get_id()) {
    // Stopped from a publisher: the thread sees stopped_ when the publisher returns.
    thread.detach();
    return;
  }
  thread.join();
}

void InotifyWatcher::run() {
  std::vector<char> buffer(kBufferSize);
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return;
    }
    try {
      runOnce(buffer);
    } catch (const std::exception& e) {
      FOUNDATION_LOG(fileLogger(), log::error) << "Event thread: " << e.what();
    }
  }
}

void InotifyWatcher::runOnce(std::vector<char>& buffer) {
  bool pending;
  {
    std::lock_guard lock(mutex_);
    pending = pendingMove_.has_value();
  }
  const Wake wake = waitForEvents(pending ? kPairingWaitMs : -1);
  if (wake == Wake::Stop) return;
  std::vector<Delivery> out;
  {
    std::lock_guard lock(mutex_);
    if (wake == Wake::Timeout) {
      flushPendingMove(out);
    } else {
      const ssize_t got = ::read(inotify_.get(), buffer.data(), buffer.size());
      if (got < 0 && errno != EAGAIN && errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "read inotify");
      }
      if (got > 0) processBuffer(buffer.data(), static_cast<std::size_t>(got), out);
    }
  }
  deliver(out);
}

InotifyWatcher::Wake InotifyWatcher::waitForEvents(int timeoutMs) const {
  pollfd fds[2] = {{inotify_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
  const int ready = ::poll(fds, 2, timeoutMs);
  if (ready < 0) {
    if (errno == EINTR) return Wake::Ready;  // the read finds nothing and we loop
    throw std::system_error(errno, std::generic_category(), "poll inotify");
  }
  if (fds[1].revents != 0) return Wake::Stop;
  return ready == 0 ? Wake::Timeout : Wake::Ready;
}

void InotifyWatcher::processBuffer(const char* data, std::size_t length,
                                   std::vector<Delivery>& out) {
  std::size_t offset = 0;
  while (offset + sizeof(inotify_event) <= length) {
    inotify_event header;
    std::memcpy(&header, data + offset, sizeof header);
    // The name follows the fixed part; copy both so that the access stays aligned.
    std::vector<char> event(sizeof header + header.len + 1, '\0');
    std::memcpy(event.data(), data + offset, sizeof header + header.len);
    processEvent(*reinterpret_cast<const inotify_event*>(event.data()), out);
    offset += sizeof header + header.len;
  }
}

void InotifyWatcher::processEvent(const inotify_event& event, std::vector<Delivery>& out) {
  if (event.mask & IN_Q_OVERFLOW) return processOverflow(out);
  if (event.mask & IN_IGNORED) {
    watches_.erase(event.wd);
    return;
  }
  const auto watch = watches_.find(event.wd);
  if (watch == watches_.end() || event.len == 0 || event.name[0] == '\0') return;
  const StorageIRI location(StorageIRI(u"file", watch->second), text::toUtf16(event.name));
  if (event.mask & IN_MOVED_TO) return processMovedTo(location, event, out);
  flushPendingMove(out);
  const EntryType type = typeOf(event.mask);
  if (event.mask & IN_MOVED_FROM) {
    pendingMove_ = PendingMove{event.cookie, location, type == EntryType::Folder};
  } else if (event.mask & IN_CREATE) {
    out.push_back({Kind::Appeared, location, location, type});
    if (type == EntryType::Folder) watchTree(location, &out);
  } else if (event.mask & IN_DELETE) {
    out.push_back({Kind::Disappeared, location, location, type});
  } else if (event.mask & (IN_CLOSE_WRITE | IN_ATTRIB)) {
    out.push_back({Kind::Changed, location, location, type});
  }
}

void InotifyWatcher::processMovedTo(const StorageIRI& to, const inotify_event& event,
                                    std::vector<Delivery>& out) {
  const EntryType type = typeOf(event.mask);
  if (pendingMove_ && pendingMove_->cookie == event.cookie) {
    const StorageIRI from = pendingMove_->from;
    pendingMove_.reset();
    out.push_back({Kind::Disappeared, from, to, type});
    out.push_back({Kind::Appeared, to, from, type});
    if (type == EntryType::Folder) renameWatches(from.getPath(), to.getPath());
    return;
  }
  flushPendingMove(out);
  out.push_back({Kind::Appeared, to, to, type});
  if (type == EntryType::Folder) watchTree(to, &out);
}

void InotifyWatcher::flushPendingMove(std::vector<Delivery>& out) {
  if (!pendingMove_) return;
  const PendingMove move = *pendingMove_;
  pendingMove_.reset();
  out.push_back(
      {Kind::Disappeared, move.from, move.from, move.folder ? EntryType::Folder : EntryType::File});
  if (move.folder) dropWatches(move.from.getPath());
}

void InotifyWatcher::processOverflow(std::vector<Delivery>& out) {
  FOUNDATION_LOG(fileLogger(), log::warning)
      << "inotify queue overflowed under '" << root_.path() << "'; asking for a rescan";
  pendingMove_.reset();  // its partner may have been lost
  const StorageIRI rootLocation(u"file", u"/");
  out.push_back({Kind::Rescan, rootLocation, rootLocation, EntryType::Unknown});
  watchTree(rootLocation, nullptr);  // folders made during the overflow have no watch yet
}

bool InotifyWatcher::addWatch(const StorageIRI& folder) {
  const std::string local = root_.localPathOf(folder);
  const int wd = ::inotify_add_watch(inotify_.get(), local.c_str(), kWatchMask);
  if (wd < 0) {
    if (errno != ENOENT && errno != ENOTDIR) {  // gone again: its removal is reported anyway
      FOUNDATION_LOG(fileLogger(), log::error)
          << "Cannot watch '" << local << "': " << std::generic_category().message(errno);
    }
    return false;
  }
  watches_[wd] = folder.getPath();
  return true;
}

void InotifyWatcher::watchTree(const StorageIRI& folder, std::vector<Delivery>* created) {
  if (!addWatch(folder)) return;
  const std::string local = root_.localPathOf(folder);
  // The watch exists before the listing, so nothing made from now on is missed.
  UniqueDir dir(::opendir(local.c_str()));
  if (!dir) return;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const StorageIRI child(folder, text::toUtf16(name));
    const bool isFolder = isFolderNoFollow(::dirfd(dir.get()), *entry);
    if (created) {
      created->push_back(
          {Kind::Appeared, child, child, isFolder ? EntryType::Folder : EntryType::File});
    }
    if (isFolder) watchTree(child, created);
  }
}

void InotifyWatcher::renameWatches(const std::u16string& from, const std::u16string& to) {
  for (auto& [wd, path] : watches_) {
    if (isUnder(path, from)) path = to + path.substr(from.size());
  }
}

void InotifyWatcher::dropWatches(const std::u16string& under) {
  for (auto it = watches_.begin(); it != watches_.end();) {
    if (isUnder(it->second, under)) {
      ::inotify_rm_watch(inotify_.get(), it->first);
      it = watches_.erase(it);
    } else {
      ++it;
    }
  }
}

void InotifyWatcher::deliver(const std::vector<Delivery>& deliveries) const {
  for (const auto& d : deliveries) {
    subscriptions_.deliver(d.kind, d.location, d.other, d.type);
  }
}

}  // namespace foundation::storage::provider::file
