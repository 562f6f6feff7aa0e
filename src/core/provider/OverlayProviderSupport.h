// Small pieces shared by the OverlayProvider's operation files (internal to the overlay).
#pragma once

#include "core/support/OverlayLog.h"

#include <foundation/storage/provider/Exception.h>

namespace storage::overlayprovider {

// Every host operation's scoped trace record names this source. It is the name the host's log
// filters know the provider's records by, so it stays as it is wherever the files live.
inline constexpr const char* kOverlayProviderSource = "src/core/OverlayProvider";

// Names of new entries may not hold control characters (C0, DEL and C1). `location` is the
// overlay's public form, since it is what the refusal names.
inline void checkName(const foundation::storage::provider::StorageIRI& location) {
  for (const char16_t unit : location.getName()) {
    if (unit < 32 || (unit >= 127 && unit <= 159)) {
      throw foundation::storage::provider::Exception(
          foundation::storage::provider::ErrorCode::InvalidName, location,
          "the name holds a control character");
    }
  }
}

}  // namespace storage::overlayprovider

#define OVERLAY_OPERATION(iri)                                            \
  FOUNDATION_TRACE_SCOPE_IRI(::storage::overlayprovider::overlayLogger(), \
                             ::storage::overlayprovider::kOverlayProviderSource, iri)
