// Letter case of ASCII text, for the names that protocols and file formats compare without it
// (header names, registry names, URL schemes). Other bytes are left as they are.
#pragma once

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

namespace mirell {

inline char AsciiLower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

inline std::string AsciiLower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) { return AsciiLower(c); });
  return lower;
}

inline bool EqualsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return AsciiLower(x) == AsciiLower(y); });
}

}  // namespace mirell
