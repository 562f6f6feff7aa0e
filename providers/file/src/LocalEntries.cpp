#include <foundation/storage/provider/file/ErrnoTranslation.h>
#include <foundation/storage/provider/file/LocalEntries.h>
#include <foundation/storage/provider/file/UniqueDir.h>

#include <dirent.h>
#include <sys/xattr.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <vector>

namespace foundation::storage::provider::file {

namespace {

const posix_time::ptime kEpoch(boost::gregorian::date(1970, 1, 1));
constexpr std::string_view kUserPrefix = "user.";

bool unsupported(int error) { return error == ENOTSUP || error == ENOSYS; }

// The NUL-separated names that listxattr reports; retried when the list grows meanwhile.
std::vector<char> listAttributeNames(const std::string& path, const StorageIRI& location) {
  for (;;) {
    const ssize_t size = ::listxattr(path.c_str(), nullptr, 0);
    if (size < 0) {
      if (unsupported(errno)) return {};
      throw errnoException(errno, location, "listxattr", path);
    }
    std::vector<char> names(static_cast<std::size_t>(size));
    const ssize_t got = ::listxattr(path.c_str(), names.data(), names.size());
    if (got >= 0) {
      names.resize(static_cast<std::size_t>(got));
      return names;
    }
    if (errno != ERANGE) throw errnoException(errno, location, "listxattr", path);
  }
}

// One attribute's value; false when it went away meanwhile.
bool readAttribute(const std::string& path, const std::string& name, std::string& value,
                   const StorageIRI& location) {
  for (;;) {
    const ssize_t size = ::getxattr(path.c_str(), name.c_str(), nullptr, 0);
    if (size < 0) {
      if (errno == ENODATA) return false;
      throw errnoException(errno, location, "getxattr " + name, path);
    }
    value.resize(static_cast<std::size_t>(size));
    const ssize_t got = ::getxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (got >= 0) {
      value.resize(static_cast<std::size_t>(got));
      return true;
    }
    if (errno == ENODATA) return false;
    if (errno != ERANGE) throw errnoException(errno, location, "getxattr " + name, path);
  }
}

}  // namespace

LocalStatus statEntry(const std::string& path, const StorageIRI& location) {
  LocalStatus result;
  if (::stat(path.c_str(), &result.status) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return result;
    throw errnoException(errno, location, "stat", path);
  }
  result.kind = S_ISDIR(result.status.st_mode) ? EntryKind::Folder : EntryKind::File;
  return result;
}

bool isLink(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

posix_time::ptime toPtime(const struct timespec& time) {
  return kEpoch + posix_time::seconds(time.tv_sec) + posix_time::microseconds(time.tv_nsec / 1000);
}

struct timespec toTimespec(const posix_time::ptime& time, const StorageIRI& location) {
  if (time.is_special()) {
    throw Exception(ErrorCode::OperationRefused, location, "not a valid time");
  }
  const long long micros = (time - kEpoch).total_microseconds();
  long long seconds = micros / 1000000;
  long long rest = micros % 1000000;
  if (rest < 0) {  // times before 1970: keep tv_nsec in [0, 1e9)
    rest += 1000000;
    --seconds;
  }
  struct timespec result {};
  result.tv_sec = static_cast<time_t>(seconds);
  result.tv_nsec = static_cast<long>(rest * 1000);
  return result;
}

FileAttributes fileAttributesOf(const struct stat& status) {
  return FileAttributes(static_cast<std::uint64_t>(status.st_size), toPtime(status.st_mtim),
                        (status.st_mode & S_IWUSR) != 0);
}

FolderAttributes folderAttributesOf(const struct stat& status) {
  return FolderAttributes(toPtime(status.st_mtim), (status.st_mode & S_IWUSR) != 0);
}

ExtendedAttributes readExtendedAttributes(const std::string& path, const StorageIRI& location) {
  ExtendedAttributes result;
  const std::vector<char> names = listAttributeNames(path, location);
  std::size_t start = 0;
  while (start < names.size()) {
    const std::string name(names.data() + start);
    start += name.size() + 1;
    if (name.size() <= kUserPrefix.size() || name.compare(0, kUserPrefix.size(), kUserPrefix)) {
      continue;
    }
    std::string value;
    if (readAttribute(path, name, value, location)) {
      result.setAttribute(name.substr(kUserPrefix.size()), std::move(value));
    }
  }
  return result;
}

std::vector<std::string> entryNames(const std::string& path, const StorageIRI& location) {
  UniqueDir dir(::opendir(path.c_str()));
  if (!dir) throw errnoException(errno, location, "opendir", path);
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  if (errno != 0) throw errnoException(errno, location, "readdir", path);
  return names;
}

}  // namespace foundation::storage::provider::file
