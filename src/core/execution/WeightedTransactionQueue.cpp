#include "core/execution/WeightedTransactionQueue.h"

#include "core/execution/ChangeAbsorber.h"
#include "core/support/OverlayLog.h"

#include <array>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdlib>
#include <sstream>
#include <string_view>

namespace storage::overlayprovider {

namespace {

using Clock = std::chrono::system_clock;

// A periodic snapshot is written from the take path at most this often, so that a busy queue
// reports itself without anyone asking.
constexpr auto kSnapshotInterval = std::chrono::seconds(11);

// Report order of the kinds; operators' dashboards read these keys.
constexpr std::array<std::pair<std::string_view, ObservableTransactionType>, 17> kKindKeys = {{
    {"openReadOnly", FILE_OPEN_READONLY},
    {"openReadWrite", FILE_OPEN_READWRITE},
    {"createFile", FILE_CREATION},
    {"write", FILE_WRITE},
    {"close", FILE_CLOSE},
    {"removeFile", FILE_REMOVAL},
    {"moveFile", FILE_MOVE},
    {"copyFile", FILE_COPY},
    {"createFolder", FOLDER_CREATION},
    {"createFolderRecursive", FOLDER_CREATION_RECURSIVE},
    {"removeFolder", FOLDER_REMOVAL},
    {"removeFolderRecursive", FOLDER_REMOVAL_RECURSIVE},
    {"moveFolder", FOLDER_MOVE},
    {"setLastModified", SET_LAST_MODIFIED},
    {"setWritable", SET_WRITABLE},
    {"wakeupFlush", WAKEUP_FLUSH},
    {"externalEvent", EXTERNAL_EVENT},
}};

std::int64_t millisBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(to - from).count() / 1000000;
}

bool metricsDisabledByEnvironment() {
  const char* value = std::getenv("QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE");
  return value != nullptr && std::string_view(value) == "true";
}

std::string toCompactJson(const boost::property_tree::ptree& tree) {
  std::ostringstream text;
  boost::property_tree::write_json(text, tree, false);
  return text.str();
}

}  // namespace

WeightedTransactionQueue::WeightedTransactionQueue(double maxWeight)
    : maxWeight_(maxWeight),
      periodStart_(Clock::now()),
      lastSnapshot_(periodStart_),
      captureMetrics_(!metricsDisabledByEnvironment()) {}

bool WeightedTransactionQueue::push(QueuedTransaction entry) {
  // Entries a change absorbed, destroyed once the mutex is released.
  std::deque<QueuedTransaction> withdrawn;
  bool wake = true;
  {
    std::unique_lock lock(mutex_);
    if (workerEnded_ || (closed_ && !entry.internal)) {
      return false;
    }
    entry.accountedWeight = 0.0;
    if (!entry.internal) {
      // A bound that is not above 0 (NaN included) holds nobody back.
      const auto hasSpace = [this] {
        const double bound = maxWeight_.load();
        return closed_ || !(bound > 0.0) || currentWeight_ <= bound;
      };
      if (!hasSpace()) {
        // The first held-back submitter cuts the absorption window short for every entry.
        if (++heldBack_ == 1) workAvailable_.notify_all();
        spaceAvailable_.wait(lock, hasSpace);
        --heldBack_;
        if (cancelled_ || workerEnded_) {
          lock.unlock();
          queueChanged_.notify_all();  // a drain may be waiting for held-back submitters
          return false;
        }
      }
      // Read again: a bound dropped to 0 while this submitter waited keeps no weight.
      if (maxWeight_.load() > 0.0) {
        entry.accountedWeight = entry.weight;
        currentWeight_ += entry.weight;
      }
    }
    if (absorbing_.load() && entry.change) withdrawn = absorbLocked(entry);
    appendLocked(std::move(entry));
    wake = needsAnotherWorkerLocked();
  }
  if (wake) workAvailable_.notify_one();
  return true;
}

std::deque<QueuedTransaction> WeightedTransactionQueue::absorbLocked(QueuedTransaction& arriving) {
  std::deque<QueuedTransaction> withdrawn;
  const auto verdict = ChangeAbsorber::judge(entries_, scopes_, arriving);
  if (verdict.arrivalMoot) {
    ++absorbed_;
    arriving.isMoot = true;
  }
  // A verdict may only flag queued changes (a write that becomes a whole file).
  for (const auto& [position, flags] : verdict.flagged) entries_[position].change->flags |= flags;
  if (verdict.withdrawn.empty()) return withdrawn;
  for (const auto position : verdict.relocated) {
    auto& entry = entries_[position];
    scopes_.remove(entry.serial, entry.scope);
    entry.change->location = *arriving.change->destination;
    entry.change->flags |= ReplayChange::kFollowsMove;
    entry.scope = entry.change->scopeKeys();
    scopes_.add(entry.serial, entry.scope);
  }
  for (const auto position : verdict.withdrawn) {
    auto& entry = entries_[position];
    for (auto& handler : entry.absorbedMoot) arriving.absorbedMoot.push_back(std::move(handler));
    arriving.absorbedMoot.push_back(std::move(entry.moot));
    currentWeight_ -= entry.accountedWeight;
    waitingWeight_ -= entry.weight;
    if (captureMetrics_) kindCounters_[entry.type].first -= 1;
  }
  // Back to front, so that the positions still to erase stay where the verdict found them.
  for (auto position = verdict.withdrawn.rbegin(); position != verdict.withdrawn.rend();
       ++position) {
    const auto at = entries_.begin() + static_cast<std::ptrdiff_t>(*position);
    scopes_.remove(at->serial, at->scope);
    withdrawn.push_back(std::move(*at));
    entries_.erase(at);
  }
  if (entries_.empty()) currentWeight_ = waitingWeight_ = 0.0;
  absorbed_ += verdict.withdrawn.size();
  arriving.change->flags |= verdict.addFlags;
  return withdrawn;
}

void WeightedTransactionQueue::appendLocked(QueuedTransaction entry) {
  if (entries_.empty()) {
    periodEntries_ = 0;
    periodStart_ = Clock::now();
    periodQueueTime_ = 0;
  }
  if (captureMetrics_) {
    countPushed(entry.type);
  }
  if (entry.internal) ++markersAppended_;
  if (!entry.internal) waitingWeight_ += entry.weight;
  entry.serial = nextSerial_++;
  scopes_.add(entry.serial, entry.scope);
  entries_.push_back(std::move(entry));
  periodEntries_ += 1;
}

void WeightedTransactionQueue::countPushed(ObservableTransactionType type) {
  // Statistics must never cost a transaction, so a failure here is dropped.
  try {
    auto& counters = kindCounters_[type];
    counters.first += 1;
    counters.second += 1;
  } catch (...) {
  }
}

std::optional<QueuedTransaction> WeightedTransactionQueue::take() {
  std::unique_lock lock(mutex_);
  std::optional<std::size_t> runnable;
  for (;;) {
    workAvailable_.wait(lock, [&] {
      if (workersStopping_) return true;
      runnable = order_.pickRunnable(entries_);
      return runnable.has_value();
    });
    if (workersStopping_) return std::nullopt;
    // The first runnable entry is the oldest that may start: none behind it is riper.
    const auto ripe = ripensAtLocked(entries_[*runnable]);
    if (!ripe || Clock::now() >= *ripe) break;
    waitForRipening(lock, *ripe);
  }
  const auto position = entries_.begin() + static_cast<std::ptrdiff_t>(*runnable);
  QueuedTransaction entry = std::move(*position);
  entries_.erase(position);
  scopes_.remove(entry.serial, entry.scope);
  order_.started(entry);
  if (entry.internal) ++markersResolved_;
  // With nothing queued nothing weighs: no rounding residue may hold a submitter back.
  currentWeight_ = entries_.empty() ? 0.0 : currentWeight_ - entry.accountedWeight;
  waitingWeight_ = entries_.empty() ? 0.0 : waitingWeight_ - (entry.internal ? 0.0 : entry.weight);
  if (!entry.internal) {
    accountTaken(entry);
  }
  const bool wake = needsAnotherWorkerLocked();
  lock.unlock();
  if (wake) workAvailable_.notify_one();
  queueChanged_.notify_all();
  spaceAvailable_.notify_all();
  return entry;
}

void WeightedTransactionQueue::waitForRipening(std::unique_lock<std::mutex>& lock,
                                               Clock::time_point ripe) {
  if (timerKept_) {
    workAvailable_.wait(lock);
    return;
  }
  timerKept_ = true;
  workAvailable_.wait_until(lock, ripe);
  timerKept_ = false;
}

bool WeightedTransactionQueue::needsAnotherWorkerLocked() const {
  const auto running = order_.running();
  const auto now = Clock::now();
  const auto ripe = [&](const QueuedTransaction& entry) {
    const auto at = ripensAtLocked(entry);
    return !at || now >= *at;
  };
  if (order_.countStartable(entries_, running + 1, ripe) > running) return true;
  // Nobody running comes back to wait for the oldest entry to ripen.
  return running == 0 && !timerKept_ && order_.pickRunnable(entries_).has_value();
}

void WeightedTransactionQueue::finished(const QueuedTransaction& entry) {
  {
    std::lock_guard lock(mutex_);
    order_.finished(entry);
  }
  // No worker is woken: the one that ran this entry takes the next itself, and take() wakes
  // more if what may start now outnumbers the workers running.
  queueChanged_.notify_all();
}

void WeightedTransactionQueue::stopWorkers() {
  {
    std::lock_guard lock(mutex_);
    workersStopping_ = true;
  }
  workAvailable_.notify_all();
}

bool WeightedTransactionQueue::isIdle() {
  std::lock_guard lock(mutex_);
  return entries_.empty() && order_.running() == 0;
}

void WeightedTransactionQueue::accountTaken(const QueuedTransaction& entry) {
  // As in countPushed: bookkeeping failures must not lose the entry.
  try {
    if (captureMetrics_) {
      kindCounters_[entry.type].first -= 1;
      recordQueueTime(entry);
    }
  } catch (...) {
  }
}

void WeightedTransactionQueue::recordQueueTime(const QueuedTransaction& entry) {
  const auto now = Clock::now();
  const std::int64_t queueTime = millisBetween(entry.enqueued, now);
  if (queueTime > maxQueueTime_) {
    maxQueueTime_ = queueTime;
  }
  periodQueueTime_ += queueTime;
  if (now - lastSnapshot_ >= kSnapshotInterval) {
    writeSnapshotLocked();
    lastSnapshot_ = now;
  }
  if (entries_.empty() && foundation::log::isSeverityEnabled(foundation::log::notice)) {
    boost::property_tree::ptree tree;
    tree.put("overlay.queueStats.timeToEmpty", millisBetween(periodStart_, now));
    OVERLAY_LOG(foundation::log::notice) << toCompactJson(tree);
  }
}

bool WeightedTransactionQueue::isEmpty() {
  std::lock_guard lock(mutex_);
  return entries_.empty();
}

void WeightedTransactionQueue::waitUntilEmpty() {
  std::unique_lock lock(mutex_);
  ++drainWaiters_;
  workAvailable_.notify_all();  // what waits for the absorption window need not any more
  queueChanged_.wait(lock, [this] { return (entries_.empty() && heldBack_ == 0) || workerEnded_; });
  --drainWaiters_;
}

void WeightedTransactionQueue::waitForEarlierEntries() {
  std::unique_lock lock(mutex_);
  if (cancelled_ || workerEnded_) {
    return;
  }
  appendLocked(QueuedTransaction::marker());
  const std::uint64_t marker = markersAppended_;
  workAvailable_.notify_all();
  queueChanged_.wait(lock, [&] { return markersResolved_ >= marker || workerEnded_; });
}

void WeightedTransactionQueue::close(bool cancelOutstanding) {
  std::deque<QueuedTransaction> discarded;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    if (cancelOutstanding) {
      cancelled_ = true;
      discarded = discardLocked();
    }
  }
  spaceAvailable_.notify_all();
  queueChanged_.notify_all();
  workAvailable_.notify_all();
}

bool WeightedTransactionQueue::isClosed() {
  std::lock_guard lock(mutex_);
  return closed_;
}

void WeightedTransactionQueue::workerEnded() {
  std::deque<QueuedTransaction> discarded;
  {
    std::lock_guard lock(mutex_);
    workerEnded_ = true;
    closed_ = true;
    discarded = discardLocked();
  }
  spaceAvailable_.notify_all();
  queueChanged_.notify_all();
}

void WeightedTransactionQueue::discardAll() {
  std::deque<QueuedTransaction> discarded;
  {
    std::lock_guard lock(mutex_);
    discarded = discardLocked();
  }
  spaceAvailable_.notify_all();
  queueChanged_.notify_all();
}

// The entries are handed to the caller to be destroyed after the mutex is released.
std::deque<QueuedTransaction> WeightedTransactionQueue::discardLocked() {
  std::deque<QueuedTransaction> discarded;
  discarded.swap(entries_);
  scopes_.clear();
  markersResolved_ = markersAppended_;
  currentWeight_ = 0.0;
  waitingWeight_ = 0.0;
  return discarded;
}

void WeightedTransactionQueue::setMaxWeight(double maxWeight) { maxWeight_.store(maxWeight); }

void WeightedTransactionQueue::setAbsorbing(bool absorbing, std::chrono::milliseconds window) {
  {
    std::lock_guard lock(mutex_);
    absorbWindow_ = absorbing ? window : Clock::duration{};
  }
  absorbing_.store(absorbing);
  workAvailable_.notify_all();
}

std::optional<WeightedTransactionQueue::Clock::time_point> WeightedTransactionQueue::ripensAtLocked(
    const QueuedTransaction& entry) const {
  const bool awaited =
      closed_ || markersAppended_ > markersResolved_ || heldBack_ > 0 || drainWaiters_ > 0;
  if (absorbWindow_ == Clock::duration{} || entry.internal || awaited) return std::nullopt;
  return entry.enqueued + absorbWindow_;
}

std::string WeightedTransactionQueue::captureMetrics() {
  std::lock_guard lock(mutex_);
  return writeSnapshotLocked();
}

std::string WeightedTransactionQueue::writeSnapshotLocked() {
  boost::property_tree::ptree tree;
  tree.put("overlay.queueStats.size", entries_.size());
  tree.put("overlay.queueStats.weight", currentWeight_);
  tree.put("overlay.queueStats.waitingWeight", waitingWeight_);
  // 0/0 before anything was taken in this period: NaN says "no sample" better than 0 would.
  tree.put("overlay.queueStats.avQTime_ms",
           static_cast<double>(periodQueueTime_) / static_cast<double>(periodEntries_));
  tree.put("overlay.queueStats.maxQTime_ms", maxQueueTime_);
  tree.put("overlay.queueStats.absorbed", absorbed_);
  for (const auto& [word, type] : kKindKeys) {
    tree.put("overlay.queueStats.transaction.now." + std::string(word), kindCounters_[type].first);
  }
  for (const auto& [word, type] : kKindKeys) {
    tree.put("overlay.queueStats.transaction.totalOverTime." + std::string(word),
             kindCounters_[type].second);
  }
  std::string json = toCompactJson(tree);
  if (foundation::log::isSeverityEnabled(foundation::log::notice)) {
    OVERLAY_LOG(foundation::log::notice) << json;
  }
  return json;
}

}  // namespace storage::overlayprovider
