#include "HandleTable.h"

namespace storage::mount {

std::uint64_t HandleTable::add(std::shared_ptr<OpenFile> file) {
  std::lock_guard lock(mutex_);
  const std::uint64_t handle = next_++;
  files_.emplace(handle, std::move(file));
  return handle;
}

std::shared_ptr<OpenFile> HandleTable::find(std::uint64_t handle) const {
  std::lock_guard lock(mutex_);
  const auto it = files_.find(handle);
  return it == files_.end() ? nullptr : it->second;
}

std::shared_ptr<OpenFile> HandleTable::take(std::uint64_t handle) {
  std::lock_guard lock(mutex_);
  const auto it = files_.find(handle);
  if (it == files_.end()) return nullptr;
  auto file = std::move(it->second);
  files_.erase(it);
  return file;
}

std::vector<std::shared_ptr<OpenFile>> HandleTable::takeAll() {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<OpenFile>> all;
  all.reserve(files_.size());
  for (auto& [handle, file] : files_) all.push_back(std::move(file));
  files_.clear();
  return all;
}

std::vector<std::shared_ptr<OpenFile>> HandleTable::all() const {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<OpenFile>> files;
  files.reserve(files_.size());
  for (const auto& [handle, file] : files_) files.push_back(file);
  return files;
}

std::vector<std::shared_ptr<OpenFile>> HandleTable::at(
    const foundation::storage::provider::StorageIRI& location) const {
  auto files = all();
  std::erase_if(files, [&](const auto& file) { return !file->isAt(location); });
  return files;
}

std::size_t HandleTable::size() const {
  std::lock_guard lock(mutex_);
  return files_.size();
}

}  // namespace storage::mount
