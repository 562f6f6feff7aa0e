#include <foundation/storage/provider/file/FileProvider.h>

namespace foundation::storage::provider::file {

namespace {

// Subscriptions are kept under the plain "file" location of the path (no inner location),
// which is what the watcher reports.
StorageIRI plain(const StorageIRI& location) { return StorageIRI(u"file", location.getPath()); }

}  // namespace

void FileProvider::doPublishFolderEventsFor(const StorageIRI& location,
                                            const EventPublisher& publisher,
                                            const std::vector<events::Kind>& kinds,
                                            RecursiveFileWatching recursive) const {
  root_.resolve(location);
  watcher_->ensureStarted();
  watcher_->ensureWatched(plain(location), recursive == RecursiveFileWatching::Yes);
  subscriptions_.addFolder(plain(location), publisher, kinds, recursive);
}

void FileProvider::doPublishFileEventsFor(const StorageIRI& location,
                                          const EventPublisher& publisher,
                                          const std::vector<events::Kind>& kinds) const {
  root_.resolve(location);
  watcher_->ensureStarted();
  if (location.hasParent()) watcher_->ensureWatched(plain(location).getParent(), false);
  subscriptions_.addFile(plain(location), publisher, kinds);
}

void FileProvider::doStopPublishingEventsFor(const StorageIRI& location) const {
  // The watches stay (see InotifyWatcher.h); only the table changes.
  subscriptions_.remove(plain(location));
}

}  // namespace foundation::storage::provider::file
