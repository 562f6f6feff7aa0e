#include <foundation/crypto/Digest.h>

#include <cryptopp/base64.h>
#include <cryptopp/blake2.h>
#include <cryptopp/filters.h>

namespace foundation::crypto {

std::string blake2b512(std::string_view data) {
  CryptoPP::BLAKE2b hash(static_cast<unsigned int>(CryptoPP::BLAKE2b::DIGESTSIZE));
  std::string digest;
  CryptoPP::StringSource source(reinterpret_cast<const CryptoPP::byte*>(data.data()), data.size(),
                                true,
                                new CryptoPP::HashFilter(hash, new CryptoPP::StringSink(digest)));
  return digest;
}

std::string base64UrlEncode(std::string_view bytes) {
  std::string text;
  CryptoPP::StringSource source(
      reinterpret_cast<const CryptoPP::byte*>(bytes.data()), bytes.size(), true,
      new CryptoPP::Base64URLEncoder(new CryptoPP::StringSink(text), /*insertLineBreaks=*/false));
  return text;
}

std::string blake2b512Base64Url(std::string_view data) { return base64UrlEncode(blake2b512(data)); }

}  // namespace foundation::crypto
