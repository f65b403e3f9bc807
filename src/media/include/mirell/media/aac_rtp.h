// AAC-LC over RTP in the AAC-hbr mode of RFC 3640: one access unit per packet or fragment
// sequence, never grouped. Also the two-byte AudioSpecificConfig and its hexadecimal form, which
// the SDP and the signalled peer configuration carry. Each object belongs to one thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mirell/media/nal.h"
#include "mirell/media/rtp.h"

namespace mirell::media {

inline constexpr std::size_t kAuHeaderSectionBytes = 4;  // AU-headers-length and one AU-header.
inline constexpr std::size_t kMaxAuSize = 8191;           // All ones in the 13-bit AU-size.
inline constexpr int kAuSizeLengthBits = 13;             // sizelength in the SDP.
inline constexpr int kAuIndexLengthBits = 3;             // indexlength and indexdeltalength.

struct AacRtpPacketizerConfig {
  std::uint8_t payload_type = 97;
  std::uint32_t ssrc = 0;               // 0: drawn at construction.
  std::size_t max_payload_size = 1200;  // The whole packet, 12-byte header included.
  std::uint16_t initial_sequence = 0;   // 0: drawn at construction.
};

class AacRtpPacketizer {
 public:
  // Throws (a failed check) when max_payload_size leaves no room for a payload (<= 16).
  explicit AacRtpPacketizer(AacRtpPacketizerConfig config);

  // Appends the packets of one raw access unit to `packets`. An empty unit yields nothing; one
  // over kMaxAuSize bytes is a failed check.
  void Packetize(ByteSpan access_unit, std::uint32_t rtp_timestamp, std::vector<Bytes>& packets);

  std::uint16_t next_sequence() const { return next_sequence_; }
  std::uint32_t ssrc() const { return config_.ssrc; }

 private:
  AacRtpPacketizerConfig config_;
  std::uint16_t next_sequence_ = 0;
};

// The AAC-LC AudioSpecificConfig: 5 bits object type 2, 4 bits frequency index, 4 bits channel
// configuration, 3 zero bits. Throws for a rate outside the 13 MPEG-4 frequencies or channels
// outside 1 and 2. 48000 Hz stereo gives 11 90.
Bytes MakeAacLcAudioSpecificConfig(std::uint32_t sample_rate, std::uint32_t channels);

// Lower-case hexadecimal, two digits per byte.
std::string HexEncode(ByteSpan bytes);
// Both cases accepted; an odd length or any other character gives an empty vector.
Bytes HexDecode(std::string_view text);

struct AacAccessUnit {
  Bytes bytes;
  std::uint32_t rtp_timestamp = 0;
};

// Rebuilds access units from the packets of one track; completion is decided by byte count.
class AacRtpDepacketizer {
 public:
  bool Push(ByteSpan packet, AacAccessUnit& unit);

  std::uint64_t abandoned_units() const { return abandoned_units_; }
  std::uint64_t lost_packets() const { return lost_packets_; }
  std::uint64_t bad_packets() const { return bad_packets_; }

 private:
  void Abandon();

  Bytes buffer_;
  std::size_t expected_size_ = 0;
  std::uint32_t unit_timestamp_ = 0;
  std::uint16_t last_sequence_ = 0;
  bool has_sequence_ = false;
  std::uint64_t abandoned_units_ = 0;
  std::uint64_t lost_packets_ = 0;
  std::uint64_t bad_packets_ = 0;
};

}  // namespace mirell::media
