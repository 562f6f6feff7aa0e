// Exception: the one exception through which a provider reports a refused or failed request.
//
// Carries an ErrorCode and the location concerned. For a missing parent folder the location
// is the parent's. Immutable; safe to copy and read from any thread.
#pragma once

#include <foundation/core/except/IException.h>
#include <foundation/storage/provider/ErrorCode.h>
#include <foundation/storage/provider/StorageIRI.h>

#include <stdexcept>
#include <string>

namespace foundation::storage::provider {

class Exception : public core::except::IException, public std::runtime_error {
 public:
  Exception(ErrorCode code, StorageIRI location, const std::string& detail = {});

  ErrorCode getErrorCode() const noexcept { return code_; }
  const StorageIRI& getLocation() const noexcept { return location_; }
  // "<code name> (<value>): <location>[: <detail>]"
  const char* what() const noexcept override { return std::runtime_error::what(); }

 private:
  ErrorCode code_;
  StorageIRI location_;
};

}  // namespace foundation::storage::provider
