#include "ChangePollers.h"

#include <foundation/log/DiagnosticLogger.h>

#include <boost/exception/diagnostic_information.hpp>

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
    : state_(std::make_shared<State>(provider, std::move(location), std::move(publisher),
                                     std::move(kinds), std::max(1L, periodMs), recursive)) {
  // The first listing is taken at once, so that changes made right after the start count.
  state_->last = state_->takeSnapshot();
  thread_ = std::thread([state = state_] { run(state); });
}

ChangePoller::~ChangePoller() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // stopped from its own callback: it ends when the callback returns
  } else {
    thread_.join();
  }
}

bool ChangePoller::State::isStopping() {
  std::lock_guard lock(mutex);
  return stopping;
}

ChangePoller::Snapshot ChangePoller::State::takeSnapshot() const {
  Snapshot snapshot;
  auto rows = recursive ? provider.listAllRecursive(location) : provider.listAll(location);
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

void ChangePoller::State::publishDifferences(const Snapshot& before, const Snapshot& after) {
  for (const auto& [name, seen] : before) {
    if (!after.count(name)) publish(events::Kind::Disappeared, name, seen.file);
  }
  for (const auto& [name, seen] : after) {
    const auto old = before.find(name);
    if (old == before.end()) {
      publish(events::Kind::Appeared, name, seen.file);
    } else if (seen.file &&
               (old->second.size != seen.size || old->second.lastModified != seen.lastModified)) {
      publish(events::Kind::Changed, name, seen.file);
    }
  }
}

void ChangePoller::State::publish(events::Kind kind, const std::u16string& relative, bool file) {
  if (!kinds.empty() && std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) return;
  // A subscriber that stopped polling (perhaps from an earlier callback) hears nothing more.
  if (isStopping()) return;
  const StorageIRI changed(location, relative);
  const auto type = file ? events::EntryType::File : events::EntryType::Folder;
  try {
    publisher(kind, changed, changed, type, {});
  } catch (...) {
    // A subscriber that stopped polling in this very callback is no longer listening, and
    // its poller may be going away with the process: nothing more is done for it.
    if (isStopping()) return;
    FOUNDATION_LOG(frameworkLogger(), log::error)
        << "Change-polling subscriber failed for " << changed << ": "
        << boost::current_exception_diagnostic_information();
  }
}

void ChangePoller::run(const std::shared_ptr<State>& state) {
  std::unique_lock lock(state->mutex);
  while (!state->wake.wait_for(lock, std::chrono::milliseconds(state->periodMs),
                               [&] { return state->stopping; })) {
    lock.unlock();
    try {
      auto now = state->takeSnapshot();
      state->publishDifferences(state->last, now);
      state->last = std::move(now);
    } catch (...) {
      try {
        FOUNDATION_LOG(frameworkLogger(), log::error)
            << "Change polling of " << state->location
            << " failed: " << boost::current_exception_diagnostic_information();
      } catch (...) {
      }
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
