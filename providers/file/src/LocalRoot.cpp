#include <foundation/storage/provider/file/ErrnoTranslation.h>
#include <foundation/storage/provider/file/LocalRoot.h>
#include <foundation/text/Unicode.h>

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

namespace foundation::storage::provider::file {

namespace {

const std::u16string kScheme = u"file";

// realpath(3) of `path`, or empty with errno set.
std::string realPath(const std::string& path) {
  std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
  return real ? std::string(real.get()) : std::string();
}

}  // namespace

LocalRoot::LocalRoot(const std::filesystem::path& root) {
  std::error_code error;
  if (!std::filesystem::is_directory(root, error)) {
    throw Exception(
        ErrorCode::NotFound, StorageIRI(kScheme, text::toUtf16(root.string())),
        "the local directory '" + root.string() + "' does not exist or is not a directory");
  }
  root_ = realPath(root.string());
  if (root_.empty()) {
    throw errnoException(errno, StorageIRI(kScheme, text::toUtf16(root.string())), "realpath",
                         root.string());
  }
}

std::string LocalRoot::localPathOf(const StorageIRI& location) const {
  std::string path = root_ == "/" ? std::string() : root_;
  for (const auto& component : location.getPathView()) {
    path += '/';
    path += text::toUtf8(component);
  }
  return path.empty() ? std::string("/") : path;
}

std::string LocalRoot::resolve(const StorageIRI& location) const {
  if (location.getScheme() != kScheme) {
    throw Exception(ErrorCode::InvalidLocation, location, "not a location of the file provider");
  }
  for (const auto& component : location.getPathView()) {
    if (component.find(u'\0') != std::u16string::npos) {
      throw Exception(ErrorCode::InvalidName, location, "a name holds a NUL character");
    }
  }
  checkLinks(location);
  return localPathOf(location);
}

bool LocalRoot::contains(const std::string& real) const {
  if (root_ == "/" || real == root_) return true;
  return real.size() > root_.size() && real.compare(0, root_.size(), root_) == 0 &&
         real[root_.size()] == '/';
}

bool LocalRoot::isEscapingLink(const std::string& path) const {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) return false;
  const std::string real = realPath(path);
  return real.empty() || !contains(real);
}

void LocalRoot::checkLinks(const StorageIRI& location) const {
  std::string current = root_ == "/" ? std::string() : root_;
  for (const auto& component : location.getPathView()) {
    current += '/';
    current += text::toUtf8(component);
    struct stat status {};
    if (::lstat(current.c_str(), &status) != 0) {
      if (errno == ENOENT || errno == ENOTDIR) return;  // nothing below can exist either
      throw errnoException(errno, location, "lstat", current);
    }
    if (!S_ISLNK(status.st_mode)) continue;
    const std::string real = realPath(current);
    if (real.empty()) {
      throw Exception(ErrorCode::InvalidLocation, location,
                      "the symbolic link '" + current + "' leads nowhere");
    }
    if (!contains(real)) {
      throw Exception(ErrorCode::InvalidLocation, location,
                      "the symbolic link '" + current + "' leads outside the provider's root");
    }
  }
}

}  // namespace foundation::storage::provider::file
