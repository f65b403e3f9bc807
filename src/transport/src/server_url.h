// The parts of a server's URL that a connection needs: "ws://" and "wss://" for the signal
// server, "https://" for plain requests.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mirell::transport {

struct ServerUrl {
  bool secure = false;   // "wss://" or "https://"
  std::string host;      // Without brackets for an IPv6 literal.
  std::string port;      // "80" or "443" when the URL names none.
  std::string target;    // Path and query; "/" when the URL has none.
  std::string host_header;  // Host and, when the URL names one, ":port", as the Host header wants.
};

// Scheme in either case; a user-info part, an empty host or a port that is not 1-65535 is
// refused. nullopt for anything that is not such a URL.
std::optional<ServerUrl> ParseWebSocketUrl(std::string_view url);
// The same rules for "https://" only: plain "http://" is refused like any other scheme.
std::optional<ServerUrl> ParseHttpsUrl(std::string_view url);

}  // namespace mirell::transport
