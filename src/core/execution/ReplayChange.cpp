#include "core/execution/ReplayChange.h"

#include <foundation/text/Unicode.h>

#include <array>

namespace storage::overlayprovider {

namespace {

std::u16string keyOf(const foundation::storage::provider::StorageIRI& location) {
  if (!location.hasParent()) return {};
  auto key = foundation::text::toLower(location.getPath());
  while (!key.empty() && key.back() == u'/') key.pop_back();
  return key;
}

}  // namespace

std::string_view actionName(ChangeAction action) {
  static constexpr std::array<std::string_view, 17> kNames = {
      "createFile",   "createFolder",     "createFolderTree", "removeFile",
      "removeFolder", "removeFolderTree", "moveFile",         "moveFolder",
      "copyFile",     "setLastModified",  "setWritable",      "openFile",
      "write",        "truncate",         "closeFile",        "relocate",
      "invalidate"};
  const auto index = static_cast<std::size_t>(action);
  return index < kNames.size() ? kNames[index] : std::string_view("unknown");
}

std::vector<std::u16string> ReplayChange::scopeKeys() const {
  auto key = keyOf(location);
  // A recursive creation also makes whichever folders above it are missing, up to the one
  // below the root: everything inside that one waits for it (a file created in a folder that
  // it makes must not reach the store first).
  if (action == ChangeAction::CreateFolderTree) key = key.substr(0, key.find(u'/', 1));
  std::vector<std::u16string> keys{std::move(key)};
  if (destination) keys.push_back(keyOf(*destination));
  return keys;
}

bool scopesOverlap(std::u16string_view key, std::u16string_view other) {
  const auto& shorter = key.size() <= other.size() ? key : other;
  const auto& longer = key.size() <= other.size() ? other : key;
  if (longer.substr(0, shorter.size()) != shorter) return false;
  return longer.size() == shorter.size() || longer[shorter.size()] == u'/';
}

}  // namespace storage::overlayprovider
