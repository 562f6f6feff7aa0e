// OverlayProvider::doConfigure: reads the "overlay." keys of the host's configuration tree,
// after handing the whole tree to the inner provider.
#include "core/provider/OverlayProvider.h"
#include "core/provider/OverlayProviderSupport.h"
#include "core/support/OverlayLog.h"

#include <boost/property_tree/json_parser.hpp>
#include <sstream>

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
  if (const auto text = config.get_optional<std::string>("overlay.replayWorkers")) {
    const int workers = std::stoi(*text);
    if (workers < 1 || workers > kMaxReplayWorkers) {
      OVERLAY_LOG(log::error) << "overlay.replayWorkers must be in 1.." << kMaxReplayWorkers
                              << "; keeping " << replayWorkers_.load();
    } else {
      replayWorkers_ = workers;
      logEcho("overlay.configuration.replayWorkers", workers);
    }
  }
  if (const auto text = config.get_optional<std::string>("overlay.absorbChanges")) {
    absorbChanges_ = readAlphabeticBool(*text);
    logEcho("overlay.configuration.absorbChanges", absorbChanges_.load());
  }
  if (const auto text = config.get_optional<std::string>("overlay.absorbWindowMs")) {
    const long window = std::stol(*text);
    if (window < 0) {
      OVERLAY_LOG(log::error) << "overlay.absorbWindowMs must be 0 or more; keeping "
                              << absorbWindowMs_.load();
    } else {
      absorbWindowMs_ = window;
      logEcho("overlay.configuration.absorbWindowMs", window);
    }
  }
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
  if (const auto text = config.get_optional<std::string>("overlay.journalSyncMs")) {
    const long ms = std::stol(*text);
    if (ms < 1) {
      OVERLAY_LOG(log::error) << "overlay.journalSyncMs must be at least 1; keeping "
                              << journalSyncMs_.load();
    } else {
      journalSyncMs_ = ms;
      logEcho("overlay.configuration.journalSyncMs", ms);
    }
  }
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
