#include "StoreStack.h"

#include "MountLog.h"

#include <foundation/storage/provider/ProviderRegistry.h>
#include <foundation/storage/provider/extensions/IDurableChanges.h>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.h>
#include <foundation/storage/provider/extensions/IQueueStatistics.h>
#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/mem/MemProvider.h>
#include <foundation/storage/provider/sftp/SftpProvider.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cctype>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace storage::mount {

namespace fsp = foundation::storage::provider;

StoreStack::StoreStack(const MountOptions& options)
    : root_(fsp::StorageIRI(u"file", u"/")), overlay_(!options.passThrough) {
  const fsp::StorageIRI innerLocation = makeInner(options);
  const fsp::StorageItem innerRoot(instrumented_, innerLocation);
  if (!overlay_) {
    root_ = innerRoot;
    return;
  }
  host_ = std::make_unique<foundation::host::BundleHost>();
  host_->load(options.bundlePath);
  root_ = fsp::ProviderRegistry::instance().open(u"overlay", innerRoot);
  root_.configure(options.overlayConfig);
  journalSync_ = options.journal && !options.fsyncToStore;
}

StoreStack::~StoreStack() { shutdown(); }

fsp::StorageIRI StoreStack::makeInner(const MountOptions& options) {
  const bool mem = options.storeKind == MountOptions::StoreKind::Mem;
  const bool sftp = options.storeKind == MountOptions::StoreKind::Sftp;
  if (sftp) {
    store_ = std::make_shared<fsp::sftp::SftpProvider>(options.sftp);
  } else if (mem) {
    store_ = std::make_shared<fsp::mem::MemProvider>();
  } else {
    store_ = std::make_shared<fsp::file::FileProvider>(options.storeDirectory);
  }
  instrumented_ = std::make_shared<fsp::instrumented::InstrumentedProvider>(store_);
  instrumented_->setCallLatency(options.latency);
  instrumented_->setStreamLatency(options.latency);
  if (sftp) return fsp::sftp::SftpProvider::rootLocation();
  return mem ? fsp::mem::MemProvider::rootLocation() : fsp::file::FileProvider::rootLocation();
}

void StoreStack::flush() const {
  if (!overlay_) return;
  auto* flushable = dynamic_cast<fsp::extensions::IFlushableFilesystem*>(root_.getProvider().get());
  if (flushable == nullptr) throw std::runtime_error("the overlay provider cannot be flushed");
  flushable->flushFilesystem();
}

void StoreStack::sync() const {
  if (!journalSync_) return flush();
  auto* durable = dynamic_cast<fsp::extensions::IDurableChanges*>(root_.getProvider().get());
  if (durable == nullptr) throw std::runtime_error("the overlay provider keeps no journal");
  durable->syncChanges();
}

std::uint64_t StoreStack::recoverPendingChanges() const {
  if (!overlay_) return 0;
  root_.folderExists();
  std::istringstream text(queueStatistics());
  boost::property_tree::ptree statistics;
  try {
    boost::property_tree::read_json(text, statistics);
  } catch (const boost::property_tree::ptree_error&) {
    return 0;
  }
  return statistics.get<std::uint64_t>("journal.recovered", 0);
}

std::string StoreStack::queueStatistics() const {
  auto* source = dynamic_cast<fsp::extensions::IQueueStatistics*>(root_.getProvider().get());
  std::string json = source == nullptr ? std::string("{}") : source->queueStatistics();
  // One line in the command's reports: the JSON writer ends its text with a line break.
  while (!json.empty() && std::isspace(static_cast<unsigned char>(json.back()))) json.pop_back();
  return json;
}

std::string StoreStack::storeCallsByOperation() const {
  std::string text;
  for (const auto& [operation, count] : instrumented_->instrumentation().counters.snapshot()) {
    text += (text.empty() ? "" : ", ") + operation + " " + std::to_string(count);
  }
  return text;
}

void StoreStack::shutdown() noexcept {
  if (shutDown_) return;
  shutDown_ = true;
  try {
    if (overlay_) root_.shutdownProvider();
    root_ = fsp::StorageItem(fsp::StorageIRI(u"file", u"/"));
    if (store_) store_->shutdown();
    instrumented_.reset();
    store_.reset();
    if (host_) host_->unload();
  } catch (...) {
    logCaughtException("shutting the stores down");
  }
}

}  // namespace storage::mount
