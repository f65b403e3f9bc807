#include "share_link.h"

#include "mirell/transport/share_token.h"

namespace mirell::ui {

std::string ShareTokenFromUrl(std::string_view url, std::string_view share_prefix) {
  if (url.size() < 3) return {};
  const auto scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) return {};
  const auto rest = url.substr(scheme_end + 3);
  if (!rest.starts_with(share_prefix)) return {};
  auto token = rest.substr(share_prefix.size());
  token = token.substr(0, token.find_first_of("?#/&"));
  // Anything else is no link of ours, and no watch is made for it.
  if (!transport::IsShareToken(token)) return {};
  return std::string(token);
}

}  // namespace mirell::ui
