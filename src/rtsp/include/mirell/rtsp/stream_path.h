// How an RTSP URI or a path becomes a stream's token. The RTSP server and the daemon host must
// agree on this exactly, so it lives in one place.
#pragma once

#include <string>
#include <string_view>

namespace mirell::rtsp {

// The path of a URI: "/" when nothing or no "/" follows "://"; text without "://" is the path
// itself. Trailing slashes go; an empty path is "/".
std::string RequestPath(std::string_view uri);

// "rtsp://" and the host (and port) a player named in an absolute URI, so that the URLs the
// server hands back lead where the player came (a relay's public name, not this machine's
// loopback); `fallback` when the URI names none, or one of characters no host name has.
std::string RequestOrigin(std::string_view uri, std::string_view fallback);

// The token of a URI or path: the path without leading slashes and a leading "s/", cut at the
// first of "/?#". So "/s/abc", "/s/abc/", "/s/abc/trackID=0" and "/s/abc?x=1" all give "abc".
std::string TokenFromPath(std::string_view text);

}  // namespace mirell::rtsp
