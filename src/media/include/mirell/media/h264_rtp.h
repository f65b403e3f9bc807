// H.264 over RTP (RFC 6184, packetization-mode 1). The sender emits single NAL unit packets and
// FU-A fragments only; the receiver also accepts STAP-A. Each object belongs to one thread.
#pragma once

#include <cstdint>
#include <vector>

#include "mirell/media/nal.h"
#include "mirell/media/rtp.h"

namespace mirell::media {

struct RtpPacketizerConfig {
  std::uint8_t payload_type = 96;     // Only the low 7 bits are written.
  std::uint32_t ssrc = 0;             // 0: drawn at construction.
  std::size_t max_payload_size = 1200;  // The whole packet, 12-byte header included.
  std::uint16_t initial_sequence = 0; // 0: drawn at construction.
};

class H264RtpPacketizer {
 public:
  // Throws (a failed check) when max_payload_size cannot carry an FU-A fragment (<= 14).
  explicit H264RtpPacketizer(RtpPacketizerConfig config);

  // Appends the packets of one Annex B access unit to `packets` (which it does not clear). The
  // marker is set on the unit's last packet; data without a start code yields nothing.
  void Packetize(ByteSpan access_unit, std::uint32_t rtp_timestamp, std::vector<Bytes>& packets);

  std::uint16_t next_sequence() const { return next_sequence_; }
  std::uint32_t ssrc() const { return config_.ssrc; }

 private:
  void AppendHeader(Bytes& packet, std::uint32_t rtp_timestamp, bool marker);

  RtpPacketizerConfig config_;
  std::uint16_t next_sequence_ = 0;
};

struct H264AccessUnit {
  Bytes annex_b;
  std::uint32_t rtp_timestamp = 0;
  bool keyframe = false;  // Holds an IDR slice, SPS or PPS: a decoder can be fed from it.
};

// Rebuilds whole access units from the packets of one track. All or nothing: a unit that lost
// anything is dropped and counted; there is no reordering, late packets are lost.
class H264RtpDepacketizer {
 public:
  // True when `unit` received a whole access unit. At most one unit per call.
  bool Push(ByteSpan packet, H264AccessUnit& unit);

  std::uint64_t dropped_units() const { return dropped_units_; }
  std::uint64_t lost_packets() const { return lost_packets_; }
  std::uint64_t bad_packets() const { return bad_packets_; }
  // Units dropped for growing beyond kMaxAccessUnitBytes (also counted in dropped_units).
  std::uint64_t oversized_units() const { return oversized_units_; }

  // A sender that never ends a unit (no marker, the time stamp kept) must not grow a viewer's
  // memory without bound; 8 MiB is far beyond any picture the product sends.
  static constexpr std::size_t kMaxAccessUnitBytes = 8u << 20;

 private:
  void AddNal(ByteSpan nal);
  // True, and the unit dropped, when the unit would hold `bytes` with what comes, beyond the cap.
  bool Overflows(std::size_t bytes);
  bool Flush(H264AccessUnit& unit);

  Bytes unit_;
  Bytes fragment_;
  bool in_fragment_ = false;
  std::uint32_t unit_timestamp_ = 0;
  bool has_timestamp_ = false;
  bool unit_has_key_ = false;
  bool unit_corrupt_ = false;
  std::uint16_t last_sequence_ = 0;
  bool has_sequence_ = false;
  std::uint64_t dropped_units_ = 0;
  std::uint64_t lost_packets_ = 0;
  std::uint64_t bad_packets_ = 0;
  std::uint64_t oversized_units_ = 0;
  bool oversized_ = false;  // The present unit went beyond the cap: the rest of it is ignored.
};

}  // namespace mirell::media
