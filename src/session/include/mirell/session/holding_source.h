// The holding card as media: HoldingClip encodes a few seconds of the card once, in the
// background, into a looping H.264 clip and one AAC unit of silence; HoldingSource plays that
// clip into a stream's buses in real time, as if it were live, until the real media takes over
// on the same timeline.
#pragma once

#include <atomic>
#include <functional>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mirell/encode/encoded_frame.h"
#include "mirell/streams/audio_bus.h"
#include "mirell/streams/frame_bus.h"

namespace mirell::session {

struct HoldingClipConfig {
  std::uint32_t width = 1280;
  std::uint32_t height = 720;
  std::uint32_t fps = 30;
  std::uint32_t bitrate_kbps = 1000;
  std::string title = "Waiting to be let in";
  std::uint32_t sample_rate = 48000;
  std::uint32_t channels = 2;
  std::uint32_t audio_bitrate_kbps = 128;
  std::uint32_t seconds = 4;
};

class HoldingClip {
 public:
  // Starts building on a thread of its own and returns at once. `on_ready`, if given, runs on that
  // thread once the build has ended (for better or worse), unless the clip is being destroyed.
  explicit HoldingClip(HoldingClipConfig config, std::function<void()> on_ready = {});
  ~HoldingClip();
  HoldingClip(const HoldingClip&) = delete;
  HoldingClip& operator=(const HoldingClip&) = delete;

  // True once the build has ended, for better or worse; false when `ms` passed first. A card that
  // cannot be drawn or encoded leaves the clip empty (logged), never the process.
  bool WaitReady(int ms) const;
  std::vector<std::uint8_t> SequenceHeader() const;
  std::vector<encode::EncodedFrame> Frames() const;
  std::vector<std::uint8_t> Silence() const;
  const HoldingClipConfig& config() const { return config_; }

 private:
  void Build();
  void BuildClip();
  void BuildAudio();
  void MarkReady();

  const HoldingClipConfig config_;
  const std::function<void()> on_ready_;
  mutable std::mutex mutex_;
  std::vector<std::uint8_t> sequence_header_;
  std::vector<encode::EncodedFrame> frames_;
  std::vector<std::uint8_t> silence_;
  std::atomic<bool> ready_{false};
  std::atomic<bool> abandoned_{false};  // Set by the destructor: the build stops early.
  mutable std::condition_variable ready_changed_;
  std::thread builder_;
};

class HoldingSource {
 public:
  // Pictures published at once when the card starts; the rest follow in real time.
  static constexpr std::uint64_t kHeadStartFrames = 9;

  // Copies the clip as it is now.
  HoldingSource(streams::FrameBus& frames, streams::AudioBus& audio, const HoldingClip& clip);
  ~HoldingSource();
  HoldingSource(const HoldingSource&) = delete;
  HoldingSource& operator=(const HoldingSource&) = delete;

  // Starts playing; nothing when the clip has no frames or it already plays.
  void Start();
  // True from a Start that played until Stop.
  bool playing() const { return running_.load(); }
  // Stops and joins, unless called on the source's own thread.
  void Stop();

  // For the take-over: the last time stamp published, the frames played, one frame's duration.
  std::int64_t last_timestamp() const { return last_timestamp_.load(); }
  std::uint64_t frames_played() const { return frames_played_.load(); }
  std::int64_t frame_duration() const { return frame_duration_; }

 private:
  void Run();
  void Play();

  streams::FrameBus& frames_bus_;
  streams::AudioBus& audio_bus_;
  std::vector<encode::EncodedFrame> clip_;
  std::vector<std::uint8_t> silence_;
  std::int64_t frame_duration_;
  std::int64_t audio_duration_;
  std::atomic<bool> running_{false};
  std::atomic<std::int64_t> last_timestamp_{0};
  std::atomic<std::uint64_t> frames_played_{0};
  std::thread thread_;
};

}  // namespace mirell::session
