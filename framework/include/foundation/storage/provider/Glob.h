// Glob matching of names for the wildcard listings: "*" any run of characters, "?" one
// character, "[...]" a set. Matching is done on UTF-8 text by the C library's fnmatch.
#pragma once

#include <string>

namespace foundation::storage::provider {

bool globMatches(const std::u16string& pattern, const std::u16string& name);

}  // namespace foundation::storage::provider
