// Which URLs are share links of this deployment, and their token.
#pragma once

#include <string>
#include <string_view>

namespace mirell::ui {

// The token of a share link: the text directly behind "://" must begin with `share_prefix`
// (byte for byte, so other letter case or another host in front is not ours); the token is what
// follows, cut at the first of "?#/&", and must have a token's form (`IsShareToken`). Any
// scheme will do. Empty when the URL is not a share link or names no token.
std::string ShareTokenFromUrl(std::string_view url, std::string_view share_prefix);

}  // namespace mirell::ui
