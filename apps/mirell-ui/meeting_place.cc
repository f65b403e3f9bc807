#include "meeting_place.h"

#include <charconv>

#include "lan_address.h"
#include "mirell/base/logging.h"
#include "mirell/protocol/signal_endpoint.h"
#include "mirell/transport/web_socket.h"

namespace mirell::ui {

std::optional<std::uint16_t> LocalMeetingPort(std::string_view place) {
  constexpr std::string_view kLocal = "local";
  if (!place.starts_with(kLocal)) return std::nullopt;
  place.remove_prefix(kLocal.size());
  if (place.empty()) return kLocalMeetingPort;
  if (place.front() != ':' || place.size() < 2 || place.size() > 6) return std::nullopt;
  place.remove_prefix(1);
  unsigned port = 0;
  const auto [end, error] = std::from_chars(place.data(), place.data() + place.size(), port);
  if (error != std::errc() || end != place.data() + place.size() || port == 0 || port > 65535) {
    return std::nullopt;
  }
  return static_cast<std::uint16_t>(port);
}

std::string MeetingPlaceError(const std::string& place) {
  if (transport::IsWebSocketUrl(place) || LocalMeetingPort(place)) return {};
  return "--signal takes the ws:// or wss:// URL of a signal server (such as "
         "wss://share.example.org/signal), or local, or local:PORT, not \"" + place + "\"";
}

void ApplyMeetingPlace(DaemonConfig& config, const std::string& place) {
  if (const std::optional<std::uint16_t> port = LocalMeetingPort(place)) {
    const std::string address = LanAddress();
    if (address == "127.0.0.1") {
      LOG_WARN("this computer has no network address: its share links reach nobody but itself");
    }
    UseLocalMeeting(config, *port, address);
    return;
  }
  config.signal_url = place;
  config.local_signal_port = 0;
  // One address points at a whole deployment: its share links live on the same host.
  config.share_prefix = DeriveSharePrefix(place);
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

void UseLocalMeeting(DaemonConfig& config, std::uint16_t port, const std::string& address) {
  const std::string port_text = std::to_string(port);
  config.local_signal_port = port;
  config.signal_url = "ws://127.0.0.1:" + port_text + std::string(protocol::kSignalPath);
  config.share_prefix = address + ":" + port_text + "/s/";
}

}  // namespace mirell::ui
