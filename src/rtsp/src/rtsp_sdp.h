// The session description a player gets from DESCRIBE: H.264 on payload type 96 and, when the
// stream has sound, AAC on 97.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "mirell/streams/media_stream.h"

namespace mirell::rtsp {

inline constexpr std::string_view kLoopback = "127.0.0.1";

// Standard base64 with "=" padding.
std::string Base64Encode(std::span<const std::uint8_t> bytes);

// The SDP text. The profile and parameter sets come from the SPS and PPS in `sequence_header`
// (the last of each); without an SPS the profile is "42E01E".
std::string BuildSdp(std::span<const std::uint8_t> sequence_header, std::uint32_t bitrate_kbps,
                     const std::optional<streams::AudioConfig>& audio);

}  // namespace mirell::rtsp
