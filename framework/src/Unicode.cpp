#include <foundation/text/Unicode.h>

#include <unicode/unistr.h>
#include <unicode/ustring.h>

#include <stdexcept>

namespace foundation::text {

std::string toUtf8(std::u16string_view text) {
  std::string out;
  icu::UnicodeString(text.data(), static_cast<int32_t>(text.size())).toUTF8String(out);
  return out;
}

std::u16string toUtf16(std::string_view text) {
  const auto unicode = icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  return std::u16string(unicode.getBuffer(), static_cast<std::size_t>(unicode.length()));
}

std::u16string toLower(std::u16string_view text) {
  // Lower-casing can change the length (for instance U+0130), so ask ICU for the size first.
  UErrorCode status = U_ZERO_ERROR;
  const auto length = static_cast<int32_t>(text.size());
  const int32_t needed = u_strToLower(nullptr, 0, text.data(), length, "", &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
    throw std::runtime_error(std::string("u_strToLower failed: ") + u_errorName(status));
  }
  std::u16string out(static_cast<std::size_t>(needed), u'\0');
  status = U_ZERO_ERROR;
  u_strToLower(out.data(), needed, text.data(), length, "", &status);
  if (U_FAILURE(status)) {
    throw std::runtime_error(std::string("u_strToLower failed: ") + u_errorName(status));
  }
  return out;
}

}  // namespace foundation::text
