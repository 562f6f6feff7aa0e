#include "SharedLibrary.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/text/Unicode.h>

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

namespace foundation::host {

namespace {

namespace fsp = storage::provider;

[[noreturn]] void refusePath(const std::string& path, const std::string& detail) {
  throw fsp::Exception(fsp::ErrorCode::InvalidLocation,
                       fsp::StorageIRI(u"file", text::toUtf16(path)), detail);
}

std::string lastDlError() {
  const char* message = dlerror();
  return message ? message : "unknown dynamic loader error";
}

}  // namespace

SharedLibrary::SharedLibrary(const std::string& path) {
  std::error_code error;
  // An absolute path always holds a "/", so dlopen never searches the library path for it.
  path_ = std::filesystem::absolute(path, error).lexically_normal().string();
  if (path.empty() || error) refusePath(path, "not a usable bundle path");
  if (!std::filesystem::is_regular_file(path_, error)) {
    refusePath(path_, "no bundle file at this path");
  }
  handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) refusePath(path_, "not a loadable bundle library: " + lastDlError());
}

SharedLibrary::~SharedLibrary() {
  if (handle_ != nullptr && !keepLoaded_) dlclose(handle_);
}

void* SharedLibrary::symbol(const std::string& name) const {
  dlerror();  // clear a stale error, so that the one reported is this lookup's
  void* address = dlsym(handle_, name.c_str());
  if (address == nullptr) {
    throw BundleLoadError(path_, "the bundle does not export " + name);
  }
  return address;
}

}  // namespace foundation::host
