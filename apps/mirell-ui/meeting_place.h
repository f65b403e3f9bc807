// Where this program's shares meet their viewers: a signal server elsewhere, given by its URL, or
// this computer ("local"), which then serves the signal protocol itself, plain ws:// and http://,
// for friends on the same network or through a forwarded port.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "daemon_config.h"

namespace mirell::ui {

inline constexpr std::uint16_t kLocalMeetingPort = 8443;

// "local" gives kLocalMeetingPort, "local:PORT" that port (1-65535); nullopt for anything else.
std::optional<std::uint16_t> LocalMeetingPort(std::string_view place);

// Empty when `place` is usable: a ws:// or wss:// URL with a host, "local" or "local:PORT".
// Otherwise one sentence that names it.
std::string MeetingPlaceError(const std::string& place);

// Points `config` at a usable `place`: its signal URL, and its share links on the same host (a
// ws:// server's are http://, see Sharing::link), or this computer (UseLocalMeeting).
void ApplyMeetingPlace(DaemonConfig& config, const std::string& place);

// The share links of the deployment a signal server belongs to: "ws[s]://host[:port]/..." gives
// "host[:port]/s/". Empty for a URL of another form.
std::string DeriveSharePrefix(const std::string& signal_url);

// This computer as the meeting place: the signal protocol served on `port` of every interface,
// this program's own clients meeting on loopback, and share links naming `address`.
void UseLocalMeeting(DaemonConfig& config, std::uint16_t port, const std::string& address);

}  // namespace mirell::ui
