#include <foundation/storage/provider/Glob.h>
#include <foundation/text/Unicode.h>

#include <fnmatch.h>

namespace foundation::storage::provider {

bool globMatches(const std::u16string& pattern, const std::u16string& name) {
  if (pattern.empty() || pattern == u"*") {
    return true;
  }
  // FNM_PERIOD is deliberately not set: "*" also matches names that start with ".".
  return fnmatch(text::toUtf8(pattern).c_str(), text::toUtf8(name).c_str(), 0) == 0;
}

}  // namespace foundation::storage::provider
