// What the process entry hands to DaemonHost: quality, ports, addresses, network and access.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mirell/encode/share_quality.h"
#include "mirell/resolve/resolve_endpoint.h"
#include "mirell/session/sharing.h"
#include "mirell/transport/identity_key.h"
#include "mirell/transport/peer_config.h"

namespace mirell::ui {

struct DaemonConfig {
  encode::ShareQuality quality;  // Stored, changed by "Quality".
  std::int64_t prime_ms = 500;  // History a new reader gets; nothing changes it.
  std::uint16_t rtsp_port = 8554;
  std::string pipe_name{resolve::kDefaultResolveEndpoint};  // The resolve endpoint.
  // Where shares meet their viewers (see meeting_place.h); both empty until a place is chosen:
  // a share then reaches nobody, and links of any server still play.
  std::string share_prefix;  // Host and path of this place's links, no scheme.
  std::string signal_url;
  // Not 0: this program is the meeting place, serving the signal protocol on this port of every
  // interface (signal_url is then its own loopback address, share_prefix its network address).
  std::uint16_t local_signal_port = 0;
  std::vector<transport::IceServer> ice_servers;
  std::uint32_t ice_policy = 0;
  session::Allowlist allowlist;  // As stored.
  // Given on the command line for this run: let in whoever names them (nothing is proved).
  std::vector<std::string> allow_by_claim;
  // This installation's key, proved to the hosts of the links it watches; null: none named.
  std::shared_ptr<const transport::IdentityKey> identity_key;
  bool install_stub = true;
  std::int64_t share_lifetime_minutes = 360;  // A share ends by itself after this; 0: never.
};

}  // namespace mirell::ui
