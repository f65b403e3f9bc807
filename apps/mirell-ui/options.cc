#include "options.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>
#include <string_view>

#include "mirell/daemon/vrchat_identity.h"
#include "mirell/transport/web_socket.h"

namespace mirell::ui {
namespace {

// One option of a scan: a flag, or a name whose value is the next argument.
struct OptionRule {
  std::string_view name;
  bool takes_value;
  std::function<void(const char* value)> apply;
};

// Walks the arguments once, left to right. A value is consumed with its name, so it is never
// read as an option of the same scan; a name in last place has no value and is ignored.
void Scan(Arguments arguments, const std::vector<OptionRule>& rules) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    for (const auto& rule : rules) {
      if (rule.name != arguments[i]) continue;
      if (!rule.takes_value) {
        rule.apply(nullptr);
      } else if (i + 1 < arguments.size()) {
        rule.apply(arguments[++i]);
      }
      break;
    }
  }
}

}  // namespace

std::uint16_t ParsePortOption(const char* text) {
  return static_cast<std::uint16_t>(std::atoi(text));
}

InfoRequest ScanInfoOptions(Arguments arguments) {
  InfoRequest request = InfoRequest::kNone;
  const auto help = [&](const char*) { request = InfoRequest::kHelp; };
  Scan(arguments, {{"--help", false, help},
                   {"-h", false, help},
                   {"--version", false, [&](const char*) {
                      if (request == InfoRequest::kNone) request = InfoRequest::kVersion;
                    }}});
  return request;
}

StartOptions ScanStartOptions(Arguments arguments, const DaemonConfig& defaults) {
  StartOptions options{defaults.rtsp_port, defaults.pipe_name, false};
  Scan(arguments,
       {{"--rtsp-port", true, [&](const char* value) { options.rtsp_port = ParsePortOption(value); }},
        {"--debug-log", false, [&](const char*) { options.debug_log = true; }},
        {"--pipe", true, [&](const char* value) { options.pipe_name = value; }}});
  return options;
}

std::optional<std::string> ScanServiceOptions(Arguments arguments, DaemonConfig& config) {
  std::optional<std::string> update_url;
  Scan(arguments,
       {{"--update-url", true, [&](const char* value) { update_url = value; }},
        {"--no-stub", false, [&](const char*) { config.install_stub = false; }},
        {"--rtsp-port", true, [&](const char* value) { config.rtsp_port = ParsePortOption(value); }},
        {"--pipe", true, [&](const char* value) { config.pipe_name = value; }},
        {"--signal", true, [&](const char* value) {
           config.signal_url = value;
           // One option points at a whole deployment: its share links live on the same host.
           const std::string prefix = DeriveSharePrefix(config.signal_url);
           if (!prefix.empty()) config.share_prefix = prefix;
         }}});
  return update_url;
}

ShareOptions ScanShareOptions(Arguments arguments) {
  ShareOptions options;
  bool window_given = false;
  Scan(arguments,
       {{"--share-window", true, [&](const char* value) {
           window_given = true;
           options.window_title = value;
         }},
        {"--share-monitor", true, [&](const char* value) {
           const std::string text = value;
           if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos) {
             options.error = "--share-monitor takes a monitor number (0 is the first), not \"" + text + "\"";
             return;
           }
           options.monitor = static_cast<std::uint32_t>(std::stoul(text));
         }},
        {"--allow", true, [&](const char* value) {
           if (!daemon::IsVRChatUserId(value)) {
             options.error = std::string("--allow takes a VRChat user id (\"usr_\" and 36 more characters, or an "
                                         "older id of 6 to 20 letters and digits), not \"") + value + "\"";
             return;
           }
           options.allow.emplace_back(value);
         }},
        {"--admit-everyone", false, [&](const char*) { options.admit_everyone = true; }},
        {"--quality", true, [&](const char* value) {
           unsigned width = 0, height = 0, fps = 0;
           char end = 0;
           if (std::sscanf(value, "%ux%u@%u%c", &width, &height, &fps, &end) != 3 || width < 160 ||
               width > 3840 || height < 90 || height > 2160 || width % 2 != 0 || height % 2 != 0 || fps < 1 ||
               fps > 60) {
             options.error = std::string("--quality takes WIDTHxHEIGHT@FPS with even sizes from 160x90 to "
                                         "3840x2160 and 1 to 60 frames a second, not \"") + value + "\"";
             return;
           }
           options.width = width;
           options.height = height;
           options.fps = fps;
         }},
        {"--share-minutes", true, [&](const char* value) {
           const std::string text = value;
           if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789") != std::string::npos ||
               std::stoul(text) > 1440) {
             options.error = "--share-minutes takes a number of minutes from 0 (no limit) to 1440, not \"" +
                             text + "\"";
             return;
           }
           options.minutes = static_cast<std::uint32_t>(std::stoul(text));
         }}});
  if (!options.error.empty()) return options;
  if (window_given && options.window_title.empty()) {
    options.error = "--share-window needs part of a window's title";
  } else if (window_given && options.monitor) {
    options.error = "--share-window and --share-monitor cannot both be given: a share has one target";
  }
  return options;
}

std::string SignalUrlError(const std::string& signal_url) {
  if (transport::IsWebSocketUrl(signal_url)) return {};
  return "--signal takes the ws:// or wss:// URL of a signal server (such as "
         "wss://mirell.example/signal), not \"" + signal_url + "\"";
}

std::string DeriveSharePrefix(const std::string& signal_url) {
  const auto slashes = signal_url.find("://");
  if (slashes == std::string::npos) return {};
  const std::string scheme = signal_url.substr(0, slashes);
  if (scheme != "ws" && scheme != "wss") return {};
  const auto authority_start = slashes + 3;
  const auto authority_end = signal_url.find_first_of("/?#", authority_start);
  const std::string authority = signal_url.substr(authority_start, authority_end - authority_start);
  if (authority.empty() || authority.find('@') != std::string::npos) return {};
  return authority + "/s/";
}

std::string DeriveUpdateUrl(const std::string& signal_url) {
  const auto slashes = signal_url.find("//");
  if (slashes == std::string::npos) return {};
  const auto path = signal_url.find('/', slashes + 2);
  if (path == std::string::npos) return {};
  constexpr std::string_view kSecureSocket = "wss://";
  const std::string origin = signal_url.substr(0, path);
  if (!origin.starts_with(kSecureSocket)) return {};
  return "https://" + origin.substr(kSecureSocket.size()) + "/latest";
}

}  // namespace mirell::ui
