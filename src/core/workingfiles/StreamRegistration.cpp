#include "core/workingfiles/StreamRegistration.h"

#include "core/support/OverlayLog.h"
#include "core/workingfiles/WorkingFileEntry.h"

namespace storage::overlayprovider {

StreamRegistration::~StreamRegistration() {
  try {
    if (const auto entry = entry_.lock()) entry->releaseStream(id_);
  } catch (...) {
    logCaughtException("Unexpected exception while releasing a dropped stream");
  }
}

}  // namespace storage::overlayprovider
