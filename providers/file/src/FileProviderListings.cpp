#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/file/ErrnoTranslation.h>
#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/file/UniqueDir.h>
#include <foundation/text/Unicode.h>

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

namespace foundation::storage::provider::file {

namespace {

struct LocalEntry {
  std::string name;
  bool maybeLink;  // the directory entry is a link, or its type is not known
};

std::vector<LocalEntry> readFolder(const std::string& path, const StorageIRI& location) {
  UniqueDir dir(::opendir(path.c_str()));
  if (!dir) throw errnoException(errno, location, "opendir", path);
  std::vector<LocalEntry> entries;
  errno = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    entries.push_back({name, entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN});
  }
  if (errno != 0) throw errnoException(errno, location, "readdir", path);
  return entries;
}

// The row of one entry, or nothing when it went away meanwhile or is a link leading outside
// the root (such entries are not part of the store).
std::optional<FolderEntry> rowOf(const LocalRoot& root, const std::string& path,
                                 const LocalEntry& entry, std::u16string rowName,
                                 const StorageIRI& location, struct stat& status) {
  if (entry.maybeLink && root.isEscapingLink(path)) return std::nullopt;
  const LocalStatus local = statEntry(path, location);
  if (local.kind == EntryKind::None) return std::nullopt;
  status = local.status;
  ExtendedAttributes extended;
  try {
    extended = readExtendedAttributes(path, location);
  } catch (const Exception& e) {
    if (e.getErrorCode() == ErrorCode::NotFound) return std::nullopt;
    throw;
  }
  if (local.kind == EntryKind::Folder) {
    return FolderEntry(std::move(rowName), folderAttributesOf(status), std::move(extended));
  }
  return FolderEntry(std::move(rowName), fileAttributesOf(status), std::move(extended));
}

// A folder reached through a link is listed but not entered: a handful of links pointing
// sideways can make the paths below a folder grow exponentially, while the folders themselves
// are walked once through their real paths. The row tells a consumer that fills a cache from
// this listing to list that folder on its own.
constexpr const char* kNotEntered = "initiallyInvalid";

// Pre-order walk: each folder's row, then its contents.
void walk(const LocalRoot& root, const std::string& path, const std::u16string& prefix,
          const StorageIRI& location, std::vector<FolderEntry>& rows) {
  for (const LocalEntry& entry : readFolder(path, location)) {
    const std::string childPath = path + "/" + entry.name;
    const std::u16string rowName = prefix + text::toUtf16(entry.name);
    struct stat status {};
    auto row = rowOf(root, childPath, entry, rowName, location, status);
    if (!row) continue;
    if (row->isFile()) {
      rows.push_back(std::move(*row));
      continue;
    }
    if (entry.maybeLink && isLink(childPath)) {
      ExtendedAttributes attributes = row->getExtendedAttributes();
      attributes.setAttribute(kNotEntered, "1");
      rows.emplace_back(rowName, row->getFolderAttributes(), std::move(attributes));
      continue;
    }
    rows.push_back(std::move(*row));
    try {
      walk(root, childPath, rowName + u"/", location, rows);
    } catch (const Exception& e) {
      if (e.getErrorCode() != ErrorCode::NotFound) throw;  // removed while walking
    }
  }
}

}  // namespace

FolderEntryIteratorPtr FileProvider::listDirect(const StorageIRI& folder, RowFilter filter) const {
  const std::string local = root_.resolve(folder);
  if (kindOf(local, folder) != EntryKind::Folder) throw Exception(ErrorCode::NotFound, folder);
  std::vector<FolderEntry> rows;
  for (const LocalEntry& entry : readFolder(local, folder)) {
    struct stat status {};
    auto row =
        rowOf(root_, local + "/" + entry.name, entry, text::toUtf16(entry.name), folder, status);
    if (!row) continue;
    if ((filter == RowFilter::Files && !row->isFile()) ||
        (filter == RowFilter::Folders && row->isFile())) {
      continue;
    }
    rows.push_back(std::move(*row));
  }
  return std::make_unique<VectorFolderEntryIterator>(std::move(rows));
}

FolderEntryIteratorPtr FileProvider::doListAll(const StorageIRI& folder) const {
  return listDirect(folder, RowFilter::All);
}

FolderEntryIteratorPtr FileProvider::doListFiles(const StorageIRI& folder) const {
  return listDirect(folder, RowFilter::Files);
}

FolderEntryIteratorPtr FileProvider::doListFolders(const StorageIRI& folder) const {
  return listDirect(folder, RowFilter::Folders);
}

FolderEntryIteratorPtr FileProvider::doListAllRecursive(const StorageIRI& folder) const {
  const std::string local = root_.resolve(folder);
  if (kindOf(local, folder) != EntryKind::Folder) throw Exception(ErrorCode::NotFound, folder);
  std::vector<FolderEntry> rows;
  walk(root_, local, u"", folder, rows);
  return std::make_unique<VectorFolderEntryIterator>(std::move(rows));
}

}  // namespace foundation::storage::provider::file
