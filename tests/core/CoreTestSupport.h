// Helpers shared by the overlay's unit tests: overlay and mem locations by path, and the
// error code of a refused call.
#pragma once

#include <foundation/storage/provider/Exception.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace coretest {

namespace fsp = foundation::storage::provider;

inline fsp::StorageIRI ov(const std::u16string& path) { return fsp::StorageIRI(u"overlay", path); }
inline fsp::StorageIRI mem(const std::u16string& path) { return fsp::StorageIRI(u"mem", path); }

// The code of the framework Exception that `call` throws; fails the test when none is thrown.
inline fsp::ErrorCode codeOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const fsp::Exception& e) {
    return e.getErrorCode();
  }
  ADD_FAILURE() << "no Exception was thrown";
  return fsp::ErrorCode::Interrupted;
}

}  // namespace coretest
