// UTF-8 / UTF-16 conversion and lower-casing, done by ICU.
// Invalid input is converted with U+FFFD replacement characters, never rejected.
#pragma once

#include <string>
#include <string_view>

namespace foundation::text {

std::string toUtf8(std::u16string_view text);
std::u16string toUtf16(std::string_view text);
// Full Unicode lower-casing (root locale), as ICU's u_strToLower.
std::u16string toLower(std::u16string_view text);

}  // namespace foundation::text
