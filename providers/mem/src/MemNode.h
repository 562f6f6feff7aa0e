// MemNode and MemFileContent: one entry of the in-memory tree and the byte buffer of a file.
//
// Ownership: a folder owns its children (unique_ptr, keyed by the tree's comparison key of
// the name); the root is owned by MemTree. A file's content is shared with the streams open
// on it (shared_ptr), so a stream keeps working on the bytes after the file leaves the tree;
// `owner` then becomes null.
// Locking: none of their own. Every field is read and written under MemStore::mutex.
#pragma once

#include <foundation/storage/provider/Attributes.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <map>
#include <memory>
#include <string>

namespace foundation::storage::provider::mem {

struct MemNode;

struct MemFileContent {
  std::string bytes;
  // The file node holding this content; null once the file was removed or replaced.
  MemNode* owner = nullptr;
};

struct MemNode {
  MemNode(std::u16string displayName, bool isFolder, MemNode* parentNode,
          boost::posix_time::ptime modified)
      : name(std::move(displayName)),
        folder(isFolder),
        parent(parentNode),
        lastModified(modified) {}
  MemNode(const MemNode&) = delete;
  MemNode& operator=(const MemNode&) = delete;
  // A node can be destroyed while streams still hold its content: they must not reach it.
  ~MemNode() {
    if (content) content->owner = nullptr;
  }

  // The name as it was created (case preserved for display).
  std::u16string name;
  bool folder;
  MemNode* parent;
  boost::posix_time::ptime lastModified;
  bool writable = true;
  ExtendedAttributes::Map xattrs;
  // Files only.
  std::shared_ptr<MemFileContent> content;
  // Folders only; keyed by MemTree::key(name).
  std::map<std::u16string, std::unique_ptr<MemNode>> children;
};

}  // namespace foundation::storage::provider::mem
