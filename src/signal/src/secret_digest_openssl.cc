// The secret's digest through OpenSSL's EVP interface.
#include "secret_digest.h"

#include <openssl/evp.h>

#include "mirell/base/error.h"

namespace mirell::signal {

std::string SecretDigest(std::string_view secret) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  MIRELL_CHECK(EVP_Digest(secret.data(), secret.size(), digest, &length, EVP_sha256(), nullptr) == 1,
               "SHA-256 failed");
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(length * 2u);
  for (unsigned int i = 0; i < length; ++i) {
    text.push_back(kHex[digest[i] >> 4]);
    text.push_back(kHex[digest[i] & 0x0F]);
  }
  return text;
}

}  // namespace mirell::signal
