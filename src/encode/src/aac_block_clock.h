// The platform-free half of the AAC encoder: bit-rate snapping, float to 16-bit conversion, and
// the block clock that cuts interleaved samples into 1024-sample blocks with their times.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace mirell::encode {

// The offered rate, in bytes per second, nearest to bitrate_bps / 8 (the lower of two equally
// near); logs at info when it differs from what was asked.
std::uint32_t SnapAacBytesPerSecond(std::uint32_t bitrate_bps);

// Clamped to [-1, 1], times 32767, rounded to nearest with ties to even: symmetric, never -32768.
std::int16_t FloatToPcm16(float sample);

class AacBlockClock {
 public:
  using Submit = std::function<void(std::span<const std::int16_t> block, std::int64_t pts_100ns)>;

  AacBlockClock(std::uint32_t sample_rate, std::uint32_t channels);

  // Converts and buffers `interleaved` (a whole number of frames, checked by the caller) and
  // submits every whole block. The first call sets the clock; a later call whose time is more
  // than 100 ms from the clock's drops what is pending and restarts the clock there.
  void Add(std::span<const float> interleaved, std::int64_t pts_100ns, const Submit& submit);
  // Pads what is pending with zeros to one block and submits it; nothing when nothing is pending.
  void Flush(const Submit& submit);

  std::size_t pending_frames() const { return pending_.size() / channels_; }
  // The time of the next block: base + submitted samples in 100 ns.
  std::int64_t ExpectedNextPts() const;

 private:
  std::int64_t SamplesTo100ns(std::int64_t samples) const;
  void SubmitBlock(std::span<const std::int16_t> block, const Submit& submit);

  std::uint32_t sample_rate_;
  std::uint32_t channels_;
  std::vector<std::int16_t> pending_;
  std::int64_t base_pts_ = 0;
  std::int64_t samples_submitted_ = 0;
  bool started_ = false;
};

}  // namespace mirell::encode
