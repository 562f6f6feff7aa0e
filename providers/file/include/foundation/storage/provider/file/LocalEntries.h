// Helpers over single local entries shared by the file provider's operations: what is at a
// path, its attributes in the framework's terms, its user extended attributes, and the time
// conversions. Free functions without state; callable from any thread. Failures throw
// Exception through the errno translation, naming the location given.
#pragma once

#include <foundation/storage/provider/Attributes.h>
#include <foundation/storage/provider/StorageIRI.h>

#include <sys/stat.h>

#include <ctime>
#include <string>
#include <vector>

namespace foundation::storage::provider::file {

// Anything that is not a directory (regular files, but also fifos or devices that someone
// placed in the tree) counts as a file.
enum class EntryKind { None, File, Folder };

struct LocalStatus {
  EntryKind kind = EntryKind::None;
  struct stat status {};
};

// stat(2), following links: None when nothing is there (ENOENT, ENOTDIR).
LocalStatus statEntry(const std::string& path, const StorageIRI& location);
inline EntryKind kindOf(const std::string& path, const StorageIRI& location) {
  return statEntry(path, location).kind;
}

// lstat(2): the entry itself is a symbolic link.
bool isLink(const std::string& path);

// UTC, microsecond precision.
posix_time::ptime toPtime(const struct timespec& time);
// Exception(OperationRefused) for a special value (not-a-date-time, infinities).
struct timespec toTimespec(const posix_time::ptime& time, const StorageIRI& location);

// Writable is the owner write bit of the mode.
FileAttributes fileAttributesOf(const struct stat& status);
FolderAttributes folderAttributesOf(const struct stat& status);

// The "user." extended attributes of the entry, with that prefix removed from the names.
// A file system without extended attributes gives an empty set.
ExtendedAttributes readExtendedAttributes(const std::string& path, const StorageIRI& location);

}  // namespace foundation::storage::provider::file

namespace foundation::storage::provider::file {

// The names in the local folder `path`, without "." and "..".
std::vector<std::string> entryNames(const std::string& path, const StorageIRI& location);

}  // namespace foundation::storage::provider::file
