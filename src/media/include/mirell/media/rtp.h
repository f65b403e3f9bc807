// The RTP layer shared by the H.264 and AAC payload formats: parsing a received packet, writing
// the fixed header, sequence arithmetic and the random source for SSRCs and sequence numbers.
#pragma once

#include <cstdint>

#include "mirell/media/nal.h"

namespace mirell::media {

inline constexpr std::size_t kRtpHeaderSize = 12;

// One received packet; `payload` points into the caller's buffer, with header, CSRC list,
// extension and padding removed.
struct RtpPacketView {
  std::uint8_t payload_type = 0;
  bool marker = false;
  std::uint16_t sequence_number = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t ssrc = 0;
  ByteSpan payload;
};

// False, with nothing written, for anything that is not an RTP version 2 packet of
// consistent lengths. A packet without payload parses.
bool ParseRtpPacket(ByteSpan packet, RtpPacketView& view);

// A non-deterministic 32-bit value from the system's random device; no pseudo-random generator.
std::uint32_t RandomRtpValue();

// Appends the 12-byte fixed header: version 2, no padding, extension or CSRC.
void AppendRtpHeader(Bytes& packet, std::uint8_t payload_type, bool marker, std::uint16_t sequence,
                     std::uint32_t timestamp, std::uint32_t ssrc);

// `now` - `last` as a signed 16-bit value, so that 0 follows 65535 with a delta of 1.
constexpr int SequenceDelta(std::uint16_t now, std::uint16_t last) {
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(now - last));
}

// The SSRC and first sequence number of a packetizer: the configured ones, or drawn when 0.
struct RtpStreamIdentity {
  std::uint32_t ssrc;
  std::uint16_t first_sequence;
};
RtpStreamIdentity DrawRtpIdentity(std::uint32_t ssrc, std::uint16_t initial_sequence);

}  // namespace mirell::media
