// OverlayProvider: the host's operations. Each opens its trace record, makes sure the
// provider is initialised, resolves its location(s), takes the path guard and forwards to
// the inner provider. Exceptions of the inner provider pass to the caller unchanged.
#include "core/OverlayLog.h"
#include "core/OverlayProvider.h"

#include <foundation/storage/provider/Exception.h>

namespace storage::overlayprovider {

using fsp::ErrorCode;
using fsp::Exception;
using fsp::StorageIRI;
namespace events = foundation::storage::events;

namespace {

constexpr const char* kSourceFile = "src/core/OverlayProvider";

// Names of new entries may not hold control characters (C0, DEL and C1). `location` is the
// overlay's public form, since it is what the refusal names.
void checkName(const StorageIRI& location) {
  for (const char16_t unit : location.getName()) {
    if (unit < 32 || (unit >= 127 && unit <= 159)) {
      throw Exception(ErrorCode::InvalidName, location, "the name holds a control character");
    }
  }
}

}  // namespace

#define OVERLAY_OPERATION(iri) FOUNDATION_TRACE_SCOPE_IRI(overlayLogger(), kSourceFile, iri)

void OverlayProvider::doCreateFile(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  checkName(publicLocation(location));
  const auto held = guard(location);
  forwardingRefusals([&] { innerItem(location).createFile(); });
}

void OverlayProvider::doCreateFolder(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  checkName(publicLocation(location));
  const auto held = guard(location);
  forwardingRefusals([&] { innerItem(location).createFolder(); });
}

void OverlayProvider::doCreateFolderRecursive(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  checkName(publicLocation(location));
  const auto held = guard(location);
  forwardingRefusals([&] { innerItem(location).createFolderRecursive(); });
}

bool OverlayProvider::doFileExists(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (!location.hasParent()) return false;
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).fileExists(); });
}

bool OverlayProvider::doFolderExists(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (!location.hasParent()) return true;
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).folderExists(); });
}

void OverlayProvider::doRemoveFile(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  forwardingRefusals([&] { innerItem(location).removeFile(); });
}

void OverlayProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to,
                                 const fsp::ReplacementPolicy& policy) const {
  OVERLAY_OPERATION(from);
  ensureInitialized();
  const auto source = resolve(from);
  const auto destination = resolve(to);
  checkName(publicLocation(destination));
  const auto held = guard(source, destination);
  forwardingRefusals(
      [&] { innerItem(source).moveFile(innerItem(destination).getLocation(), policy); });
}

void OverlayProvider::doRemoveFolder(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  forwardingRefusals([&] { innerItem(location).removeFolder(); });
}

void OverlayProvider::doRemoveFolderRecursively(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  forwardingRefusals([&] { innerItem(location).removeFolderRecursively(); });
}

void OverlayProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                                   const fsp::ReplacementPolicy& policy) const {
  OVERLAY_OPERATION(from);
  ensureInitialized();
  const auto source = resolve(from);
  const auto destination = resolve(to);
  checkName(publicLocation(destination));
  const auto held = guard(source, destination);
  forwardingRefusals(
      [&] { innerItem(source).moveFolder(innerItem(destination).getLocation(), policy); });
}

fsp::FileAttributes OverlayProvider::doGetFileAttributes(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).getFileAttributes(); });
}

fsp::FolderAttributes OverlayProvider::doGetFolderAttributes(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).getFolderAttributes(); });
}

fsp::ByteStreamPtr OverlayProvider::doOpenStream(const StorageIRI& iri,
                                                 const fsp::ByteStreamOpenOptions& options) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  if (options.create) checkName(publicLocation(location));
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).openStream(options); });
}

fsp::ByteStreamPtr OverlayProvider::doOpenReadOnlyStream(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).openReadOnlyStream(); });
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListAll(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).listAll(); });
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListFiles(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).listFiles(); });
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListFolders(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).listFolders(); });
}

void OverlayProvider::doCopyFile(const StorageIRI& from, const StorageIRI& to,
                                 const fsp::ReplacementPolicy& policy) const {
  OVERLAY_OPERATION(from);
  ensureInitialized();
  const auto source = resolve(from);
  const auto destination = resolve(to);
  checkName(publicLocation(destination));
  const auto held = guard(source, destination);
  forwardingRefusals(
      [&] { innerItem(source).copyFile(innerItem(destination).getLocation(), policy); });
}

void OverlayProvider::doSetLastModified(const StorageIRI& iri,
                                        const fsp::posix_time::ptime& time) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  forwardingRefusals([&] { innerItem(location).setLastModified(time); });
}

void OverlayProvider::doSetWritable(const StorageIRI& iri, bool writable) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  forwardingRefusals([&] { innerItem(location).setWritable(writable); });
}

void OverlayProvider::doPublishFolderEventsFor(const StorageIRI& iri,
                                               const fsp::EventPublisher& publisher,
                                               const std::vector<events::Kind>& kinds,
                                               fsp::RecursiveFileWatching recursive) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  // Subscriptions are the inner store's business: no overlay lock is held while it is asked.
  forwardingRefusals(
      [&] { innerItem(resolve(iri)).publishFolderEvents(publisher, kinds, recursive); });
}

void OverlayProvider::doPublishFileEventsFor(const StorageIRI& iri,
                                             const fsp::EventPublisher& publisher,
                                             const std::vector<events::Kind>& kinds) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  forwardingRefusals([&] { innerItem(resolve(iri)).publishFileEvents(publisher, kinds); });
}

void OverlayProvider::doStopPublishingEventsFor(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto item = innerItem(resolve(iri));
  if (item.fileExists()) {
    item.stopPublishingFileEvents();
  } else if (item.folderExists()) {
    item.stopPublishingFolderEvents();
  }
}

bool OverlayProvider::doHasFeature(const fsp::ExtendedFeature& feature) const {
  FOUNDATION_TRACE_SCOPE(overlayLogger(), kSourceFile);
  ensureInitialized();
  // The overlay claims only what it can keep true whatever the inner store does: being
  // writable. Everything else (recursive listing, locking semantics) is its own business.
  return inner_->hasFeature(feature) && feature == fsp::ExtendedFeature::ReadWrite;
}

fsp::ExtendedAttributes OverlayProvider::doGetExtendedAttributes(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  const auto location = resolve(iri);
  const auto held = guard(location);
  return forwardingRefusals([&] { return innerItem(location).getExtendedAttributes(); });
}

fsp::ProviderStorageInfo OverlayProvider::doGetProviderStorageInfo(const StorageIRI& iri) const {
  OVERLAY_OPERATION(iri);
  ensureInitialized();
  return inner_->getProviderStorageInfo();
}

}  // namespace storage::overlayprovider
