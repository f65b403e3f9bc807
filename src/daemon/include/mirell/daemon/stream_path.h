// How an RTSP URI or a path becomes a stream's token. The RTSP server and the daemon host must
// agree on this exactly, so it lives in one place.
#pragma once

#include <string>
#include <string_view>

namespace mirell::daemon {

// The path of a URI: "/" when nothing or no "/" follows "://"; text without "://" is the path
// itself. Trailing slashes go; an empty path is "/".
std::string RequestPath(std::string_view uri);

// The token of a URI or path: the path without leading slashes and a leading "s/", cut at the
// first of "/?#". So "/s/abc", "/s/abc/", "/s/abc/trackID=0" and "/s/abc?x=1" all give "abc".
std::string TokenFromPath(std::string_view text);

}  // namespace mirell::daemon
