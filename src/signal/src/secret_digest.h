// What the server keeps of a host's secret: a digest, so that a copy of its memory (a core dump,
// a future shared store) does not hand out the secrets that take over shares.
#pragma once

#include <string>
#include <string_view>

namespace mirell::signal {

// SHA-256 of the secret, as 64 lower-case hexadecimal digits.
std::string SecretDigest(std::string_view secret);

}  // namespace mirell::signal
