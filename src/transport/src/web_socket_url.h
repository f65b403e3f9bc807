// The parts of a "ws://" or "wss://" URL that a connection needs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mirell::transport {

struct WebSocketUrl {
  bool secure = false;   // "wss://"
  std::string host;      // Without brackets for an IPv6 literal.
  std::string port;      // "80" or "443" when the URL names none.
  std::string target;    // Path and query; "/" when the URL has none.
  std::string host_header;  // Host and, when the URL names one, ":port", as the Host header wants.
};

// Scheme in either case; a user-info part, an empty host or a port that is not 1-65535 is
// refused. nullopt for anything that is not such a URL.
std::optional<WebSocketUrl> ParseWebSocketUrl(std::string_view url);

}  // namespace mirell::transport
