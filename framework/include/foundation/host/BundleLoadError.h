// BundleLoadError: a bundle library was found and opened but cannot be used: its manifest is
// missing, is not JSON, or lacks a key the host needs (or has a wrong value), or an entry
// point is missing, or its component could not be made or activated. The message names the
// bundle's path and what is wrong.
//
// (A bundle path with no loadable library behind it is reported as
// storage::provider::Exception(InvalidLocation), like any other bad location.)
// Immutable; safe to copy and read from any thread.
#pragma once

#include <stdexcept>
#include <string>

namespace foundation::host {

class BundleLoadError : public std::runtime_error {
 public:
  BundleLoadError(const std::string& bundlePath, const std::string& problem)
      : std::runtime_error("cannot load bundle " + bundlePath + ": " + problem) {}
};

}  // namespace foundation::host
