#include "mirell/signal/http_answers.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "mirell/protocol/signal_endpoint.h"

namespace mirell::signal {
namespace {

// Self-contained: no scripts, fonts, pictures or styles from elsewhere.
constexpr std::string_view kPageHead = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>A Mirell share link</title>
<style>
body { margin: 0; background: #14121a; color: #e6e3ee; font: 17px/1.5 system-ui, sans-serif; }
main { max-width: 36em; margin: 12vh auto; padding: 0 1.5em; }
h1 { font-weight: 600; font-size: 1.6em; color: #c9b8ff; }
code { background: #24202e; padding: 0.1em 0.35em; border-radius: 4px; }
</style>
</head>
<body>
<main>
)";

constexpr std::string_view kShareText = R"(<h1>This is a Mirell share link</h1>
<p>Someone is sharing their screen or a window, with its sound, through Mirell. The link is
meant for a video player inside VRChat: paste it there, and the picture and sound play in the
world, live.</p>
<p>To watch, you need Mirell running on your own computer beside VRChat. Mirell is a small tray
program that shows a screen or a window to friends inside VRChat: peer to peer, with nobody
let in unasked, and nothing to set up.</p>
<p>Nothing plays in a web browser. If you have Mirell, copy this page's address into a
VRChat video player.</p>
)";

constexpr std::string_view kPublicShareText = R"(<h1>Anyone with this link can watch</h1>
<p>Someone is sharing their screen or a window, with its sound, through Mirell, and has let in
everyone who has the link. Paste this page's address into a VRChat video player: the picture
and sound play in the world, live, for everyone there, whether or not they have Mirell.</p>
<p>This page does not play it in a web browser.</p>
)";

constexpr std::string_view kPageTail = R"(</main>
</body>
</html>
)";

// The few characters that matter inside a double-quoted attribute and between tags.
std::string EscapeHtml(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&': escaped += "&amp;"; break;
      case '"': escaped += "&quot;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      default: escaped += c;
    }
  }
  return escaped;
}

std::string SharePage(const std::string& public_stream) {
  std::string page(kPageHead);
  if (public_stream.empty()) {
    page += kShareText;
  } else {
    page += kPublicShareText;
    // For VRChat's resolver, which plays a page's HTML5 media; a browser cannot play it, so it is
    // not shown.
    page += "<video hidden src=\"" + EscapeHtml(public_stream) + "\"></video>\n";
  }
  page += kPageTail;
  return page;
}

HttpAnswer Text(unsigned status, std::string body) {
  HttpAnswer answer;
  answer.status = status;
  answer.body = std::move(body);
  return answer;
}

}  // namespace

HttpAnswer AnswerHttp(std::string_view method, std::string_view target,
                      const std::optional<LatestRelease>& latest,
                      const PublicStreamLookup& public_stream) {
  const std::string_view path = target.substr(0, target.find('?'));
  if (method != "GET" && method != "HEAD") return Text(405, "method not allowed\n");
  if (path.starts_with("/s/") && path.size() > 3) {
    HttpAnswer answer;
    answer.status = 200;
    answer.content_type = "text/html; charset=utf-8";
    answer.body = SharePage(public_stream ? public_stream(path.substr(3)) : std::string());
    return answer;
  }
  if (path == "/latest") {
    if (!latest) return Text(404, "no release is published here\n");
    HttpAnswer answer;
    answer.status = 200;
    answer.content_type = "application/json";
    answer.body = nlohmann::json{{"version", latest->version}, {"url", latest->url}}.dump();
    return answer;
  }
  if (path == protocol::kSignalPath) {
    return Text(protocol::kSignalEndpointStatus,
                fmt::format("{}\nthis is the WebSocket endpoint of a Mirell signal server\n",
                            protocol::kSignalEndpointMarker));
  }
  return Text(404, "not found\n");
}

}  // namespace mirell::signal
