// A live stream for tests and benchmarks: H.264 (testsrc2) and AAC (1 kHz sine) made by the
// ffmpeg command line, published into a MediaStream in real time by their time stamps, looping.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mirell/streams/media_stream.h"

namespace mirell::rtsp::testing {

struct FixtureOptions {
  int width = 640;
  int height = 360;
  int frames = 150;  // 5 s at 30 fps before the loop starts over; keyframe every 15.
  int video_kbps = 0;  // 0: x264's default quality.
  bool audio = true;
  std::uint64_t prime_ms = 500;
  // lavfi sources instead of the test pattern and the sine (see MakeH264Fixture, MakeAacFixture).
  std::string video_source;
  std::string audio_source;
  // Time stamps of the sound units go back by the encoder's priming, so that what decodes from a
  // unit is stamped with the time it was made at, as a share's encoder does.
  bool sound_on_time = false;
};

class FixturePublisher {
 public:
  // Makes the fixture in `dir` and describes `stream` (sequence header, audio, priming).
  FixturePublisher(const std::filesystem::path& dir, std::shared_ptr<streams::MediaStream> stream,
                   FixtureOptions options = {});
  ~FixturePublisher();
  FixturePublisher(const FixturePublisher&) = delete;
  FixturePublisher& operator=(const FixturePublisher&) = delete;

  // Starts publishing on its own thread, paced by time stamps from now.
  void Start();
  void Stop();
  // As an encoder asked for a keyframe: the next picture published is the fixture's next keyframe
  // (the picture skips ahead; the time stamps go on evenly).
  void RequestKeyframe() { keyframe_requested_ = true; }
  std::uint64_t video_published() const { return video_published_.load(); }

 private:
  void Run();

  std::shared_ptr<streams::MediaStream> stream_;
  FixtureOptions options_;
  std::vector<std::vector<std::uint8_t>> video_units_;
  std::vector<bool> keyframes_;
  std::vector<std::vector<std::uint8_t>> audio_units_;
  std::atomic<bool> running_{false};
  std::atomic<bool> keyframe_requested_{false};
  std::atomic<std::uint64_t> video_published_{0};
  std::thread thread_;
};

}  // namespace mirell::rtsp::testing
