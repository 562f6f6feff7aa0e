// Shared by the FuseFilesystem callback files: the guard every callback runs its body in.
#pragma once

#include "ErrnoMapping.h"

namespace storage::mount {

// Runs a callback's body; any exception becomes the negative errno FUSE expects. A callback
// must never let an exception reach libfuse's C code.
template <class Body>
int guarded(const char* operation, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return -errnoForCurrentException(operation);
  }
}

}  // namespace storage::mount
