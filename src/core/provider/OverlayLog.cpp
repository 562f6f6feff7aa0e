#include "core/provider/OverlayLog.h"

namespace storage::overlayprovider {

const foundation::log::diagnostic_logger& overlayLogger() {
  static const foundation::log::diagnostic_logger logger("storage::overlayprovider");
  return logger;
}

}  // namespace storage::overlayprovider
