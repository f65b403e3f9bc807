// Which URLs are share links, and where their host meets viewers.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mirell::ui {

// The token of a share link: the text directly behind "://" must begin with `share_prefix`
// (byte for byte, so other letter case or another host in front is not ours); the token is what
// follows, cut at the first of "?#/&", and must have a token's form (`IsShareToken`). Any
// scheme will do. Empty when the URL is not a share link or names no token.
std::string ShareTokenFromUrl(std::string_view url, std::string_view share_prefix);

// A share link of any Mirell server: "https://AUTHORITY/s/TOKEN" or "http://...".
struct ShareLink {
  std::string token;
  std::string authority;   // Host and port as the link writes them.
  std::string signal_url;  // "wss://AUTHORITY/signal" for https, "ws://AUTHORITY/signal" for http.
};

// The scheme in either case, an authority of printable characters with no user-info part, then
// "/s/" and a token as for ShareTokenFromUrl. nullopt for anything else. Whether a server is
// behind it is not known from the link: see SignalServerCheck.
std::optional<ShareLink> ParseShareLink(std::string_view url);

}  // namespace mirell::ui
