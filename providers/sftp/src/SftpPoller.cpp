#include "SftpPoller.h"

#include "SftpLog.h"

#include <foundation/text/Unicode.h>

namespace foundation::storage::provider::sftp {

using events::EntryType;
using events::Kind;

SftpPoller::SftpPoller(std::shared_ptr<SftpProvider::Impl> impl) : impl_(std::move(impl)) {}

SftpPoller::~SftpPoller() {
  try {
    stop();
  } catch (...) {
    FOUNDATION_LOG(sftpLogger(), log::error) << "Stopping the sftp poll thread failed";
  }
}

void SftpPoller::start() {
  if (!thread_.joinable() && !stopping_) thread_ = std::thread([this] { run(); });
}

void SftpPoller::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

// Lists the folder (and below, when recursive) so that later changes are told from it.
void SftpPoller::baseline(const StorageIRI& folder, bool recursive) {
  std::vector<StorageIRI> todo{folder};
  while (!todo.empty()) {
    const auto at = todo.back();
    todo.pop_back();
    Listing listing;
    try {
      for (const auto& e : impl_->readFolder(at)) {
        listing[e.name] = Sig{e.attrs.isFolder(), e.attrs.size, e.attrs.mtime, true};
        if (recursive && e.attrs.isFolder()) todo.emplace_back(at, text::toUtf16(e.name));
      }
    } catch (const Exception& e) {
      if (e.getErrorCode() != ErrorCode::NotFound) throw;
    }
    std::lock_guard lock(mutex_);
    pictures_[at] = std::move(listing);
  }
}

void SftpPoller::addFolder(const StorageIRI& folder, EventPublisher publisher,
                           std::vector<Kind> kinds, RecursiveFileWatching recursive) {
  const bool deep = recursive == RecursiveFileWatching::Yes;
  baseline(folder, deep);
  subscriptions_.addFolder(folder, std::move(publisher), std::move(kinds), recursive);
  std::lock_guard lock(mutex_);
  watches_.push_back({folder, deep});
  start();
}

void SftpPoller::addFile(const StorageIRI& file, EventPublisher publisher,
                         std::vector<Kind> kinds) {
  baseline(file.getParent(), false);
  subscriptions_.addFile(file, std::move(publisher), std::move(kinds));
  std::lock_guard lock(mutex_);
  watches_.push_back({file.getParent(), false});
  start();
}

void SftpPoller::remove(const StorageIRI& location) {
  subscriptions_.remove(location);
  std::lock_guard lock(mutex_);
  std::erase_if(watches_, [&](const Watch& w) {
    return w.at == location || (w.at == location.getParent() && location.hasParent());
  });
  // What no watch needs any more is forgotten.
  std::erase_if(pictures_, [&](const auto& entry) {
    for (const auto& w : watches_) {
      if (w.at == entry.first || (w.recursive && w.at.isAncestorOf(entry.first))) return false;
    }
    return true;
  });
}

bool SftpPoller::underRecursiveWatch(const StorageIRI& folder) const {
  for (const auto& w : watches_) {
    if (w.recursive && (w.at == folder || w.at.isAncestorOf(folder))) return true;
  }
  return false;
}

void SftpPoller::own(Kind kind, const StorageIRI& at, const StorageIRI& other, EntryType type) {
  {
    std::lock_guard lock(mutex_);
    if (watches_.empty() || stopping_) return;
    const auto name = text::toUtf8(at.getName());
    if (auto it = pictures_.find(at.getParent()); it != pictures_.end()) {
      if (kind == Kind::Disappeared) {
        it->second.erase(name);
      } else {
        it->second[name] = Sig{type == EntryType::Folder, 0, 0, false};
      }
    }
    if (kind == Kind::Disappeared) {
      std::erase_if(pictures_, [&](const auto& entry) {
        return entry.first == at || at.isAncestorOf(entry.first);
      });
    } else if (kind == Kind::Appeared && type == EntryType::Folder && underRecursiveWatch(at)) {
      pictures_[at];  // its entries are new to the subscribers
    }
    pending_.push_back({kind, at, other, type});
  }
  wake_.notify_all();
}

bool SftpPoller::listening() {
  std::lock_guard lock(mutex_);
  return !watches_.empty();
}

std::vector<StorageIRI> SftpPoller::foldersToList() {
  std::set<StorageIRI> all;
  for (const auto& w : watches_) {
    all.insert(w.at);
    if (!w.recursive) continue;
    for (const auto& [folder, listing] : pictures_) {
      if (w.at.isAncestorOf(folder)) all.insert(folder);
    }
  }
  std::vector<StorageIRI> ordered(all.begin(), all.end());
  const std::size_t budget = std::max(1u, impl_->options.pollFoldersPerRound);
  if (ordered.size() <= budget) return ordered;
  std::vector<StorageIRI> chosen;
  for (std::size_t i = 0; i < budget; ++i)
    chosen.push_back(ordered[(cursor_ + i) % ordered.size()]);
  cursor_ = (cursor_ + budget) % ordered.size();
  return chosen;
}

void SftpPoller::pollOnce() {
  std::vector<StorageIRI> folders;
  {
    std::lock_guard lock(mutex_);
    folders = foldersToList();
  }
  std::vector<Event> found;
  std::vector<std::pair<StorageIRI, StorageIRI>> moves;  // (from, to) paired in this round
  for (const auto& folder : folders) {
    {
      // A round lists up to 64 folders, several round trips each: seconds on a distant
      // server, which a stop (an unmount) must not wait for.
      std::lock_guard lock(mutex_);
      if (stopping_) return;
    }
    std::optional<std::vector<RemoteEntry>> entries;
    try {
      entries = impl_->readFolder(folder);
    } catch (const Exception& e) {
      if (e.getErrorCode() != ErrorCode::NotFound) {
        FOUNDATION_LOG(sftpLogger(), log::exception) << "Polling " << folder << ": " << e.what();
        continue;
      }
    }
    std::lock_guard lock(mutex_);
    auto it = pictures_.find(folder);
    if (it == pictures_.end()) {
      if (entries) {
        Listing& listing = pictures_[folder];
        for (const auto& e : *entries) {
          listing[e.name] = Sig{e.attrs.isFolder(), e.attrs.size, e.attrs.mtime, true};
        }
      }
      continue;
    }
    Listing now;
    if (entries) {
      for (const auto& e : *entries) {
        now[e.name] = Sig{e.attrs.isFolder(), e.attrs.size, e.attrs.mtime, true};
      }
    }
    const auto type = [](const Sig& s) { return s.folder ? EntryType::Folder : EntryType::File; };
    for (const auto& [name, before] : it->second) {
      const StorageIRI at(folder, text::toUtf16(name));
      auto n = now.find(name);
      if (n == now.end() || n->second.folder != before.folder) {
        found.push_back({Kind::Disappeared, at, at, type(before)});
        if (n != now.end()) found.push_back({Kind::Appeared, at, at, type(n->second)});
      } else if (before.known &&
                 (n->second.size != before.size || n->second.mtime != before.mtime)) {
        found.push_back({Kind::Changed, at, at, type(before)});
      }
    }
    for (const auto& [name, sig] : now) {
      if (it->second.count(name)) continue;
      const StorageIRI at(folder, text::toUtf16(name));
      found.push_back({Kind::Appeared, at, at, type(sig)});
      if (sig.folder && underRecursiveWatch(at)) pictures_[at];
    }
    it = pictures_.find(folder);
    it->second = std::move(now);
    if (!entries) pictures_.erase(it);
  }
  // An appearance where this provider moved something, with the source gone, is that move.
  for (auto& e : found) {
    if (e.kind != Kind::Appeared) continue;
    const auto from = impl_->movedFrom(e.at);
    if (!from) continue;
    for (auto& d : found) {
      if (d.kind == Kind::Disappeared && d.at == *from && d.other == d.at) {
        d.other = e.at;
        e.other = *from;
      }
    }
  }
  std::stable_partition(found.begin(), found.end(),
                        [](const Event& e) { return e.kind == Kind::Disappeared; });
  for (const auto& e : found) subscriptions_.deliver(e.kind, e.at, e.other, e.type);
}

void SftpPoller::run() {
  try {
    const auto interval = std::chrono::milliseconds(std::max(10L, impl_->options.pollIntervalMs));
    auto next = std::chrono::steady_clock::now() + interval;
    for (;;) {
      std::vector<Event> own;
      {
        std::unique_lock lock(mutex_);
        wake_.wait_until(lock, next, [&] { return stopping_ || !pending_.empty(); });
        if (stopping_) return;
        own.swap(pending_);
      }
      for (const auto& e : own) subscriptions_.deliver(e.kind, e.at, e.other, e.type);
      if (std::chrono::steady_clock::now() >= next) {
        try {
          pollOnce();
        } catch (const std::exception& e) {
          FOUNDATION_LOG(sftpLogger(), log::error) << "A polling round failed: " << e.what();
        }
        next = std::chrono::steady_clock::now() + interval;
      }
    }
  } catch (const std::exception& e) {
    FOUNDATION_LOG(sftpLogger(), log::error) << "The sftp poll thread stopped: " << e.what();
  } catch (...) {
    FOUNDATION_LOG(sftpLogger(), log::error) << "The sftp poll thread stopped";
  }
}

}  // namespace foundation::storage::provider::sftp
