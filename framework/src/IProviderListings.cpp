// The framework's default listings, built on a provider's own doListAll/doListFiles/
// doListFolders.
#include <foundation/storage/provider/Glob.h>
#include <foundation/storage/provider/IProvider.h>

namespace foundation::storage::provider {

namespace {

FolderEntryIteratorPtr filtered(FolderEntryIteratorPtr rows, const std::u16string& pattern) {
  std::vector<FolderEntry> kept;
  for (auto& row : collectRows(*rows)) {
    // Recursive rows are relative paths: the pattern applies to their last component.
    const auto& name = row.getName();
    const auto slash = name.rfind(u'/');
    const auto leaf = slash == std::u16string::npos ? name : name.substr(slash + 1);
    if (globMatches(pattern, leaf)) kept.push_back(std::move(row));
  }
  return std::make_unique<VectorFolderEntryIterator>(std::move(kept));
}

NameList namesOf(FolderEntryIteratorPtr rows) {
  NameList names;
  while (rows->hasNext()) {
    rows->next();
    names.push_back(rows->current().getName());
  }
  return names;
}

FolderEntry renamed(const FolderEntry& row, std::u16string name) {
  if (row.isFile())
    return FolderEntry(std::move(name), row.getFileAttributes(), row.getExtendedAttributes());
  return FolderEntry(std::move(name), row.getFolderAttributes(), row.getExtendedAttributes());
}

}  // namespace

FolderEntryIteratorPtr IProvider::listAll(const StorageIRI& iri,
                                          const std::u16string& pattern) const {
  return pattern.empty() ? doListAll(iri) : doListAllWildcards(iri, pattern);
}

FolderEntryIteratorPtr IProvider::listFiles(const StorageIRI& iri,
                                            const std::u16string& pattern) const {
  return pattern.empty() ? doListFiles(iri) : doListFilesWildcards(iri, pattern);
}

FolderEntryIteratorPtr IProvider::listFolders(const StorageIRI& iri,
                                              const std::u16string& pattern) const {
  return pattern.empty() ? doListFolders(iri) : doListFoldersWildcards(iri, pattern);
}

NameList IProvider::listAllNamesOnly(const StorageIRI& iri, const std::u16string& pattern) const {
  return pattern.empty() ? doListAllNamesOnly(iri) : doListAllNamesOnlyWildcards(iri, pattern);
}

NameList IProvider::listFoldersNamesOnly(const StorageIRI& iri,
                                         const std::u16string& pattern) const {
  return pattern.empty() ? doListFoldersNamesOnly(iri)
                         : doListFoldersNamesOnlyWildcards(iri, pattern);
}

NameList IProvider::listFilesNamesOnly(const StorageIRI& iri, const std::u16string& pattern) const {
  return pattern.empty() ? doListFilesNamesOnly(iri) : doListFilesNamesOnlyWildcards(iri, pattern);
}

FolderEntryIteratorPtr IProvider::listAllRecursive(const StorageIRI& iri,
                                                   const std::u16string& pattern) const {
  return pattern.empty() ? doListAllRecursive(iri) : doListAllRecursiveWildcards(iri, pattern);
}

NameList IProvider::listAllRecursiveNamesOnly(const StorageIRI& iri,
                                              const std::u16string& pattern) const {
  return pattern.empty() ? doListAllRecursiveNamesOnly(iri)
                         : doListAllRecursiveNamesOnlyWildcards(iri, pattern);
}

FolderEntryIteratorPtr IProvider::doListAllWildcards(const StorageIRI& iri,
                                                     std::u16string pattern) const {
  return filtered(doListAll(iri), pattern);
}

FolderEntryIteratorPtr IProvider::doListFilesWildcards(const StorageIRI& iri,
                                                       std::u16string pattern) const {
  return filtered(doListFiles(iri), pattern);
}

FolderEntryIteratorPtr IProvider::doListFoldersWildcards(const StorageIRI& iri,
                                                         std::u16string pattern) const {
  return filtered(doListFolders(iri), pattern);
}

NameList IProvider::doListAllNamesOnly(const StorageIRI& iri) const {
  return namesOf(doListAll(iri));
}

NameList IProvider::doListAllNamesOnlyWildcards(const StorageIRI& iri,
                                                std::u16string pattern) const {
  return namesOf(doListAllWildcards(iri, std::move(pattern)));
}

NameList IProvider::doListFoldersNamesOnly(const StorageIRI& iri) const {
  return namesOf(doListFolders(iri));
}

NameList IProvider::doListFoldersNamesOnlyWildcards(const StorageIRI& iri,
                                                    std::u16string pattern) const {
  return namesOf(doListFoldersWildcards(iri, std::move(pattern)));
}

NameList IProvider::doListFilesNamesOnly(const StorageIRI& iri) const {
  return namesOf(doListFiles(iri));
}

NameList IProvider::doListFilesNamesOnlyWildcards(const StorageIRI& iri,
                                                  std::u16string pattern) const {
  return namesOf(doListFilesWildcards(iri, std::move(pattern)));
}

FolderEntryIteratorPtr IProvider::doListAllRecursive(const StorageIRI& iri) const {
  // Depth-first, pre-order: a folder's row comes before the rows of its contents.
  std::vector<FolderEntry> rows;
  std::vector<std::pair<StorageIRI, std::u16string>> pending{{iri, u""}};
  while (!pending.empty()) {
    auto [folder, prefix] = std::move(pending.back());
    pending.pop_back();
    std::vector<std::pair<StorageIRI, std::u16string>> subfolders;
    for (const auto& row : collectRows(*doListAll(folder))) {
      const auto relative = prefix.empty() ? row.getName() : prefix + u"/" + row.getName();
      rows.push_back(renamed(row, relative));
      if (!row.isFile()) subfolders.emplace_back(StorageIRI(folder, row.getName()), relative);
    }
    // Reversed so that the first sub-folder is walked first.
    pending.insert(pending.end(), subfolders.rbegin(), subfolders.rend());
  }
  return std::make_unique<VectorFolderEntryIterator>(std::move(rows));
}

FolderEntryIteratorPtr IProvider::doListAllRecursiveWildcards(const StorageIRI& iri,
                                                              std::u16string pattern) const {
  return filtered(doListAllRecursive(iri), pattern);
}

NameList IProvider::doListAllRecursiveNamesOnly(const StorageIRI& iri) const {
  return namesOf(doListAllRecursive(iri));
}

NameList IProvider::doListAllRecursiveNamesOnlyWildcards(const StorageIRI& iri,
                                                         std::u16string pattern) const {
  return namesOf(doListAllRecursiveWildcards(iri, std::move(pattern)));
}

}  // namespace foundation::storage::provider
