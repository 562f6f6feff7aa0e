// SharedLibrary: one dlopen handle (RTLD_NOW | RTLD_LOCAL), closed by the destructor unless
// keepLoaded() was called. Host-only (used by LoadedBundle).
//
// Owned by value by its LoadedBundle; not copyable. No lock: its owner serialises the calls.
#pragma once

#include <foundation/host/BundleLoadError.h>

#include <string>

namespace foundation::host {

class SharedLibrary {
 public:
  // Opens the library at `path`. No file there, or a file that is not a loadable library:
  // storage::provider::Exception(InvalidLocation) with the path as a "file:" location.
  explicit SharedLibrary(const std::string& path);
  ~SharedLibrary();
  SharedLibrary(const SharedLibrary&) = delete;
  SharedLibrary& operator=(const SharedLibrary&) = delete;

  const std::string& path() const { return path_; }
  // The exported function `name`; BundleLoadError when the library does not export it.
  template <class Function>
  Function function(const std::string& name) const {
    return reinterpret_cast<Function>(symbol(name));
  }
  // Leaves the library mapped after destruction (its code is still referenced).
  void keepLoaded() { keepLoaded_ = true; }

 private:
  void* symbol(const std::string& name) const;

  std::string path_;
  void* handle_ = nullptr;
  bool keepLoaded_ = false;
};

}  // namespace foundation::host
