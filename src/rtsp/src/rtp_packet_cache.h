// The RTP packets of each access unit, made once for every player of a stream. A player's
// connection sends the same payload bytes behind a header of its own (sequence number, time stamp
// and SSRC), so a unit that two hundred players take is packetized once, not two hundred times.
// Belongs to the RTSP server's I/O thread; only the counter may be read from elsewhere.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

#include "mirell/encode/encoded_frame.h"
#include "mirell/media/aac_rtp.h"
#include "mirell/media/h264_rtp.h"

namespace mirell::rtsp {

// Whole RTP packets whose sequence number, time stamp and SSRC are placeholders; payload type and
// marker are right.
using SharedPackets = std::shared_ptr<const std::vector<media::Bytes>>;

class RtpPacketCache {
 public:
  // Remembers the packets of the last `capacity` units of every stream together, and of fewer
  // when they hold more than `capacity_bytes`. A unit that has gone from it (a late player primed
  // from far back) is packetized again.
  RtpPacketCache(std::size_t capacity, std::size_t capacity_bytes, std::size_t max_packet_size);

  // Bytes of the units remembered; for tests.
  std::size_t remembered_bytes() const { return bytes_; }

  SharedPackets Video(const encode::EncodedFramePtr& frame);
  SharedPackets Audio(const encode::EncodedAudioFramePtr& unit);

  // Units packetized since construction; any thread.
  std::uint64_t packetized_units() const { return packetized_.load(std::memory_order_relaxed); }

 private:
  struct Entry {
    std::shared_ptr<const void> unit;  // Holds the unit, so that its address stays its own.
    SharedPackets packets;
    std::size_t bytes;
  };
  const Entry* Find(const void* unit) const;
  SharedPackets Remember(std::shared_ptr<const void> unit, std::vector<media::Bytes> packets);

  const std::size_t capacity_;
  const std::size_t capacity_bytes_;
  std::size_t bytes_ = 0;
  std::unordered_map<const void*, Entry> entries_;
  std::deque<const void*> order_;  // Oldest first.
  media::H264RtpPacketizer h264_;
  media::AacRtpPacketizer aac_;
  std::atomic<std::uint64_t> packetized_{0};
};

// Writes a player's own header over the first 12 bytes of `out`, from the shared packet's first
// two bytes (version, marker, payload type) and the player's sequence, time stamp and SSRC.
void WriteRtpHeader(const media::Bytes& shared, std::uint16_t sequence, std::uint32_t timestamp,
                    std::uint32_t ssrc, std::uint8_t* out);

}  // namespace mirell::rtsp
