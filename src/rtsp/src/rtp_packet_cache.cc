#include "rtp_packet_cache.h"

#include <utility>

namespace mirell::rtsp {

RtpPacketCache::RtpPacketCache(std::size_t capacity, std::size_t capacity_bytes,
                               std::size_t max_packet_size)
    : capacity_(capacity),
      capacity_bytes_(capacity_bytes),
      h264_(media::RtpPacketizerConfig{96, 1, max_packet_size, 1}),
      aac_(media::AacRtpPacketizerConfig{97, 1, max_packet_size, 1}) {}

const RtpPacketCache::Entry* RtpPacketCache::Find(const void* unit) const {
  const auto found = entries_.find(unit);
  return found == entries_.end() ? nullptr : &found->second;
}

SharedPackets RtpPacketCache::Remember(std::shared_ptr<const void> unit,
                                       std::vector<media::Bytes> packets) {
  packetized_.fetch_add(1, std::memory_order_relaxed);
  std::size_t bytes = 0;
  for (const media::Bytes& packet : packets) bytes += packet.size();
  auto shared = std::make_shared<const std::vector<media::Bytes>>(std::move(packets));
  if (capacity_ == 0 || bytes > capacity_bytes_) return shared;
  while (!order_.empty() && (order_.size() >= capacity_ || bytes_ + bytes > capacity_bytes_)) {
    const auto oldest = entries_.find(order_.front());
    bytes_ -= oldest->second.bytes;
    entries_.erase(oldest);
    order_.pop_front();
  }
  const void* key = unit.get();
  entries_.emplace(key, Entry{std::move(unit), shared, bytes});
  order_.push_back(key);
  bytes_ += bytes;
  return shared;
}

SharedPackets RtpPacketCache::Video(const encode::EncodedFramePtr& frame) {
  if (const Entry* entry = Find(frame.get())) return entry->packets;
  std::vector<media::Bytes> packets;
  h264_.Packetize(frame->data, 0, packets);
  return Remember(frame, std::move(packets));
}

SharedPackets RtpPacketCache::Audio(const encode::EncodedAudioFramePtr& unit) {
  if (const Entry* entry = Find(unit.get())) return entry->packets;
  std::vector<media::Bytes> packets;
  aac_.Packetize(unit->data, 0, packets);
  return Remember(unit, std::move(packets));
}

void WriteRtpHeader(const media::Bytes& shared, std::uint16_t sequence, std::uint32_t timestamp,
                    std::uint32_t ssrc, std::uint8_t* out) {
  out[0] = shared[0];
  out[1] = shared[1];
  out[2] = static_cast<std::uint8_t>(sequence >> 8);
  out[3] = static_cast<std::uint8_t>(sequence);
  for (int i = 0; i < 4; ++i) {
    out[4 + i] = static_cast<std::uint8_t>(timestamp >> (24 - 8 * i));
    out[8 + i] = static_cast<std::uint8_t>(ssrc >> (24 - 8 * i));
  }
}

}  // namespace mirell::rtsp
