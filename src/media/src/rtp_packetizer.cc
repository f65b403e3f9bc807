#include "mirell/base/error.h"
#include "mirell/media/h264_rtp.h"

namespace mirell::media {
namespace {

constexpr std::uint8_t kFuA = 28;
constexpr std::size_t kFuAOverhead = 2;  // FU indicator and FU header.

}  // namespace

H264RtpPacketizer::H264RtpPacketizer(RtpPacketizerConfig config) : config_(config) {
  MIRELL_CHECK(config_.max_payload_size > kRtpHeaderSize + 2,
               "max_payload_size {} is too small to carry an FU-A fragment",
               config_.max_payload_size);
  const RtpStreamIdentity identity = DrawRtpIdentity(config_.ssrc, config_.initial_sequence);
  config_.ssrc = identity.ssrc;
  next_sequence_ = identity.first_sequence;
}

void H264RtpPacketizer::AppendHeader(Bytes& packet, std::uint32_t rtp_timestamp, bool marker) {
  AppendRtpHeader(packet, config_.payload_type, marker, next_sequence_++, rtp_timestamp, config_.ssrc);
}

void H264RtpPacketizer::Packetize(ByteSpan access_unit, std::uint32_t rtp_timestamp,
                                  std::vector<Bytes>& packets) {
  const std::vector<ByteSpan> nals = SplitAnnexB(access_unit);
  const std::size_t room = config_.max_payload_size - kRtpHeaderSize;
  for (std::size_t n = 0; n < nals.size(); ++n) {
    const ByteSpan nal = nals[n];
    const bool last = n + 1 == nals.size();
    if (nal.empty()) continue;
    if (nal.size() <= room) {
      Bytes packet;
      packet.reserve(kRtpHeaderSize + nal.size());
      AppendHeader(packet, rtp_timestamp, last);
      packet.insert(packet.end(), nal.begin(), nal.end());
      packets.push_back(std::move(packet));
      continue;
    }
    // FU-A: the NAL header travels in the indicator and FU header, not as payload.
    const std::uint8_t header = nal[0];
    const std::size_t chunk_limit = room - kFuAOverhead;
    for (std::size_t offset = 1; offset < nal.size();) {
      const std::size_t chunk = std::min(nal.size() - offset, chunk_limit);
      const bool first = offset == 1;
      const bool end = offset + chunk == nal.size();
      Bytes packet;
      packet.reserve(kRtpHeaderSize + kFuAOverhead + chunk);
      AppendHeader(packet, rtp_timestamp, last && end);
      packet.push_back(static_cast<std::uint8_t>((header & 0xE0) | kFuA));
      packet.push_back(static_cast<std::uint8_t>((header & 0x1F) | (first ? 0x80 : 0) | (end ? 0x40 : 0)));
      packet.insert(packet.end(), nal.begin() + static_cast<std::ptrdiff_t>(offset),
                    nal.begin() + static_cast<std::ptrdiff_t>(offset + chunk));
      packets.push_back(std::move(packet));
      offset += chunk;
    }
  }
}

}  // namespace mirell::media
