// How a peer connection finds its way through the network: the ICE servers and the policy.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mirell::transport {

struct IceServer {
  std::string url;  // "stun:host:port" or "turn:host:port".
  std::string username;
  std::string credential;
};

struct PeerConfig {
  std::vector<IceServer> ice_servers;
  std::uint32_t ice_policy = 0;
};

}  // namespace mirell::transport
