// The records that the signal protocol's messages carry besides plain text fields.
#pragma once

#include <cstdint>
#include <string>

namespace mirell::protocol {

// What a host advertises and what a viewer is told in "joined". 0 or empty: not said.
struct StreamMedia {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t fps = 0;
  std::uint32_t video_kbps = 0;
  std::uint32_t sample_rate = 0;
  std::uint32_t channels = 0;
  std::uint32_t audio_kbps = 0;
  std::string audio_config;  // Lower-case hexadecimal AudioSpecificConfig.
};

// Who a viewer says they are; all may be empty. The key is only named here, not yet proved.
struct PeerIdentity {
  std::string identity;
  std::string display_name;
  std::string key;  // The viewer's public key (base64 of its Ed25519 public key).
  // Said by the server, not the viewer: the peer is its operator's relay, which serves the share
  // to players without Mirell.
  bool relay = false;
};

}  // namespace mirell::protocol
