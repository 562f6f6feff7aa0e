#include <foundation/storage/provider/ErrorCode.h>

#include <array>
#include <string>

namespace foundation::storage::provider {

std::string_view toString(ErrorCode code) {
  static constexpr std::array<std::string_view, 14> kNames = {
      "FolderNotEmpty",      "InvalidName",  "OperationRefused", "AlreadyExists", "NotFound",
      "CacheSpaceExhausted", "ResourceBusy", "AccessDenied",     "QuotaExceeded", "Unavailable",
      "InvalidLocation",     "NotSupported", "IOError",          "Interrupted"};
  const auto index = static_cast<std::size_t>(code);
  return index < kNames.size() ? kNames[index] : std::string_view();
}

std::ostream& operator<<(std::ostream& out, ErrorCode code) {
  const auto name = toString(code);
  if (name.empty()) {
    return out << "ErrorCode(" << static_cast<std::uint32_t>(code) << ")";
  }
  return out << name;
}

}  // namespace foundation::storage::provider
