#include "aac_block_clock.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

#include "mirell/base/logging.h"
#include "mirell/base/media_time.h"
#include "mirell/encode/aac_encoder.h"

namespace mirell::encode {
namespace {

constexpr std::array<std::uint32_t, 4> kOfferedBytesPerSecond = {12000, 16000, 20000, 24000};
constexpr std::int64_t kResyncTicks = 1'000'000;  // 100 ms

}  // namespace

std::uint32_t SnapAacBytesPerSecond(std::uint32_t bitrate_bps) {
  const std::uint32_t asked = bitrate_bps / 8;
  std::uint32_t best = kOfferedBytesPerSecond[0];
  for (const auto offered : kOfferedBytesPerSecond) {
    const auto distance = [asked](std::uint32_t value) {
      return value > asked ? value - asked : asked - value;
    };
    if (distance(offered) < distance(best)) best = offered;
  }
  if (best * 8 != bitrate_bps) {
    LOG_INFO("{} kbps is not offered by the AAC encoder; using {}", bitrate_bps / 1000,
             best * 8 / 1000);
  }
  return best;
}

std::int16_t FloatToPcm16(float sample) {
  const float clamped = std::clamp(sample, -1.0f, 1.0f);
  return static_cast<std::int16_t>(std::lrintf(clamped * 32767.0f));
}

AacBlockClock::AacBlockClock(std::uint32_t sample_rate, std::uint32_t channels)
    : sample_rate_(sample_rate), channels_(channels) {}

std::int64_t AacBlockClock::SamplesTo100ns(std::int64_t samples) const {
  return samples * kTicksPerSecond / sample_rate_;
}

std::int64_t AacBlockClock::ExpectedNextPts() const {
  return SamplesTo100ns(samples_submitted_) + base_pts_;
}

void AacBlockClock::Add(std::span<const float> interleaved, std::int64_t pts_100ns,
                        const Submit& submit) {
  if (interleaved.empty()) return;
  if (!started_) {
    base_pts_ = pts_100ns;
    samples_submitted_ = 0;
    started_ = true;
  } else {
    const std::int64_t drift = pts_100ns - base_pts_ - SamplesTo100ns(samples_submitted_);
    if (drift > kResyncTicks || drift < -kResyncTicks) {
      LOG_WARN("{} ms timestamp discontinuity, resynchronising", drift / 10000);
      pending_.clear();
      base_pts_ = pts_100ns;
      samples_submitted_ = 0;
    }
  }
  pending_.reserve(pending_.size() + interleaved.size());
  for (const float sample : interleaved) pending_.push_back(FloatToPcm16(sample));

  const std::size_t block = static_cast<std::size_t>(channels_) * kAacFrameSamples;
  std::size_t at = 0;
  for (; pending_.size() - at >= block; at += block) {
    SubmitBlock(std::span(pending_).subspan(at, block), submit);
  }
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(at));
}

void AacBlockClock::Flush(const Submit& submit) {
  if (pending_.empty()) return;
  pending_.resize(static_cast<std::size_t>(channels_) * kAacFrameSamples, 0);
  SubmitBlock(pending_, submit);
  pending_.clear();
}

void AacBlockClock::SubmitBlock(std::span<const std::int16_t> block, const Submit& submit) {
  submit(block, ExpectedNextPts());
  samples_submitted_ += kAacFrameSamples;
}

}  // namespace mirell::encode
