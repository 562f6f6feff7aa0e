#include <foundation/storage/provider/Exception.h>

#include <sstream>

namespace foundation::storage::provider {

namespace {

std::string describe(ErrorCode code, const StorageIRI& location, const std::string& detail) {
  std::ostringstream text;
  text << code << " (" << static_cast<std::uint32_t>(code) << "): " << location;
  if (!detail.empty()) {
    text << ": " << detail;
  }
  return text.str();
}

}  // namespace

Exception::Exception(ErrorCode code, StorageIRI location, const std::string& detail)
    : std::runtime_error(describe(code, location, detail)),
      code_(code),
      location_(std::move(location)) {}

}  // namespace foundation::storage::provider
