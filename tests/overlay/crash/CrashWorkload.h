// The crash test's workload: a random sequence of file and folder changes, drawn from a seed
// against a model of the store, so that the child that makes the changes and the test that
// checks the store after a kill draw exactly the same sequence.
//
// Model: files (path -> bytes) and folders (paths; "" is the root). next() draws a change
// that is valid in the model's current state; apply() makes it in the model.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace storage::overlayprovider::crash {

struct Change {
  enum Kind {
    CreateFile,
    Write,
    Truncate,
    MoveFile,
    RemoveFile,
    CreateFolder,
    MoveFolder,
    RemoveFolderTree,
    Flush
  };
  Kind kind;
  std::string path;
  std::string to;
  std::int64_t offset = 0;
  std::int64_t length = 0;
  char fill = 0;
};

inline Change make(Change::Kind kind, std::string path = {}, std::string to = {},
                   std::int64_t offset = 0, std::int64_t length = 0, char fill = 0) {
  return Change{kind, std::move(path), std::move(to), offset, length, fill};
}

class Model {
 public:
  std::map<std::string, std::string> files;
  std::set<std::string> folders{""};

  Change next(std::mt19937_64& random) const {
    std::uniform_int_distribution<int> percent(0, 99);
    const int roll = percent(random);
    if (files.empty() || roll < 15) return make(Change::CreateFile, freshName(random, 'f'));
    const auto file = pick(files, random)->first;
    if (roll < 50) {
      const auto size = static_cast<std::int64_t>(files.at(file).size());
      return make(Change::Write, file, {}, uniform(random, 0, size + 100), uniform(random, 1, 6000),
                  static_cast<char>('a' + uniform(random, 0, 25)));
    }
    if (roll < 58) {
      const auto size = static_cast<std::int64_t>(files.at(file).size());
      return make(Change::Truncate, file, {}, 0, uniform(random, 0, size + 3000));
    }
    if (roll < 72) return make(Change::MoveFile, file, freshOrFile(random, file));
    if (roll < 80) return make(Change::RemoveFile, file);
    if (roll < 88 || folders.size() < 2) return make(Change::CreateFolder, freshName(random, 'd'));
    auto folder = *std::next(folders.begin(), uniform(random, 1, folders.size() - 1));
    if (roll < 94) {
      auto to = freshName(random, 'd');
      if (to.rfind(folder + "/", 0) == 0) return make(Change::CreateFolder, to);
      return make(Change::MoveFolder, folder, to);
    }
    if (roll < 99) return make(Change::RemoveFolderTree, folder);
    return make(Change::Flush);
  }

  void apply(const Change& change) {
    switch (change.kind) {
      case Change::CreateFile:
        files[change.path];
        break;
      case Change::Write: {
        auto& bytes = files[change.path];
        const auto end = static_cast<std::size_t>(change.offset + change.length);
        if (bytes.size() < end) bytes.resize(end, '\0');
        std::fill_n(bytes.begin() + change.offset, change.length, change.fill);
        break;
      }
      case Change::Truncate:
        files[change.path].resize(change.length, '\0');
        break;
      case Change::MoveFile:
        files[change.to] = std::move(files[change.path]);
        files.erase(change.path);
        break;
      case Change::RemoveFile:
        files.erase(change.path);
        break;
      case Change::CreateFolder:
        folders.insert(change.path);
        break;
      case Change::MoveFolder:
        moveTree(change.path, change.to);
        break;
      case Change::RemoveFolderTree:
        removeTree(change.path);
        break;
      case Change::Flush:
        break;
    }
  }

  bool operator==(const Model& other) const {
    return files == other.files && folders == other.folders;
  }

 private:
  static std::int64_t uniform(std::mt19937_64& random, std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(random);
  }
  template <class Container>
  static typename Container::const_iterator pick(const Container& items, std::mt19937_64& random) {
    return std::next(items.begin(),
                     uniform(random, 0, static_cast<std::int64_t>(items.size()) - 1));
  }
  bool taken(const std::string& path) const { return files.count(path) || folders.count(path); }
  // A name in an existing folder that nothing holds yet (a few names, so that they recur).
  std::string freshName(std::mt19937_64& random, char prefix) const {
    for (int tries = 0; tries < 64; ++tries) {
      const auto path =
          *pick(folders, random) + "/" + prefix + std::to_string(uniform(random, 0, 7));
      if (!taken(path)) return path;
    }
    for (int index = 8;; ++index) {
      const auto path = std::string("/") + prefix + std::to_string(index);
      if (!taken(path)) return path;
    }
  }
  // A move's destination: a fresh name or, now and then, another file, which it replaces.
  std::string freshOrFile(std::mt19937_64& random, const std::string& source) const {
    if (files.size() > 1 && uniform(random, 0, 3) == 0) {
      const auto other = pick(files, random)->first;
      if (other != source) return other;
    }
    return freshName(random, 'f');
  }
  static bool within(const std::string& path, const std::string& folder) {
    return path == folder || path.rfind(folder + "/", 0) == 0;
  }
  void moveTree(const std::string& from, const std::string& to) {
    std::map<std::string, std::string> movedFiles;
    std::set<std::string> movedFolders;
    for (auto it = files.begin(); it != files.end();) {
      if (!within(it->first, from)) {
        ++it;
        continue;
      }
      movedFiles[to + it->first.substr(from.size())] = std::move(it->second);
      it = files.erase(it);
    }
    for (auto it = folders.begin(); it != folders.end();) {
      if (!within(*it, from)) {
        ++it;
        continue;
      }
      movedFolders.insert(to + it->substr(from.size()));
      it = folders.erase(it);
    }
    files.merge(movedFiles);
    folders.merge(movedFolders);
  }
  void removeTree(const std::string& folder) {
    std::erase_if(files, [&](const auto& file) { return within(file.first, folder); });
    std::erase_if(folders, [&](const auto& path) { return within(path, folder); });
  }
};

}  // namespace storage::overlayprovider::crash
