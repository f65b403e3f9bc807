// A real H.264 and AAC stream for the peer media tests: ffmpeg-made units with the time stamps a
// share would give them, published in real time, and a compact digest of each unit so that two
// processes can compare what was sent with what came out. Test code only.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "mirell/streams/audio_bus.h"
#include "mirell/streams/frame_bus.h"

namespace mirell::session::testing {

using Bytes = std::vector<std::uint8_t>;

struct PeerMediaFixture {
  // `frames` of 320x240 video at 30 fps (a keyframe every 15) and as much AAC as it lasts.
  PeerMediaFixture(const std::filesystem::path& dir, int frames);

  std::vector<Bytes> video;
  std::vector<bool> keyframes;
  std::vector<Bytes> audio;
};

// Bus time of video frame i and audio unit j when the stream starts at `start` (100 ns). Audio
// starts four units before the video, as a share's does when sound is captured first.
std::int64_t VideoTime(std::int64_t start, std::size_t i);
std::int64_t AudioTime(std::int64_t start, std::size_t j);

// Publishes every unit in time-stamp order, paced by the clock.
void PublishInRealTime(const PeerMediaFixture& fixture, std::int64_t start,
                       streams::FrameBus& frames, streams::AudioBus* audio);

// FNV-1a of the bytes, as 16 hex digits.
std::string Digest(const Bytes& bytes);

// The digest of a video unit's NAL units, whatever the length of its start codes.
std::string VideoDigest(const Bytes& annex_b);

// The NAL units of an Annex B unit, each as bytes; start code lengths do not matter.
std::vector<Bytes> NalUnits(const Bytes& annex_b);

// ffmpeg's decoded-frame hashes of an Annex B file: one per picture, empty if it cannot decode.
std::vector<std::string> DecodedFrameHashes(const std::filesystem::path& h264);

}  // namespace mirell::session::testing
