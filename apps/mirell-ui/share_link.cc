#include "share_link.h"

#include "mirell/base/ascii.h"
#include "mirell/protocol/share_token.h"
#include "mirell/protocol/signal_endpoint.h"

namespace mirell::ui {
namespace {

// Cut at the first of "?#/&"; empty unless the rest is a token.
std::string TokenAt(std::string_view rest) {
  rest = rest.substr(0, rest.find_first_of("?#/&"));
  // Anything else is no link of ours, and no watch is made for it.
  if (!protocol::IsShareToken(rest)) return {};
  return std::string(rest);
}

}  // namespace

std::string ShareTokenFromUrl(std::string_view url, std::string_view share_prefix) {
  if (url.size() < 3) return {};
  const auto scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) return {};
  const auto rest = url.substr(scheme_end + 3);
  if (!rest.starts_with(share_prefix)) return {};
  return TokenAt(rest.substr(share_prefix.size()));
}

std::optional<ShareLink> ParseShareLink(std::string_view url) {
  const auto scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) return std::nullopt;
  const std::string_view scheme = url.substr(0, scheme_end);
  const bool secure = EqualsIgnoringAsciiCase(scheme, "https");
  if (!secure && !EqualsIgnoringAsciiCase(scheme, "http")) return std::nullopt;
  const std::string_view rest = url.substr(scheme_end + 3);
  const auto path = rest.find('/');
  if (path == std::string_view::npos || path == 0) return std::nullopt;
  const std::string_view authority = rest.substr(0, path);
  for (const char c : authority) {
    // A user-info part would make the host another than it seems; blanks and controls are no
    // part of any host.
    if (c <= ' ' || c >= 0x7f || c == '@' || c == '\\' || c == '?' || c == '#') return std::nullopt;
  }
  if (!rest.substr(path).starts_with("/s/")) return std::nullopt;
  std::string token = TokenAt(rest.substr(path + 3));
  if (token.empty()) return std::nullopt;
  ShareLink link;
  link.token = std::move(token);
  link.authority = std::string(authority);
  link.signal_url =
      std::string(secure ? "wss://" : "ws://") + link.authority + std::string(protocol::kSignalPath);
  return link;
}

}  // namespace mirell::ui
