// The form of a share's token, checked wherever one arrives from outside (a link pasted into
// VRChat, a request to the resolver) before anything is made for it.
#pragma once

#include <cstddef>
#include <string_view>

namespace mirell::transport {

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

}  // namespace mirell::transport
