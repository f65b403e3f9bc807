// H.264 encoding of NV12 pictures into Annex B access units with the stream's character: constant
// bit rate, low latency (one picture in, one unit out), no B-frames, a fixed keyframe distance,
// parameter sets in front of every keyframe. The platform's encoders stand behind H264Encoder;
// CreateH264Encoder picks one.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "mirell/encode/encoded_frame.h"
#include "mirell/encode/nv12_frame.h"

namespace mirell::encode {

enum class H264Profile : std::uint32_t {
  kBaseline = 0,
  kMain = 1,  // Also any value that is not one of the three.
  kHigh = 2,
};

struct H264EncoderConfig {
  std::uint32_t width = 0;   // Even.
  std::uint32_t height = 0;  // Even.
  std::uint32_t fps_numerator = 30;
  std::uint32_t fps_denominator = 1;
  std::uint32_t bitrate_bps = 6'000'000;
  std::uint32_t gop_seconds = 2;  // Keyframe distance; at least one frame.
  H264Profile profile = H264Profile::kMain;
  bool prefer_hardware = false;   // Try hardware encoders first.
};

class H264Encoder {
 public:
  virtual ~H264Encoder() = default;
  // One tightly packed NV12 picture of width x height x 3 / 2 bytes from system memory; it is
  // copied. Appends the units that became ready to `out` (normally exactly one).
  virtual void Encode(std::span<const std::uint8_t> nv12, std::int64_t pts_100ns,
                      std::vector<EncodedFrame>& out) = 0;
  // The platform picture, taken without a copy; only when gpu_input() is true.
  virtual void EncodeTexture(const Nv12Frame& texture, std::int64_t pts_100ns,
                             std::vector<EncodedFrame>& out) = 0;
  virtual bool gpu_input() const = 0;
  // Ends the stream and appends what the encoder still holds. The encoder is not used after.
  virtual void Drain(std::vector<EncodedFrame>& out) = 0;
  // The next submitted picture becomes an IDR keyframe. Safe from another thread.
  virtual void RequestKeyframe() = 0;
  // SPS and PPS in Annex B as seen so far; may be empty before the first keyframe.
  virtual std::span<const std::uint8_t> sequence_header() const = 0;
  virtual bool is_hardware() const = 0;
  virtual const std::string& name() const = 0;
};

// The keyframe distance in frames: gop_seconds x fps, at least 1.
std::uint32_t GopFrames(const H264EncoderConfig& config);

// A live stream's keyframe distance: a player that joins waits at most this long for a picture
// (a viewer's own request for one is answered sooner).
inline constexpr std::uint32_t kLiveStreamGopSeconds = 2;
// What a live stream (a share, the holding card) is encoded with: whole frames per second, the
// live keyframe distance, hardware encoders tried first.
H264EncoderConfig LiveStreamConfig(std::uint32_t width, std::uint32_t height, std::uint32_t fps,
                                   std::uint32_t kbps, H264Profile profile);

// Throws Error for odd sizes or a frame rate that is not positive, and when no encoder opens.
std::unique_ptr<H264Encoder> CreateH264Encoder(const H264EncoderConfig& config);

}  // namespace mirell::encode
