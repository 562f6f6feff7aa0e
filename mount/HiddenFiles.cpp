#include "HiddenFiles.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace storage::mount {

namespace {

constexpr std::string_view kPrefix = ".fuse_hidden";
constexpr std::size_t kDigits = 16;

}  // namespace

std::optional<std::string> HiddenFiles::hiddenName(const char* path) {
  if (path == nullptr) return std::nullopt;
  std::string_view name(path);
  if (const auto slash = name.rfind('/'); slash != std::string_view::npos) {
    name.remove_prefix(slash + 1);
  }
  if (name.size() != kPrefix.size() + kDigits || !name.starts_with(kPrefix)) return std::nullopt;
  const auto digits = name.substr(kPrefix.size());
  const bool hex = std::all_of(digits.begin(), digits.end(),
                               [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
  return hex ? std::optional<std::string>(name) : std::nullopt;
}

void HiddenFiles::add(const std::string& name, std::shared_ptr<OrphanFile> orphan) {
  std::lock_guard lock(mutex_);
  files_[name] = std::move(orphan);
}

std::shared_ptr<OrphanFile> HiddenFiles::find(const char* path) const {
  const auto name = hiddenName(path);
  if (!name) return nullptr;
  std::lock_guard lock(mutex_);
  const auto it = files_.find(*name);
  return it == files_.end() ? nullptr : it->second;
}

bool HiddenFiles::remove(const char* path) {
  const auto name = hiddenName(path);
  if (!name) return false;
  std::lock_guard lock(mutex_);
  return files_.erase(*name) > 0;
}

}  // namespace storage::mount
