#include "core/contentcache/BodyDisposal.h"

#include "core/support/OverlayLog.h"
#include "core/support/ThreadName.h"

#include <boost/filesystem/operations.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace storage::overlayprovider {

namespace fs = boost::filesystem;

BodyDisposal::BodyDisposal()
    : prefix_(boost::uuids::to_string(boost::uuids::random_generator()()) + "-") {}

BodyDisposal::~BodyDisposal() {
  try {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    workArrived_.notify_all();
    if (thread_.joinable()) thread_.join();
    drain();
  } catch (...) {
    logCaughtException("The discarded cache bodies could not all be deleted");
  }
}

void BodyDisposal::dispose(const fs::path& cacheRoot, const fs::path& body) {
  const auto folder = cacheRoot / "discarded";
  bool firstUse = false;
  std::string name;
  {
    std::lock_guard lock(mutex_);
    firstUse = folder_.native() != folder.native();
    folder_ = folder;
    name = prefix_ + std::to_string(nextName_++);
  }
  if (firstUse) {
    sweep(folder);
    boost::system::error_code failed;  // shows as a failed rename, whose fallback deletes
    fs::create_directories(folder, failed);
  }
  boost::system::error_code error;
  fs::rename(body, folder / name, error);
  if (!error) {
    handOver(folder / name);
    return;
  }
  // Only now is it worth asking whether there was a body at all (a missing one is no error).
  boost::system::error_code unreadable;  // then a removal is tried all the same
  if (fs::status(body, unreadable).type() == fs::file_not_found) return;
  OVERLAY_LOG(foundation::log::notice)
      << "A discarded cache body could not be set aside (" << error.message()
      << "); it is deleted at once: " << body.string();
  {
    // The folder may have gone (deleted from outside): the next dispose makes it again.
    std::lock_guard lock(mutex_);
    folder_.clear();
  }
  fs::remove(body);  // throws when even that fails: the name must not keep old bytes
}

void BodyDisposal::handOver(fs::path discarded) {
  std::lock_guard lock(mutex_);
  waiting_.push_back(std::move(discarded));
  if (stopping_) return;  // the destructor deletes it
  if (!thread_.joinable()) {
    thread_ = std::thread([this] { runDeletions(); });
  } else if (idle_) {
    // Once awake, the thread gathers for a moment and takes whatever came meanwhile.
    idle_ = false;
    workArrived_.notify_one();
  }
}

void BodyDisposal::runDeletions() noexcept {
  nameThisThread("ovl disposal");
  try {
    std::unique_lock lock(mutex_);
    while (true) {
      idle_ = true;
      workArrived_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
      idle_ = false;
      if (waiting_.empty()) return;  // stopping, nothing left
      deleting_ = true;
      workArrived_.wait_for(lock, kGathering, [this] { return stopping_ || draining_ > 0; });
      deleteWaiting(lock);
      deleting_ = false;
      drained_.notify_all();
    }
  } catch (...) {
    logCaughtException("The thread deleting discarded cache bodies failed");
    try {
      std::lock_guard lock(mutex_);
      threadEnded_ = true;  // drain() deletes what is left itself
    } catch (...) {
      logCaughtException(nullptr);
    }
    drained_.notify_all();
  }
}

void BodyDisposal::drain() {
  std::unique_lock lock(mutex_);
  if (thread_.joinable() && !stopping_) {
    ++draining_;  // cuts the thread's gathering short
    workArrived_.notify_all();
    drained_.wait(lock, [this] { return (waiting_.empty() && !deleting_) || threadEnded_; });
    --draining_;
  }
  // Without a thread (stopped, or it failed) what waits is deleted here.
  deleteWaiting(lock);
  fs::path folder;
  folder.swap(folder_);  // made again by the next dispose
  lock.unlock();
  if (folder.empty()) return;
  boost::system::error_code notEmpty;  // another instance sharing the root may still use it
  fs::remove(folder, notEmpty);
}

void BodyDisposal::deleteWaiting(std::unique_lock<std::mutex>& lock) {
  while (!waiting_.empty()) {
    auto file = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();  // the file system is never touched under the mutex
    deleteFile(file);
    lock.lock();
  }
}

void BodyDisposal::deleteFile(const fs::path& file) noexcept {
  boost::system::error_code error;
  fs::remove(file, error);
  if (error) {
    OVERLAY_LOG(foundation::log::error) << "A discarded cache body could not be deleted ("
                                        << error.message() << "): " << file.string();
  }
}

void BodyDisposal::sweep(const fs::path& folder) noexcept {
  boost::system::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    deleteFile(it->path());
  }
}

}  // namespace storage::overlayprovider
