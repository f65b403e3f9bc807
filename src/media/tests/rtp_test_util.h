// Hand-made RTP packets for the payload tests.
#pragma once

#include "mirell/media/nal.h"
#include "mirell/media/rtp.h"

namespace mirell::media::testing {

inline Bytes Packet(std::uint16_t sequence, std::uint32_t timestamp, bool marker, const Bytes& payload,
                    std::uint8_t payload_type = 96) {
  Bytes packet;
  AppendRtpHeader(packet, payload_type, marker, sequence, timestamp, 0x11223344);
  packet.insert(packet.end(), payload.begin(), payload.end());
  return packet;
}

inline Bytes Filled(std::size_t size, std::uint8_t first, std::uint8_t fill = 0xAB) {
  Bytes bytes(size, fill);
  if (size > 0) bytes[0] = first;
  return bytes;
}

}  // namespace mirell::media::testing
