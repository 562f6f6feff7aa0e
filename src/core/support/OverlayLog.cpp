#include "core/support/OverlayLog.h"

#include <boost/exception/diagnostic_information.hpp>

namespace storage::overlayprovider {

const foundation::log::diagnostic_logger& overlayLogger() {
  static const foundation::log::diagnostic_logger logger("storage::overlayprovider");
  return logger;
}

void logCaughtException(const char* message) noexcept {
  try {
    if (message) OVERLAY_LOG(foundation::log::error) << message;
    OVERLAY_LOG(foundation::log::exception)
        << "Exception caught: " << boost::current_exception_diagnostic_information();
  } catch (...) {
  }
}

}  // namespace storage::overlayprovider
