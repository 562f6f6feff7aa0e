#include "core/journal/RecoveredWrites.h"

#include <map>
#include <string>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

namespace {

// The written files still alive, by their current path, each with the writes it carries.
class WrittenFiles {
 public:
  explicit WrittenFiles(std::size_t count) : finals_(count) {}

  void written(const fsp::StorageIRI& location, std::size_t index) {
    auto& file = files_[location.getPath()];
    if (!file.location) file.location = location;
    file.writes.push_back(index);
  }

  // `from` (a file, or a folder and everything below it) is now at `to`; whatever was at `to`
  // is replaced. A file for which `stayed` says so did not move (the crash came first).
  void moved(const fsp::StorageIRI& from, const fsp::StorageIRI& to,
             const std::function<bool(const fsp::StorageIRI&)>& stayed) {
    std::vector<std::pair<std::u16string, File>> taken;
    takeWithin(from.getPath(), taken);
    std::vector<std::pair<std::u16string, File>> staying;
    std::erase_if(taken, [&](auto& entry) {
      if (!stayed(*entry.second.location)) return false;
      staying.push_back(std::move(entry));
      return true;
    });
    for (auto& [path, file] : staying) files_[path] = std::move(file);
    if (taken.empty()) return;
    removed(to.getPath());
    const auto fromLength = from.getPath().size();
    for (auto& [path, file] : taken) {
      const auto newPath = to.getPath() + path.substr(fromLength);
      file.location = to.withPath(newPath);
      files_[newPath] = std::move(file);
    }
  }

  void removed(const std::u16string& path) {
    std::vector<std::pair<std::u16string, File>> taken;
    takeWithin(path, taken);
  }

  std::vector<std::optional<fsp::StorageIRI>> finish() {
    for (const auto& [path, file] : files_) {
      for (const auto index : file.writes) finals_[index] = file.location;
    }
    return std::move(finals_);
  }

 private:
  struct File {
    std::optional<fsp::StorageIRI> location;
    std::vector<std::size_t> writes;
  };

  // Takes out the file at `path` and every file below it.
  void takeWithin(const std::u16string& path, std::vector<std::pair<std::u16string, File>>& out) {
    if (const auto exact = files_.find(path); exact != files_.end()) {
      out.emplace_back(exact->first, std::move(exact->second));
      files_.erase(exact);
    }
    const auto prefix = path.ends_with(u'/') ? path : path + u'/';
    for (auto it = files_.lower_bound(prefix);
         it != files_.end() && it->first.compare(0, prefix.size(), prefix) == 0;) {
      out.emplace_back(it->first, std::move(it->second));
      it = files_.erase(it);
    }
  }

  std::map<std::u16string, File> files_;
  std::vector<std::optional<fsp::StorageIRI>> finals_;
};

bool within(const std::u16string& folder, const std::u16string& path) {
  return path == folder ||
         (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
          (folder.ends_with(u'/') || path[folder.size()] == u'/'));
}

// Whether a change after `index` names `path` or a folder above it.
bool namedAfter(const std::vector<ReplayChange>& changes, std::size_t index,
                const std::u16string& path) {
  for (auto later = index + 1; later < changes.size(); ++later) {
    const auto& change = changes[later];
    if (within(change.location.getPath(), path)) return true;
    if (change.destination && within(change.destination->getPath(), path)) return true;
  }
  return false;
}

}  // namespace

std::vector<std::optional<fsp::StorageIRI>> finalBodyLocations(
    const std::vector<ReplayChange>& changes,
    const std::function<bool(const fsp::StorageIRI&)>& hasBody) {
  WrittenFiles files(changes.size());
  for (std::size_t index = 0; index < changes.size(); ++index) {
    const auto& change = changes[index];
    switch (change.action) {
      case ChangeAction::WriteRange:
        files.written(change.location, index);
        break;
      case ChangeAction::MoveFile:
      case ChangeAction::MoveFolder:
        if (change.destination) {
          files.moved(change.location, *change.destination, [&](const fsp::StorageIRI& at) {
            return hasBody(at) && !namedAfter(changes, index, at.getPath());
          });
        }
        break;
      case ChangeAction::CopyFile:
        // The copy is a new file at the destination; the original keeps its body.
        if (change.destination) files.removed(change.destination->getPath());
        break;
      case ChangeAction::RemoveFile:
      case ChangeAction::RemoveFolder:
      case ChangeAction::RemoveFolderTree:
        files.removed(change.location.getPath());
        break;
      default:
        break;
    }
  }
  return files.finish();
}

}  // namespace storage::overlayprovider
