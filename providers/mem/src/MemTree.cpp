#include "MemTree.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/text/Unicode.h>

#include <boost/date_time/posix_time/posix_time.hpp>

namespace foundation::storage::provider::mem {

namespace {

using events::EntryType;
using events::Kind;

EntryType typeOf(const MemNode& node) { return node.folder ? EntryType::Folder : EntryType::File; }

// Control characters cannot be shown or typed back by a user, so no store accepts them.
void checkName(const StorageIRI& iri) {
  for (char16_t c : iri.getName()) {
    if (c < 0x20 || c == 0x7f) throw Exception(ErrorCode::InvalidName, iri);
  }
}

// A move is published as its two ends, each naming the other (see Events.h).
void addMove(MemTree::Changes& changes, const StorageIRI& from, const StorageIRI& to,
             EntryType type) {
  changes.push_back(MemChange{Kind::Disappeared, from, to, type});
  changes.push_back(MemChange{Kind::Appeared, to, from, type});
}

}  // namespace

MemTree::MemTree(FilenameSensitivity sensitivity, std::uint64_t capacity)
    : sensitivity_(sensitivity),
      capacity_(capacity),
      root_(std::make_unique<MemNode>(u"", true, nullptr, now())) {}

boost::posix_time::ptime MemTree::now() {
  return boost::posix_time::microsec_clock::universal_time();
}

std::u16string MemTree::key(const std::u16string& name) const {
  return sensitivity_ == FilenameSensitivity::CaseInsensitive ? text::toLower(name) : name;
}

MemNode* MemTree::find(const StorageIRI& iri) const {
  MemNode* node = root_.get();
  for (const std::u16string& part : iri.getPathView()) {
    if (!node->folder) return nullptr;
    auto it = node->children.find(key(part));
    if (it == node->children.end()) return nullptr;
    node = it->second.get();
  }
  return node;
}

MemNode& MemTree::fileAt(const StorageIRI& iri) const {
  MemNode* node = find(iri);
  if (node == nullptr || node->folder) throw Exception(ErrorCode::NotFound, iri);
  return *node;
}

MemNode& MemTree::folderAt(const StorageIRI& iri) const {
  MemNode* node = find(iri);
  if (node == nullptr || !node->folder) throw Exception(ErrorCode::NotFound, iri);
  return *node;
}

MemNode& MemTree::entryAt(const StorageIRI& iri) const {
  MemNode* node = find(iri);
  if (node == nullptr) throw Exception(ErrorCode::NotFound, iri);
  return *node;
}

MemNode& MemTree::parentFolderFor(const StorageIRI& iri) const {
  StorageIRI parent = iri.getParent();
  MemNode* node = find(parent);
  if (node == nullptr || !node->folder) throw Exception(ErrorCode::NotFound, parent);
  return *node;
}

StorageIRI MemTree::locationOf(const MemNode& node) const {
  std::u16string path;
  for (const MemNode* n = &node; n->parent != nullptr; n = n->parent) {
    path.insert(0, u"/" + n->name);
  }
  return StorageIRI(u"mem", path.empty() ? u"/" : path);
}

MemChange MemTree::changeOf(Kind kind, const MemNode& node) const {
  StorageIRI location = locationOf(node);
  return MemChange{kind, location, location, typeOf(node)};
}

FolderEntry MemTree::rowOf(const MemNode& node, std::u16string name) const {
  ExtendedAttributes xattrs(node.xattrs);
  if (node.folder) {
    return FolderEntry(std::move(name), FolderAttributes(node.lastModified, node.writable),
                       std::move(xattrs));
  }
  return FolderEntry(std::move(name),
                     FileAttributes(node.content->bytes.size(), node.lastModified, node.writable),
                     std::move(xattrs));
}

std::vector<FolderEntry> MemTree::list(const StorageIRI& folder, bool files, bool folders) const {
  std::vector<FolderEntry> rows;
  for (const auto& [k, child] : folderAt(folder).children) {
    if (child->folder ? folders : files) rows.push_back(rowOf(*child, child->name));
  }
  return rows;
}

std::vector<FolderEntry> MemTree::listRecursive(const StorageIRI& folder) const {
  std::vector<FolderEntry> rows;
  appendRecursive(folderAt(folder), u"", rows);
  return rows;
}

void MemTree::appendRecursive(const MemNode& folder, const std::u16string& prefix,
                              std::vector<FolderEntry>& rows) const {
  for (const auto& [k, child] : folder.children) {
    std::u16string name = prefix + child->name;
    rows.push_back(rowOf(*child, name));
    if (child->folder) appendRecursive(*child, name + u"/", rows);
  }
}

MemNode& MemTree::addChild(MemNode& parent, const std::u16string& name, bool folder) {
  auto node = std::make_unique<MemNode>(name, folder, &parent, now());
  if (!folder) {
    node->content = std::make_shared<MemFileContent>();
    node->content->owner = node.get();
  }
  MemNode& added = *node;
  parent.children.emplace(key(name), std::move(node));
  parent.lastModified = added.lastModified;
  return added;
}

MemTree::Changes MemTree::createFile(const StorageIRI& iri) {
  if (find(iri) != nullptr) throw Exception(ErrorCode::AlreadyExists, iri);
  MemNode& parent = parentFolderFor(iri);
  checkName(iri);
  return {changeOf(Kind::Appeared, addChild(parent, iri.getName(), false))};
}

MemTree::Changes MemTree::createFolder(const StorageIRI& iri) {
  if (find(iri) != nullptr) throw Exception(ErrorCode::AlreadyExists, iri);
  MemNode& parent = parentFolderFor(iri);
  checkName(iri);
  return {changeOf(Kind::Appeared, addChild(parent, iri.getName(), true))};
}

MemTree::Changes MemTree::createFolderRecursive(const StorageIRI& iri) {
  if (find(iri) != nullptr) throw Exception(ErrorCode::AlreadyExists, iri);
  for (StorageIRI at = iri; at.hasParent(); at = at.getParent()) checkName(at);
  Changes changes;
  MemNode* node = root_.get();
  for (const std::u16string& part : iri.getPathView()) {
    auto it = node->children.find(key(part));
    if (it == node->children.end()) {
      node = &addChild(*node, part, true);
      changes.push_back(changeOf(Kind::Appeared, *node));
      continue;
    }
    node = it->second.get();
    if (!node->folder) throw Exception(ErrorCode::AlreadyExists, locationOf(*node));
  }
  return changes;
}

void MemTree::subtractSizes(const MemNode& node) {
  if (!node.folder) occupied_ -= node.content->bytes.size();
  for (const auto& [k, child] : node.children) subtractSizes(*child);
}

std::unique_ptr<MemNode> MemTree::unlink(MemNode& node) {
  MemNode& parent = *node.parent;
  auto it = parent.children.find(key(node.name));
  std::unique_ptr<MemNode> owned = std::move(it->second);
  parent.children.erase(it);
  parent.lastModified = now();
  return owned;
}

void MemTree::discard(MemNode& node) {
  subtractSizes(node);
  // Destroying the subtree detaches every content from its node (see ~MemNode).
  unlink(node);
}

void MemTree::relink(MemNode& node, MemNode& newParent, const std::u16string& newName) {
  std::unique_ptr<MemNode> owned = unlink(node);
  owned->name = newName;
  owned->parent = &newParent;
  newParent.children.emplace(key(newName), std::move(owned));
  newParent.lastModified = now();
}

MemTree::Changes MemTree::removeFile(const StorageIRI& iri) {
  MemNode& node = fileAt(iri);
  Changes changes{changeOf(Kind::Disappeared, node)};
  discard(node);
  return changes;
}

MemTree::Changes MemTree::removeFolder(const StorageIRI& iri, bool recursive) {
  if (!iri.hasParent()) throw Exception(ErrorCode::OperationRefused, iri);
  MemNode& node = folderAt(iri);
  if (!recursive && !node.children.empty()) throw Exception(ErrorCode::FolderNotEmpty, iri);
  Changes changes{changeOf(Kind::Disappeared, node)};
  discard(node);
  return changes;
}

// Moving an entry onto itself: nothing to do, except taking the new spelling of the name
// when the store ignores case ("a.txt" -> "A.txt").
bool MemTree::renameInPlace(MemNode& node, const StorageIRI& to, Changes& changes) {
  if (find(to) != &node) return false;
  if (node.name != to.getName()) {
    const StorageIRI before = locationOf(node);
    node.name = to.getName();
    addMove(changes, before, locationOf(node), typeOf(node));
  }
  return true;
}

MemTree::Changes MemTree::moveFile(const StorageIRI& from, const StorageIRI& to,
                                   ReplacementPolicy policy) {
  MemNode& node = fileAt(from);
  Changes changes;
  if (renameInPlace(node, to, changes)) return changes;
  MemNode& parent = parentFolderFor(to);
  MemNode* existing = find(to);
  if (existing != nullptr && (existing->folder || !allowsReplacing(policy))) {
    throw Exception(ErrorCode::AlreadyExists, to);
  }
  checkName(to);
  StorageIRI source = locationOf(node);
  if (existing != nullptr) discard(*existing);
  relink(node, parent, to.getName());
  addMove(changes, source, locationOf(node), EntryType::File);
  return changes;
}

bool MemTree::isBelow(const StorageIRI& inner, const StorageIRI& outer) const {
  PathView in = inner.getPathView();
  PathView out = outer.getPathView();
  if (in.size() <= out.size()) return false;
  auto i = in.begin();
  for (const std::u16string& part : out) {
    if (key(part) != key(*i)) return false;
    ++i;
  }
  return true;
}

void MemTree::checkMergeable(const MemNode& from, const MemNode& into) const {
  for (const auto& [k, child] : from.children) {
    auto it = into.children.find(k);
    if (it == into.children.end()) continue;
    const MemNode& target = *it->second;
    if (target.folder != child->folder) {
      throw Exception(ErrorCode::AlreadyExists, locationOf(target));
    }
    if (target.folder) checkMergeable(*child, target);
  }
}

void MemTree::merge(MemNode& from, MemNode& into) {
  std::vector<MemNode*> children;
  for (auto& [k, child] : from.children) children.push_back(child.get());
  for (MemNode* child : children) {
    auto it = into.children.find(key(child->name));
    MemNode* target = it == into.children.end() ? nullptr : it->second.get();
    if (target != nullptr && target->folder) {
      merge(*child, *target);
      continue;
    }
    if (target != nullptr) discard(*target);
    relink(*child, into, child->name);
  }
  discard(from);
}

MemTree::Changes MemTree::moveFolder(const StorageIRI& from, const StorageIRI& to,
                                     ReplacementPolicy policy) {
  if (!from.hasParent()) throw Exception(ErrorCode::OperationRefused, from);
  MemNode& node = folderAt(from);
  Changes changes;
  if (renameInPlace(node, to, changes)) return changes;
  if (isBelow(to, from)) throw Exception(ErrorCode::OperationRefused, to);
  MemNode& parent = parentFolderFor(to);
  MemNode* existing = find(to);
  StorageIRI source = locationOf(node);
  if (existing == nullptr) {
    checkName(to);
    relink(node, parent, to.getName());
  } else if (existing->folder && policy == ReplacementPolicy::Merge && !isBelow(from, to)) {
    checkMergeable(node, *existing);
    merge(node, *existing);
  } else if (existing->folder && existing->children.empty() &&
             (policy == ReplacementPolicy::Overwrite ||
              policy == ReplacementPolicy::OverwriteIfNewer)) {
    discard(*existing);
    relink(node, parent, to.getName());
  } else {
    throw Exception(ErrorCode::AlreadyExists, to);
  }
  addMove(changes, source, locationOf(*find(to)), EntryType::Folder);
  return changes;
}

MemTree::Changes MemTree::copyFile(const StorageIRI& from, const StorageIRI& to,
                                   ReplacementPolicy policy) {
  const MemNode& source = fileAt(from);
  MemNode& parent = parentFolderFor(to);
  MemNode* existing = find(to);
  if (existing != nullptr && (existing->folder || !allowsReplacing(policy))) {
    throw Exception(ErrorCode::AlreadyExists, to);
  }
  if (existing == &source) return {};
  checkName(to);
  const std::string& bytes = source.content->bytes;
  MemNode& target = existing != nullptr ? *existing : addChild(parent, to.getName(), false);
  if (!fits(*target.content, bytes.size())) {
    if (existing == nullptr) discard(target);
    throw Exception(ErrorCode::QuotaExceeded, to);
  }
  resize(*target.content, bytes.size());
  target.content->bytes = bytes;
  target.lastModified = now();
  return {changeOf(existing != nullptr ? Kind::Changed : Kind::Appeared, target)};
}

bool MemTree::fits(const MemFileContent& content, std::uint64_t size) const {
  std::uint64_t current = content.bytes.size();
  if (size <= current) return true;
  std::uint64_t base = content.owner != nullptr ? occupied_ : current;
  return size - current <= capacity_ - std::min(base, capacity_);
}

void MemTree::resize(MemFileContent& content, std::uint64_t size) {
  if (content.owner != nullptr) occupied_ = occupied_ - content.bytes.size() + size;
  content.bytes.resize(size);
}

}  // namespace foundation::storage::provider::mem
