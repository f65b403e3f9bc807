#include "mirell/rtsp/stream_path.h"

#include "mirell/base/option_values.h"

namespace mirell::rtsp {

std::string RequestPath(std::string_view uri) {
  std::string path;
  const std::size_t scheme_end = uri.size() >= 3 ? uri.find("://") : std::string_view::npos;
  if (scheme_end != std::string_view::npos) {
    const std::size_t slash = uri.find('/', scheme_end + 3);
    if (slash == std::string_view::npos) return "/";
    path = uri.substr(slash);
  } else {
    path = uri;
  }
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path.empty() ? "/" : path;
}

std::string RequestOrigin(std::string_view uri, std::string_view fallback) {
  const std::size_t scheme_end = uri.find("://");
  if (scheme_end == std::string_view::npos) return std::string(fallback);
  const std::string_view scheme = uri.substr(0, scheme_end);
  if (scheme != "rtsp" && scheme != "rtspt" && scheme != "RTSP") return std::string(fallback);
  std::string_view authority = uri.substr(scheme_end + 3);
  authority = authority.substr(0, authority.find_first_of("/?#"));
  if (authority.empty() || authority.front() == ':') return std::string(fallback);
  for (const char c : authority) {
    if (!IsUrlHostCharacter(c)) return std::string(fallback);
  }
  return "rtsp://" + std::string(authority);
}

std::string TokenFromPath(std::string_view text) {
  std::string path = RequestPath(text);
  std::string_view rest = path;
  while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  if (rest.substr(0, 2) == "s/") rest.remove_prefix(2);
  const std::size_t cut = rest.find_first_of("/?#");
  if (cut != std::string_view::npos) rest = rest.substr(0, cut);
  return std::string(rest);
}

}  // namespace mirell::rtsp
