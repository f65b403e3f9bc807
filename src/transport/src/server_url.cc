#include "server_url.h"

#include "mirell/transport/web_socket.h"

#include <charconv>

#include "mirell/base/ascii.h"

namespace mirell::transport {
namespace {

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && EqualsIgnoringAsciiCase(text.substr(0, prefix.size()), prefix);
}

bool ValidPort(std::string_view text) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc{} && end == text.data() + text.size() && value >= 1 && value <= 65535;
}

// Everything after the scheme's "//".
std::optional<ServerUrl> ParseAfterScheme(std::string_view url, bool secure) {
  ServerUrl parts;
  parts.secure = secure;
  const auto authority_end = url.find_first_of("/?#");
  const std::string_view authority = url.substr(0, authority_end);
  std::string_view rest = authority_end == std::string_view::npos ? std::string_view()
                                                                  : url.substr(authority_end);
  rest = rest.substr(0, rest.find('#'));
  if (authority.empty() || authority.find('@') != std::string_view::npos) return std::nullopt;

  std::string_view host = authority;
  std::string_view port;
  if (authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = authority.substr(1, close - 1);
    const auto after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return std::nullopt;
      port = after.substr(1);
      if (!ValidPort(port)) return std::nullopt;
    }
  } else if (const auto colon = authority.rfind(':'); colon != std::string_view::npos) {
    host = authority.substr(0, colon);
    port = authority.substr(colon + 1);
    if (!ValidPort(port)) return std::nullopt;
  }
  if (host.empty()) return std::nullopt;
  parts.host = std::string(host);
  parts.port = port.empty() ? (parts.secure ? "443" : "80") : std::string(port);
  parts.host_header = std::string(authority);
  parts.target = rest.empty() || rest.front() == '?' ? "/" + std::string(rest) : std::string(rest);
  return parts;
}

}  // namespace

std::optional<ServerUrl> ParseWebSocketUrl(std::string_view url) {
  if (StartsWithNoCase(url, "wss://")) return ParseAfterScheme(url.substr(6), true);
  if (StartsWithNoCase(url, "ws://")) return ParseAfterScheme(url.substr(5), false);
  return std::nullopt;
}

bool IsWebSocketUrl(std::string_view url) { return ParseWebSocketUrl(url).has_value(); }

std::optional<ServerUrl> ParseHttpsUrl(std::string_view url) {
  if (StartsWithNoCase(url, "https://")) return ParseAfterScheme(url.substr(8), true);
  return std::nullopt;
}

}  // namespace mirell::transport
