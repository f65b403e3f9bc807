#include "mirell/media/aac_rtp.h"

namespace mirell::media {

void AacRtpDepacketizer::Abandon() {
  ++abandoned_units_;
  buffer_.clear();
  expected_size_ = 0;
}

bool AacRtpDepacketizer::Push(ByteSpan packet, AacAccessUnit& unit) {
  RtpPacketView view;
  if (!ParseRtpPacket(packet, view) || view.payload.size() < kAuHeaderSectionBytes + 1) {
    ++bad_packets_;
    return false;
  }
  if (has_sequence_) {
    const int delta = SequenceDelta(view.sequence_number, last_sequence_);
    if (delta < 1) {
      ++bad_packets_;
      return false;
    }
    if (delta > 1) {
      lost_packets_ += static_cast<std::uint64_t>(delta - 1);
      if (!buffer_.empty()) Abandon();
    }
  }
  last_sequence_ = view.sequence_number;
  has_sequence_ = true;

  const ByteSpan payload = view.payload;
  const unsigned headers_bits = static_cast<unsigned>(payload[0] << 8 | payload[1]);
  if (headers_bits != 16) {  // Exactly one AU-header; grouped units are not supported.
    ++bad_packets_;
    return false;
  }
  const std::size_t size = static_cast<std::size_t>(payload[2] << 8 | payload[3]) >> kAuIndexLengthBits;
  if (size == 0) {
    ++bad_packets_;
    return false;
  }
  const ByteSpan data = payload.subspan(kAuHeaderSectionBytes);

  if (buffer_.empty() && size <= data.size()) {
    unit.bytes.assign(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(size));
    unit.rtp_timestamp = view.timestamp;
    return true;
  }
  if (buffer_.empty()) {
    expected_size_ = size;
    unit_timestamp_ = view.timestamp;
  } else if (size != expected_size_ || view.timestamp != unit_timestamp_) {
    Abandon();
    expected_size_ = size;
    unit_timestamp_ = view.timestamp;
  }
  buffer_.insert(buffer_.end(), data.begin(), data.end());
  if (buffer_.size() < expected_size_) return false;

  unit.bytes.assign(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(expected_size_));
  unit.rtp_timestamp = unit_timestamp_;
  buffer_.clear();
  expected_size_ = 0;
  return true;
}

}  // namespace mirell::media
