// The three kinds of folder listing the overlay serves from its metadata cache, as
// predicates over a child of a cached folder: FolderIterator<Pred> yields only the children
// its predicate accepts. Stateless; any thread.
#pragma once

#include "core/metadata/IFolderEntry.h"

namespace storage::overlayprovider {

// Every child: listAll.
struct ListAllPred {
  static constexpr bool accepts(const MetadataNode&) { return true; }
};

// File children only: listFiles.
struct ListFilesPred {
  static constexpr bool accepts(const MetadataNode& child) { return child.index() == 0; }
};

// Folder children only: listFolders.
struct ListFoldersPred {
  static constexpr bool accepts(const MetadataNode& child) { return child.index() == 1; }
};

}  // namespace storage::overlayprovider
