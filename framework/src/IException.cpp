#include <foundation/core/except/IException.h>
#include <foundation/text/Unicode.h>

namespace foundation::core::except {

template <>
std::string convert_str<std::string>(const IException& e) {
  return e.what();
}

template <>
std::u16string convert_str<std::u16string>(const IException& e) {
  return text::toUtf16(e.what());
}

}  // namespace foundation::core::except
