// Small enumerations and values of the provider contract. The numeric values of the
// enumerations are part of the contract: never renumber.
#pragma once

#include <cstdint>
#include <limits>

namespace foundation::storage::provider {

// What a move or copy does when its destination exists. The values 0 and 4 (any value whose
// bit of value 4 cleared is 0) forbid replacing an existing destination file; every other
// value allows it.
enum class ReplacementPolicy : std::uint32_t {
  // An existing destination is refused (AlreadyExists).
  Fail = 0,
  // An existing destination file is replaced; a folder destination must be empty.
  Overwrite = 1,
  // As Overwrite; the caller asks for replacement only of older destinations, which the
  // providers of this project treat as Overwrite.
  OverwriteIfNewer = 2,
  // Files are replaced and a folder is merged into an existing destination folder.
  Merge = 3,
  // Like Fail, and an existing destination folder is refused even when empty.
  Exclusive = 4,
};

// True when the policy allows replacing an existing destination file.
inline bool allowsReplacing(ReplacementPolicy policy) {
  return (static_cast<std::uint32_t>(policy) & ~std::uint32_t{4}) != 0;
}

// Optional capabilities of a provider, asked with hasFeature.
enum class ExtendedFeature : std::uint32_t {
  // The store can be written to (not a read-only store).
  ReadWrite = 0,
  // The store can list its whole tree in one recursive listing (listAllRecursive from the
  // root is cheap compared with listing folder by folder).
  RecursiveListing = 1,
  // The store keeps extended attributes.
  ExtendedAttributes = 2,
  // The store publishes change events for its files and folders.
  ChangeEvents = 3,
  // The store keeps last-modified times set with setLastModified.
  SettableLastModified = 4,
  // The store has a local cache and reports its usage.
  CacheUsage = 5,
  // A file may be removed or moved while streams on it are open (POSIX unlink semantics).
  RemoveWhileOpen = 6,
  // A file whose streams are all being closed may be removed or moved; one with a stream
  // still open may not. Takes precedence over RemoveWhileOpen.
  RemoveWhileClosing = 7,
  // Moving into a folder requires that folder to be writable.
  FolderWritableEnforced = 8,
};

// Whether a folder subscription also covers everything below the folder.
enum class RecursiveFileWatching : std::uint32_t { No = 0, Yes = 1 };
// Whether change polling of a folder also covers everything below it.
enum class RecursiveChangePolling : std::uint32_t { No = 0, Yes = 1 };

// How a store compares names.
enum class FilenameSensitivity : std::uint32_t { CaseSensitive = 0, CaseInsensitive = 1 };

// Answer of the interrupt callback of a long operation (copyFileAtomic).
enum class InterruptSignal : std::uint32_t { Continue = 0, Interrupt = 1 };

// What existsExtended finds at a location.
enum class Existence : std::uint32_t { None = 0, File = 1, Folder = 2 };

class ProviderStorageInfo {
 public:
  ProviderStorageInfo() = default;
  ProviderStorageInfo withStorageCapacity(std::uint64_t bytes) const {
    auto copy = *this;
    copy.capacity_ = bytes;
    return copy;
  }
  ProviderStorageInfo withSpaceOccupied(std::uint64_t bytes) const {
    auto copy = *this;
    copy.occupied_ = bytes;
    return copy;
  }
  std::uint64_t getStorageCapacity() const { return capacity_; }
  std::uint64_t getSpaceOccupied() const { return occupied_; }

 private:
  std::uint64_t capacity_ = 0;
  std::uint64_t occupied_ = 0;
};

class ProviderCacheUsage {
 public:
  explicit ProviderCacheUsage(
      std::uint64_t spaceAvailable = std::numeric_limits<std::uint64_t>::max())
      : spaceAvailable_(spaceAvailable) {}
  std::uint64_t getSpaceAvailable() const { return spaceAvailable_; }

 private:
  std::uint64_t spaceAvailable_;
};

}  // namespace foundation::storage::provider
