#include <random>

#include "mirell/media/rtp.h"

namespace mirell::media {
namespace {

std::uint16_t ReadU16(ByteSpan data, std::size_t at) {
  return static_cast<std::uint16_t>(data[at] << 8 | data[at + 1]);
}

std::uint32_t ReadU32(ByteSpan data, std::size_t at) {
  return static_cast<std::uint32_t>(data[at]) << 24 | static_cast<std::uint32_t>(data[at + 1]) << 16 |
         static_cast<std::uint32_t>(data[at + 2]) << 8 | data[at + 3];
}

void AppendU32(Bytes& out, std::uint32_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 24));
  out.push_back(static_cast<std::uint8_t>(value >> 16));
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}

}  // namespace

bool ParseRtpPacket(ByteSpan packet, RtpPacketView& view) {
  if (packet.size() < kRtpHeaderSize) return false;
  const std::size_t csrc_bytes = static_cast<std::size_t>(packet[0] & 0x0F) * 4;
  if ((packet[0] & 0xC0) != 0x80 || packet.size() < kRtpHeaderSize + csrc_bytes) return false;
  std::size_t header = kRtpHeaderSize + csrc_bytes;
  if (packet[0] & 0x10) {
    if (packet.size() < 16 + csrc_bytes) return false;
    header += 4 + 4 * static_cast<std::size_t>(ReadU16(packet, 14 + csrc_bytes));
    if (packet.size() < header) return false;
  }
  std::size_t end = packet.size();
  if (packet[0] & 0x20) {
    const std::uint8_t padding = packet.back();
    if (padding == 0 || packet.size() < header + padding) return false;
    end -= padding;
  }
  view.marker = (packet[1] & 0x80) != 0;
  view.payload_type = packet[1] & 0x7F;
  view.sequence_number = ReadU16(packet, 2);
  view.timestamp = ReadU32(packet, 4);
  view.ssrc = ReadU32(packet, 8);
  view.payload = packet.subspan(header, end - header);
  return true;
}

std::uint32_t RandomRtpValue() {
  std::random_device device;
  const std::uint32_t first = device();
  const std::uint32_t second = device();
  return (second << 16) ^ first;
}

void AppendRtpHeader(Bytes& packet, std::uint8_t payload_type, bool marker, std::uint16_t sequence,
                     std::uint32_t timestamp, std::uint32_t ssrc) {
  packet.push_back(0x80);
  packet.push_back(static_cast<std::uint8_t>((payload_type & 0x7F) | (marker ? 0x80 : 0)));
  packet.push_back(static_cast<std::uint8_t>(sequence >> 8));
  packet.push_back(static_cast<std::uint8_t>(sequence));
  AppendU32(packet, timestamp);
  AppendU32(packet, ssrc);
}

RtpStreamIdentity DrawRtpIdentity(std::uint32_t ssrc, std::uint16_t initial_sequence) {
  // A drawn SSRC of 0 stands: drawing again would only move the problem.
  const std::uint32_t chosen_ssrc = ssrc != 0 ? ssrc : RandomRtpValue();
  const std::uint16_t sequence =
      initial_sequence != 0 ? initial_sequence : static_cast<std::uint16_t>(RandomRtpValue());
  return {chosen_ssrc, sequence};
}

}  // namespace mirell::media
