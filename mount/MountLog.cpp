#include "MountLog.h"

#include <exception>

namespace storage::mount {

const foundation::log::diagnostic_logger& mountLogger() {
  static const foundation::log::diagnostic_logger logger("storage::mount");
  return logger;
}

void logCaughtException(const char* what) noexcept {
  try {
    try {
      throw;
    } catch (const std::exception& e) {
      MOUNT_LOG(foundation::log::error) << what << " failed: " << e.what();
    } catch (...) {
      MOUNT_LOG(foundation::log::error) << what << " failed: unknown exception";
    }
  } catch (...) {
    // Nothing to rethrow, or logging itself failed: nothing more can be said.
  }
}

}  // namespace storage::mount
