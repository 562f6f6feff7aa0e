// MemTree: the folders and files of one MemProvider, and the rules of the provider contract
// applied to them (which error code, with which location, for which bad request).
//
// Owned by MemStore. Not thread-safe on its own: every call must be made with
// MemStore::mutex held (MemProvider and MemByteStream do so); the tree takes no lock itself.
// Changes return the MemChange records to publish; the tree publishes nothing itself.
//
// Names are compared through key(): the name itself when the store is case-sensitive, its
// ICU lower-case form (foundation::text::toLower) otherwise. Nodes keep the name they were
// created with, so listings and event locations show the original case.
//
// Space: `occupied` is the sum of the sizes of the files in the tree, kept up to date on
// every change; content that left the tree (held only by open streams) is not counted.
#pragma once

#include "MemChange.h"
#include "MemNode.h"

#include <foundation/storage/provider/FolderEntry.h>
#include <foundation/storage/provider/StorageIRI.h>
#include <foundation/storage/provider/Types.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace foundation::storage::provider::mem {

class MemTree {
 public:
  using Changes = std::vector<MemChange>;

  MemTree(FilenameSensitivity sensitivity, std::uint64_t capacity);

  // --- lookups ---
  // The node at the location, or null (also when a component on the way is a file).
  MemNode* find(const StorageIRI& iri) const;
  // The node of the given kind; NotFound(iri) when missing or of the other kind.
  MemNode& fileAt(const StorageIRI& iri) const;
  MemNode& folderAt(const StorageIRI& iri) const;
  // A file or a folder; NotFound(iri) when missing.
  MemNode& entryAt(const StorageIRI& iri) const;
  // The location of a node in the tree, with the names as they were created.
  StorageIRI locationOf(const MemNode& node) const;
  // Rows for the direct children of a folder (NotFound when it is missing or a file).
  std::vector<FolderEntry> list(const StorageIRI& folder, bool files, bool folders) const;
  // Every row below the folder, pre-order, names relative to the folder.
  std::vector<FolderEntry> listRecursive(const StorageIRI& folder) const;

  // --- structural changes (the contract's error codes are thrown as Exception) ---
  Changes createFile(const StorageIRI& iri);
  Changes createFolder(const StorageIRI& iri);
  Changes createFolderRecursive(const StorageIRI& iri);
  Changes removeFile(const StorageIRI& iri);
  Changes removeFolder(const StorageIRI& iri, bool recursive);
  Changes moveFile(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy);
  Changes moveFolder(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy);
  Changes copyFile(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy);
  // A change record of the given kind for the node's current location.
  MemChange changeOf(events::Kind kind, const MemNode& node) const;

  // --- content and space ---
  // True when the content may grow (or shrink) to `size` bytes within the capacity.
  bool fits(const MemFileContent& content, std::uint64_t size) const;
  // Resizes the content (zero-filling growth) and keeps `occupied` up to date.
  void resize(MemFileContent& content, std::uint64_t size);
  std::uint64_t capacity() const { return capacity_; }
  std::uint64_t occupied() const { return occupied_; }
  FilenameSensitivity sensitivity() const { return sensitivity_; }
  std::u16string key(const std::u16string& name) const;
  static boost::posix_time::ptime now();

 private:
  MemNode& parentFolderFor(const StorageIRI& iri) const;
  MemNode& addChild(MemNode& parent, const std::u16string& name, bool folder);
  void relink(MemNode& node, MemNode& newParent, const std::u16string& newName);
  void discard(MemNode& node);
  std::unique_ptr<MemNode> unlink(MemNode& node);
  void subtractSizes(const MemNode& node);
  bool renameInPlace(MemNode& node, const StorageIRI& to, Changes& changes);
  bool isBelow(const StorageIRI& inner, const StorageIRI& outer) const;
  void checkMergeable(const MemNode& from, const MemNode& into) const;
  void merge(MemNode& from, MemNode& into);
  FolderEntry rowOf(const MemNode& node, std::u16string name) const;
  void appendRecursive(const MemNode& folder, const std::u16string& prefix,
                       std::vector<FolderEntry>& rows) const;

  FilenameSensitivity sensitivity_;
  std::uint64_t capacity_;
  std::uint64_t occupied_ = 0;
  std::unique_ptr<MemNode> root_;
};

}  // namespace foundation::storage::provider::mem
