// What the signal server answers to plain HTTP requests: the page behind a share link for a person
// without Mirell, the update endpoint's JSON, the signal endpoint's marker for a GET without an
// upgrade, and the statuses for everything else.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mirell::signal {

struct HttpAnswer {
  unsigned status = 404;
  std::string content_type = "text/plain; charset=utf-8";
  std::string body;
};

struct LatestRelease {
  std::string version;
  std::string url;
};

// The answer to a request that is not a WebSocket upgrade. `method` and `target` as received.
// "/s/<anything>" gives the same page whatever the token, so nothing about tokens leaks.
HttpAnswer AnswerHttp(std::string_view method, std::string_view target,
                      const std::optional<LatestRelease>& latest);

}  // namespace mirell::signal
