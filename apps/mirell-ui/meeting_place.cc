#include "meeting_place.h"

#include <charconv>

#include "mirell/transport/signal_endpoint.h"

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

void UseLocalMeeting(DaemonConfig& config, std::uint16_t port, const std::string& address) {
  const std::string port_text = std::to_string(port);
  config.local_signal_port = port;
  config.signal_url = "ws://127.0.0.1:" + port_text + std::string(transport::kSignalPath);
  config.share_prefix = address + ":" + port_text + "/s/";
}

}  // namespace mirell::ui
