// What the media path carries from an encoder or a receiver to every reader. On the way out of
// an encoder a record is moved, never copied; after that it travels as a shared pointer to a
// constant record, and readers share it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace mirell::encode {

// One H.264 access unit.
struct EncodedFrame {
  std::vector<std::uint8_t> data;  // Annex B
  std::int64_t pts_100ns = 0;
  std::int64_t duration_100ns = 0;
  // A clean point; its parameter sets stand in front of it as soon as they are known.
  bool keyframe = false;
};

// One AAC access unit: raw, no ADTS header, no LATM framing.
struct EncodedAudioFrame {
  std::vector<std::uint8_t> data;
  std::int64_t pts_100ns = 0;
  std::int64_t duration_100ns = 0;
};

using EncodedFramePtr = std::shared_ptr<const EncodedFrame>;
using EncodedAudioFramePtr = std::shared_ptr<const EncodedAudioFrame>;

}  // namespace mirell::encode
