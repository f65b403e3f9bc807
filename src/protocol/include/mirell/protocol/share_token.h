// A share's token and secret: their alphabet and form, checked wherever a token arrives from
// outside (a link pasted into VRChat, a request to the resolver) before anything is made for it,
// and how fresh ones are made.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mirell::protocol {

// Crockford's base-32 digits: no I, L, O or U, so that a token read aloud or retyped survives.
inline constexpr std::string_view kTokenAlphabet = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
inline constexpr std::size_t kTokenLength = 12;
inline constexpr std::size_t kSecretLength = 32;

// Exactly kTokenLength characters of kTokenAlphabet (upper case only, as tokens are made).
constexpr bool IsShareToken(std::string_view text) {
  if (text.size() != kTokenLength) return false;
  for (const char c : text) {
    if (kTokenAlphabet.find(c) == std::string_view::npos) return false;
  }
  return true;
}

struct ShareCredentials {
  std::string token;   // kTokenLength characters of the alphabet.
  std::string secret;  // kSecretLength characters; never logged.
};

// `length` characters of kTokenAlphabet from the system's CSPRNG; fails a check when the system
// cannot give random bytes.
std::string RandomCrockford(std::size_t length);
// A fresh token (12 characters, 60 bits) and secret (32 characters, 160 bits).
ShareCredentials GenerateShareCredentials();

}  // namespace mirell::protocol
