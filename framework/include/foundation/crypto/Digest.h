// Blake2b-512 digests and URL-safe Base64 text, done by Crypto++.
#pragma once

#include <string>
#include <string_view>

namespace foundation::crypto {

// The 64-byte Blake2b digest of `data`.
std::string blake2b512(std::string_view data);
// RFC 4648 "base64url" alphabet, without padding or line breaks.
std::string base64UrlEncode(std::string_view bytes);
// base64UrlEncode(blake2b512(data)): an 86-character name-safe fingerprint.
std::string blake2b512Base64Url(std::string_view data);

}  // namespace foundation::crypto
