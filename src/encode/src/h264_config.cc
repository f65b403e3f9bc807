// The encoder's configuration worked out, apart from any encoder library.
#include "mirell/encode/h264_encoder.h"

namespace mirell::encode {

std::uint32_t GopFrames(const H264EncoderConfig& config) {
  const std::uint32_t frames = config.gop_seconds * config.fps_numerator / config.fps_denominator;
  return frames == 0 ? 1 : frames;
}

H264EncoderConfig LiveStreamConfig(std::uint32_t width, std::uint32_t height, std::uint32_t fps,
                                   std::uint32_t kbps, H264Profile profile) {
  H264EncoderConfig config;
  config.width = width;
  config.height = height;
  config.fps_numerator = fps;
  config.fps_denominator = 1;
  config.bitrate_bps = kbps * 1000;
  config.gop_seconds = kLiveStreamGopSeconds;
  config.profile = profile;
  config.prefer_hardware = true;
  return config;
}

}  // namespace mirell::encode
