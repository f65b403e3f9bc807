// Which STUN and TURN servers a connection uses. The user chooses who learns of their
// connections; no relay is provided. Stored with QSettings under "network/...", except the relay
// password, which only the desktop's secret store holds: the settings keep a reference to it.
#pragma once

#include <QByteArray>
#include <string>
#include <vector>

#include "mirell/transport/peer_config.h"

namespace mirell::settings {

struct NetworkSettings {
  // Where shares meet their viewers: "" until chosen, "local" or "local:PORT" for this computer,
  // else a signal server's ws:// or wss:// URL. Checked by the program that uses it.
  std::string meeting;
  std::string stun = "cloudflare";  // An id of the STUN choices, or "custom".
  std::string custom_stun;
  std::string turn_url;
  std::string turn_user;
  std::string turn_credential;  // The plain password, UTF-8; never written to the settings.
};

// An unknown STUN choice is logged at warn and read as the default.
NetworkSettings LoadNetworkSettings();
// Stored as typed: nothing is validated (a bad URL fails later, in the peer link).
void SaveNetworkSettings(const NetworkSettings& settings);
// STUN first (the chosen one, or the custom address when there is one), then the relay when its
// URL is set: 0, 1 or 2 servers.
std::vector<transport::IceServer> BuildIceServers(const NetworkSettings& settings);

// The password into the secret store, and back. What the settings keep is only a reference that
// this user account's store can resolve. Empty in, empty out. Any failure (no store, a locked or
// refusing one, another account's reference) gives empty, without a message to the user.
QByteArray ProtectCredential(const std::string& plain);
std::string UnprotectCredential(const QByteArray& stored);

}  // namespace mirell::settings
