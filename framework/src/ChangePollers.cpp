#include "ChangePollers.h"

#include <foundation/log/DiagnosticLogger.h>

#include <algorithm>

namespace foundation::storage::provider::detail {

namespace {

const log::diagnostic_logger& frameworkLogger() {
  static const log::diagnostic_logger logger("foundation::storage::provider");
  return logger;
}

}  // namespace

ChangePoller::ChangePoller(const IProvider& provider, StorageIRI location, EventPublisher publisher,
                           std::vector<events::Kind> kinds, long periodMs, bool recursive)
    : provider_(provider),
      location_(std::move(location)),
      publisher_(std::move(publisher)),
      kinds_(std::move(kinds)),
      periodMs_(std::max(1L, periodMs)),
      recursive_(recursive) {
  // The first listing is taken at once, so that changes made right after the start count.
  last_ = takeSnapshot();
  thread_ = std::thread([this] { run(); });
}

ChangePoller::~ChangePoller() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

ChangePoller::Snapshot ChangePoller::takeSnapshot() const {
  Snapshot snapshot;
  auto rows = recursive_ ? provider_.listAllRecursive(location_) : provider_.listAll(location_);
  for (const auto& row : collectRows(*rows)) {
    if (row.isFile()) {
      const auto& a = row.getFileAttributes();
      snapshot[row.getName()] = {true, a.getSize(), a.getLastModified()};
    } else {
      snapshot[row.getName()] = {false, std::nullopt, row.getFolderAttributes().getLastModified()};
    }
  }
  return snapshot;
}

void ChangePoller::publishDifferences(const Snapshot& before, const Snapshot& after) const {
  for (const auto& [name, seen] : before) {
    if (!after.count(name)) publish(events::Kind::Removed, name, seen.file);
  }
  for (const auto& [name, seen] : after) {
    const auto old = before.find(name);
    if (old == before.end()) {
      publish(events::Kind::Created, name, seen.file);
    } else if (seen.file &&
               (old->second.size != seen.size || old->second.lastModified != seen.lastModified)) {
      publish(events::Kind::Modified, name, seen.file);
    }
  }
}

void ChangePoller::publish(events::Kind kind, const std::u16string& relative, bool file) const {
  if (!kinds_.empty() && std::find(kinds_.begin(), kinds_.end(), kind) == kinds_.end()) return;
  const StorageIRI location(location_, relative);
  const auto type = file ? events::EntryType::File : events::EntryType::Folder;
  try {
    publisher_(kind, location, location, type, {});
  } catch (const std::exception& e) {
    FOUNDATION_LOG(frameworkLogger(), log::error)
        << "Change-polling subscriber failed for " << location << ": " << e.what();
  }
}

void ChangePoller::run() {
  std::unique_lock lock(mutex_);
  while (
      !wake_.wait_for(lock, std::chrono::milliseconds(periodMs_), [this] { return stopping_; })) {
    lock.unlock();
    try {
      auto now = takeSnapshot();
      publishDifferences(last_, now);
      last_ = std::move(now);
    } catch (const std::exception& e) {
      FOUNDATION_LOG(frameworkLogger(), log::error)
          << "Change polling of " << location_ << " failed: " << e.what();
    }
    lock.lock();
  }
}

void ChangePollers::start(const StorageIRI& location, const EventPublisher& publisher,
                          const std::vector<events::Kind>& kinds, long periodMs, bool recursive) {
  pollers_.erase(location);
  pollers_[location] =
      std::make_unique<ChangePoller>(provider_, location, publisher, kinds, periodMs, recursive);
}

std::unique_ptr<ChangePoller> ChangePollers::release(const StorageIRI& location) {
  const auto it = pollers_.find(location);
  if (it == pollers_.end()) return nullptr;
  auto poller = std::move(it->second);
  pollers_.erase(it);
  return poller;
}

}  // namespace foundation::storage::provider::detail
