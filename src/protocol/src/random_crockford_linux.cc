// Linux: share tokens and secrets from getrandom(), the kernel's CSPRNG.
#include <sys/random.h>

#include <cerrno>
#include <string_view>
#include <vector>

#include "mirell/base/error.h"
#include "mirell/protocol/share_token.h"

namespace mirell::protocol {

std::string RandomCrockford(std::size_t length) {
  std::vector<unsigned char> bytes(length);
  std::size_t filled = 0;
  while (filled < length) {
    const auto got = getrandom(bytes.data() + filled, length - filled, 0);
    const int status = got < 0 && errno != EINTR ? -errno : 0;
    MIRELL_CHECK(status == 0, "getrandom failed with {}", HrToString(status));
    if (got > 0) filled += static_cast<std::size_t>(got);
  }
  std::string text(length, '0');
  for (std::size_t i = 0; i < length; ++i) text[i] = kTokenAlphabet[bytes[i] & 31];
  return text;
}

ShareCredentials GenerateShareCredentials() {
  return {RandomCrockford(kTokenLength), RandomCrockford(kSecretLength)};
}

}  // namespace mirell::protocol
