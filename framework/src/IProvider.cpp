#include "ChangePollers.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/IProvider.h>
#include <foundation/text/Unicode.h>

#include <algorithm>

namespace foundation::storage::provider {

IProvider::IProvider() = default;

IProvider::~IProvider() { stopAllPolling(); }

void IProvider::shutdown() {
  stopAllPolling();
  doShutdown();
}

void IProvider::stopAllPolling() const {
  std::unique_ptr<detail::ChangePollers> pollers;
  {
    std::lock_guard lock(pollersMutex_);
    pollers = std::move(pollers_);
  }
  // Destroying the pollers joins their threads; done outside the mutex so that a poll in
  // progress cannot wait for it.
}

void IProvider::doStartChangePollingMechanism(const StorageIRI& iri,
                                              const EventPublisher& publisher,
                                              const std::vector<events::Kind>& kinds, long periodMs,
                                              RecursiveChangePolling recursive) const {
  std::lock_guard lock(pollersMutex_);
  if (!pollers_) pollers_ = std::make_unique<detail::ChangePollers>(*this);
  pollers_->start(iri, publisher, kinds, periodMs, recursive == RecursiveChangePolling::Yes);
}

void IProvider::doStopChangePollingMechanism(const StorageIRI& iri) const {
  std::unique_ptr<detail::ChangePoller> stopped;
  {
    std::lock_guard lock(pollersMutex_);
    if (pollers_) stopped = pollers_->release(iri);
  }
}

bool IProvider::doExists(const StorageIRI& iri) const {
  return doFileExists(iri) || doFolderExists(iri);
}

Existence IProvider::doExistsExtended(const StorageIRI& iri) const {
  if (doFileExists(iri)) return Existence::File;
  if (doFolderExists(iri)) return Existence::Folder;
  return Existence::None;
}

PathComparator IProvider::doGetPathComparator(const StorageIRI& iri) const {
  const bool foldCase = doGetFilenameSensitivity(iri) == FilenameSensitivity::CaseInsensitive;
  return [foldCase](const StorageIRI& a, const StorageIRI& b) {
    auto key = [foldCase](const StorageIRI& location) {
      std::vector<std::u16string> parts(location.getPathView().begin(),
                                        location.getPathView().end());
      if (foldCase) {
        for (auto& part : parts) part = text::toLower(part);
      }
      return parts;
    };
    return key(a) < key(b);
  };
}

StorageIRI IProvider::doGetCanonicalLocation(const StorageIRI& iri) const {
  return iri.getResolvedIRI();
}

FilenameSensitivity IProvider::doGetFilenameSensitivity(const StorageIRI&) const {
  return FilenameSensitivity::CaseSensitive;
}

ProviderCacheUsage IProvider::doGetProviderCacheUsage(const StorageIRI& iri) const {
  const auto info = doGetProviderStorageInfo(iri);
  const auto capacity = info.getStorageCapacity();
  const auto occupied = info.getSpaceOccupied();
  return ProviderCacheUsage(occupied >= capacity ? 0 : capacity - occupied);
}

}  // namespace foundation::storage::provider
