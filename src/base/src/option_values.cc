#include "mirell/base/option_values.h"

#include <fmt/format.h>

#include <charconv>
#include <fstream>
#include <stdexcept>

namespace mirell {
bool IsUrlHostCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '-' || c == ':' || c == '[' || c == ']';
}

std::size_t PositiveCountOption(std::string_view option, std::string_view text) {
  std::size_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value == 0) {
    throw std::invalid_argument(fmt::format("{} wants a positive whole number, not '{}'", option, text));
  }
  return value;
}

bool IsAddressAndPort(std::string_view text) {
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view port = text.substr(colon + 1);
  unsigned value = 0;
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
  return !port.empty() && error == std::errc() && end == port.data() + port.size() && value <= 65535;
}

bool IsRelayUrl(std::string_view text) {
  std::string_view rest;
  if (text.starts_with("rtspt://")) {
    rest = text.substr(8);
  } else if (text.starts_with("rtsp://")) {
    rest = text.substr(7);
  } else {
    return false;
  }
  if (rest.ends_with('/')) rest.remove_suffix(1);
  if (rest.empty() || rest.front() == ':') return false;
  for (const char c : rest) {
    if (!IsUrlHostCharacter(c)) return false;
  }
  return true;
}

std::string ReadSecretFileOption(std::string_view option, std::string_view path) {
  std::ifstream file{std::string(path)};
  if (!file.good()) throw std::invalid_argument(fmt::format("{}: cannot read '{}'", option, path));
  std::string secret;
  std::getline(file, secret);
  while (!secret.empty() && (secret.back() == '\r' || secret.back() == ' ')) secret.pop_back();
  if (secret.size() < 16) {
    throw std::invalid_argument(
        fmt::format("{}: '{}' holds no secret of 16 characters or more", option, path));
  }
  if (secret.size() > 256) {
    throw std::invalid_argument(
        fmt::format("{}: the secret in '{}' is longer than 256 characters", option, path));
  }
  return secret;
}

}  // namespace mirell
