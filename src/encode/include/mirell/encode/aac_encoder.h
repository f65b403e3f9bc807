// AAC-LC encoding of interleaved float PCM into raw access units. The encoder keeps its own clock:
// it cuts the sound into blocks of 1024 samples per channel, times them from the sample count,
// and resynchronises when the caller's times run more than 100 ms away from it.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "mirell/encode/encoded_frame.h"

namespace mirell::encode {

inline constexpr std::uint32_t kAacFrameSamples = 1024;

struct AacEncoderConfig {
  std::uint32_t sample_rate = 48000;  // 44100 or 48000.
  std::uint32_t channels = 2;         // 1 or 2.
  std::uint32_t bitrate_bps = 128000; // Snapped to 96, 128, 160 or 192 kbps.
};

class AacEncoder {
 public:
  virtual ~AacEncoder() = default;
  // Interleaved samples, a whole number of frames; appends finished units to `out`.
  virtual void Encode(std::span<const float> interleaved, std::int64_t pts_100ns,
                      std::vector<EncodedAudioFrame>& out) = 0;
  // Pads what is pending with silence to a block, submits it and collects everything left.
  virtual void Drain(std::vector<EncodedAudioFrame>& out) = 0;
  // The AudioSpecificConfig; may be empty.
  virtual std::span<const std::uint8_t> audio_specific_config() const = 0;
  virtual std::uint32_t sample_rate() const = 0;
  virtual std::uint32_t channels() const = 0;
  // The rate in use, which may differ from the one asked for.
  virtual std::uint32_t bitrate_bps() const = 0;
  virtual const std::string& name() const = 0;
};

// Throws Error for a rate or channel count outside what we share, and when no encoder opens.
std::unique_ptr<AacEncoder> CreateAacEncoder(const AacEncoderConfig& config);

}  // namespace mirell::encode
