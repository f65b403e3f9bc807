// Small records for the bus tests.
#pragma once

#include <memory>

#include "mirell/encode/encoded_frame.h"

namespace mirell::streams::testing {

inline encode::EncodedFramePtr Frame(std::int64_t pts, bool keyframe) {
  auto frame = std::make_shared<encode::EncodedFrame>();
  frame->pts_100ns = pts;
  frame->keyframe = keyframe;
  frame->data = {0, 0, 0, 1, static_cast<std::uint8_t>(keyframe ? 0x65 : 0x41)};
  return frame;
}

inline encode::EncodedAudioFramePtr Unit(std::int64_t pts) {
  auto unit = std::make_shared<encode::EncodedAudioFrame>();
  unit->pts_100ns = pts;
  unit->data = {0x21, 0x10};
  return unit;
}

}  // namespace mirell::streams::testing
