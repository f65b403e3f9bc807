// What the signal server answers to plain HTTP requests: the page behind a share link for a person
// without Mirell, the update endpoint's JSON, the signal endpoint's marker for a GET without an
// upgrade, and the statuses for everything else.
#pragma once

#include <functional>
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

// For a token, the address its players reach it at through a relay when it is a public share;
// empty otherwise.
using PublicStreamLookup = std::function<std::string(std::string_view token)>;

// The answer to a request that is not a WebSocket upgrade. `method` and `target` as received.
// "/s/<token>" gives the same page whatever the token, so nothing about tokens leaks, except for
// a public share with a relay: its page names the relay's stream in a video element, which
// VRChat's resolver plays for players without Mirell.
HttpAnswer AnswerHttp(std::string_view method, std::string_view target,
                      const std::optional<LatestRelease>& latest,
                      const PublicStreamLookup& public_stream = {});

}  // namespace mirell::signal
