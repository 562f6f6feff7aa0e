// OverlayProvider::doConfigure: reads the "overlay." keys of the host's configuration tree,
// after handing the whole tree to the inner provider.
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"
#include "core/support/OverlayLog.h"

#include <atomic>
#include <boost/property_tree/json_parser.hpp>
#include <optional>
#include <sstream>
#include <string>

namespace storage::overlayprovider {

namespace log = foundation::log;
using boost::property_tree::ptree;

namespace {

template <class Value>
void logEcho(const std::string& key, const Value& value) {
  ptree echo;
  echo.put(key, value);
  std::ostringstream text;
  boost::property_tree::write_json(text, echo, false);
  OVERLAY_LOG(log::info) << text.str();
}

// Reads the whole number under "overlay.<name>" into `value` when it is at least `low` (and,
// given, at most `high`); otherwise logs why and keeps the value it had.
template <class Number>
void readBounded(const ptree& config, const std::string& name, std::atomic<Number>& value, long low,
                 std::optional<long> high = std::nullopt) {
  const auto text = config.get_optional<std::string>("overlay." + name);
  if (!text) return;
  const long read = std::stol(*text);
  if (read < low || (high && read > *high)) {
    const auto range = high ? "in " + std::to_string(low) + ".." + std::to_string(*high)
                            : "at least " + std::to_string(low);
    OVERLAY_LOG(log::error) << "overlay." << name << " must be " << range << "; keeping "
                            << value.load();
    return;
  }
  value = static_cast<Number>(read);
  logEcho("overlay.configuration." + name, read);
}

// More workers than this only add threads waiting on the same store.
constexpr int kMaxReplayWorkers = 64;

// "true" and "false" only: "1" reads as false, on purpose.
bool readAlphabeticBool(const std::string& text) {
  std::istringstream in(text);
  bool value = false;
  in >> std::boolalpha >> value;
  return value;
}

}  // namespace

void OverlayProvider::doConfigure(ptree config) {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kOverlayProviderSource);
  inner_->configure(config);
  try {
    readConfiguration(config);
  } catch (const boost::property_tree::ptree_error&) {
    OVERLAY_LOG(log::error) << "Error parsing configuration data.";
  } catch (const std::exception& e) {
    OVERLAY_LOG(log::error) << "Exception caught: " << e.what();
  }
  applyMaxQueueWeight();
}

void OverlayProvider::readConfiguration(const ptree& config) {
  if (const auto root = config.get_optional<std::string>("overlay.cacheRoot")) {
    logEcho("overlay.configuration.cacheRoot", *root);
    contentCache_->setCacheRoot(*root);
  }
  if (const auto text = config.get_optional<std::string>("overlay.maxQueueWeight")) {
    maxQueueWeight_ = std::stod(*text);
    logEcho("overlay.configuration.maxQueueWeight", maxQueueWeight_.load());
  }
  if (const auto text = config.get_optional<std::string>("overlay.minQueueItemWeight")) {
    minQueueItemWeight_ = std::stod(*text);
    logEcho("overlay.configuration.minQueueItemWeight", minQueueItemWeight_.load());
  }
  readBounded(config, "replayWorkers", replayWorkers_, 1, kMaxReplayWorkers);
  if (const auto text = config.get_optional<std::string>("overlay.absorbChanges")) {
    absorbChanges_ = readAlphabeticBool(*text);
    logEcho("overlay.configuration.absorbChanges", absorbChanges_.load());
  }
  readBounded(config, "absorbWindowMs", absorbWindowMs_, 0);
  if (const auto text = config.get_optional<std::string>("overlay.persistContentCache")) {
    if (*text == "1" || *text == "true") contentCache_->setPersistent();
  }
  if (const auto text = config.get_optional<std::string>("overlay.maxReadPayloadSize")) {
    maxReadPayloadSize_ = static_cast<std::uint64_t>(std::stol(*text, nullptr, 10));
    logEcho("overlay.configuration.maxReadPayloadSize", maxReadPayloadSize_.load());
  }
  if (const auto text = config.get_optional<std::string>("overlay.maxWritePayloadSize")) {
    maxWritePayloadSize_ = static_cast<std::uint64_t>(std::stol(*text, nullptr, 10));
    logEcho("overlay.configuration.maxWritePayloadSize", maxWritePayloadSize_.load());
  }
  if (const auto text = config.get_optional<std::string>("overlay.synchronous")) {
    if (readAlphabeticBool(*text)) {
      synchronous_ = true;
      installExecutor(makeSynchronousExecutor());
    }
  }
  if (const auto text = config.get_optional<std::string>("overlay.disableContentCache")) {
    if (readAlphabeticBool(*text)) contentCacheDisabled_ = true;
  }
  if (const auto text = config.get_optional<std::string>("overlay.suppressEchoes")) {
    echoes_->setEnabled(readAlphabeticBool(*text));
    logEcho("overlay.configuration.suppressEchoes", echoes_->isEnabled());
  }
  if (const auto text = config.get_optional<std::string>("overlay.journal")) {
    journalEnabled_ = readAlphabeticBool(*text);
    logEcho("overlay.configuration.journal", journalEnabled_.load());
  }
  readBounded(config, "journalSyncMs", journalSyncMs_, 1);
  if (const auto text = config.get_optional<std::string>("overlay.retryUnavailableMs")) {
    retryUnavailableMs_ = std::stol(*text);
    logEcho("overlay.configuration.retryUnavailableMs", retryUnavailableMs_.load());
  }
  if (const auto text = config.get_optional<std::string>("overlay.backslashToForwardSlash")) {
    if (readAlphabeticBool(*text)) backslashToForwardSlash_ = true;
  }
}

void OverlayProvider::applyMaxQueueWeight() const {
  const double weight = maxQueueWeight_.load();
  if (weight < 0) {
    // The negative value stays stored; only a running executor is protected from it.
    OVERLAY_LOG(log::error) << "overlay.maxQueueWeight < 0. Value must be >= 0";
    return;
  }
  std::lock_guard lock(initMutex_);
  if (const auto executor = executor_->load()) executor->setMaxQueueWeight(weight);
}

}  // namespace storage::overlayprovider
