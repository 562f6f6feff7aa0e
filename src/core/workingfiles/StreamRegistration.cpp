#include "core/workingfiles/StreamRegistration.h"

#include "core/provider/OverlayLog.h"
#include "core/workingfiles/WorkingFileEntry.h"

#include <boost/exception/diagnostic_information.hpp>

namespace storage::overlayprovider {

StreamRegistration::~StreamRegistration() {
  try {
    if (const auto entry = entry_.lock()) entry->releaseStream(id_);
  } catch (...) {
    try {
      OVERLAY_LOG(foundation::log::error)
          << "Exception caught: " << boost::current_exception_diagnostic_information();
    } catch (...) {
    }
  }
}

}  // namespace storage::overlayprovider
