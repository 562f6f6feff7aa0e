#include <foundation/crypto/Digest.h>

#include <cryptopp/base64.h>
#include <cryptopp/blake2.h>
#include <cryptopp/filters.h>

namespace foundation::crypto {

std::string blake2b512(std::string_view data) {
  // Setting a hash up costs as much as hashing a path; CalculateDigest leaves it ready for
  // the next message, so each thread keeps one.
  thread_local CryptoPP::BLAKE2b hash(static_cast<unsigned int>(CryptoPP::BLAKE2b::DIGESTSIZE));
  std::string digest(hash.DigestSize(), '\0');
  hash.CalculateDigest(reinterpret_cast<CryptoPP::byte*>(digest.data()),
                       reinterpret_cast<const CryptoPP::byte*>(data.data()), data.size());
  return digest;
}

std::string base64UrlEncode(std::string_view bytes) {
  // Making an encoder costs several times what encoding a digest does, and the content cache
  // names every body this way on every create, rename and removal: each thread keeps one,
  // which starts afresh after each message.
  thread_local std::string text;
  thread_local CryptoPP::Base64URLEncoder encoder(new CryptoPP::StringSink(text),
                                                  /*insertLineBreaks=*/false);
  text.clear();
  encoder.Put(reinterpret_cast<const CryptoPP::byte*>(bytes.data()), bytes.size());
  encoder.MessageEnd();
  return text;
}

std::string blake2b512Base64Url(std::string_view data) { return base64UrlEncode(blake2b512(data)); }

}  // namespace foundation::crypto
