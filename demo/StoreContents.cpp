#include "StoreContents.h"

#include <foundation/text/Unicode.h>

namespace overlaydemo {

namespace fsp = foundation::storage::provider;
using foundation::text::toUtf8;

ExpectedTree readTree(const fsp::StorageItem& root) {
  ExpectedTree tree;
  const auto entries = root.listAllRecursive();
  while (entries->hasNext()) {
    entries->next();
    const fsp::FolderEntry entry = entries->current();
    const std::u16string path = u"/" + entry.getName();
    if (entry.isFile()) {
      tree.files[path] = readWholeFile(fsp::StorageItem(root, path));
    } else {
      tree.folders.insert(path);
    }
  }
  return tree;
}

std::vector<std::string> differences(const ExpectedTree& expected, const ExpectedTree& actual) {
  std::vector<std::string> found;
  for (const auto& folder : expected.folders) {
    if (!actual.folders.contains(folder)) found.push_back("missing folder " + toUtf8(folder));
  }
  for (const auto& folder : actual.folders) {
    if (!expected.folders.contains(folder)) found.push_back("unexpected folder " + toUtf8(folder));
  }
  for (const auto& [path, content] : expected.files) {
    const auto it = actual.files.find(path);
    if (it == actual.files.end()) {
      found.push_back("missing file " + toUtf8(path));
    } else if (it->second != content) {
      found.push_back("different bytes in " + toUtf8(path));
    }
  }
  for (const auto& [path, content] : actual.files) {
    if (!expected.files.contains(path)) found.push_back("unexpected file " + toUtf8(path));
  }
  return found;
}

}  // namespace overlaydemo
