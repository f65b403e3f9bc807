// The sound of a share: buffers of an audio capturer put on the video's time line, folded to
// mono when asked, encoded to AAC and published on the stream's audio bus. It has no thread of
// its own: everything runs in the capturer's callback, on the capturer's thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "mirell/capture/audio_capturer.h"
#include "mirell/encode/aac_encoder.h"
#include "mirell/streams/audio_bus.h"

namespace mirell::session {

class AudioSource {
 public:
  struct Counters {
    std::uint64_t buffers = 0;        // Buffers that arrived while running, with frames.
    std::uint64_t units_out = 0;      // AAC units published.
    std::uint64_t dropped_early = 0;  // Buffers from before the picture's time zero.
  };

  // Throws Error for a missing capturer or encoder, or when their rates or channels differ.
  AudioSource(std::unique_ptr<capture::IAudioCapturer> capturer, std::unique_ptr<encode::AacEncoder> encoder,
              streams::AudioBus& bus);
  // Stops.
  ~AudioSource();
  AudioSource(const AudioSource&) = delete;
  AudioSource& operator=(const AudioSource&) = delete;

  // Settings made before Start. The epoch is the steady-clock instant (100 ns) of the picture's
  // time zero, written by the capture source; while it reads 0 the sound waits (it must not run
  // ahead of the picture). Without one the first buffer is time zero. Must outlive the source.
  void SetEpoch(std::atomic<std::int64_t>* epoch);
  // Every channel carries the average of all of them; the channel count stays.
  void SetMono(bool mono);

  // Starts the capturer. Once only; a second call does nothing.
  void Start();
  // Stops the capturer (after which no buffer arrives), drains the encoder onto the bus and
  // logs the counters. Idempotent; never from the capturer's callback.
  void Stop();

  Counters counters() const;

 private:
  void OnAudio(const capture::AudioBuffer& buffer);
  void Publish();  // Under mutex_.

  std::unique_ptr<capture::IAudioCapturer> capturer_;
  std::unique_ptr<encode::AacEncoder> encoder_;
  streams::AudioBus& bus_;
  std::atomic<std::int64_t>* epoch_ = nullptr;
  std::mutex mutex_;  // Guards encoder_ and units_: the capturer's thread and Stop meet here.
  std::vector<encode::EncodedAudioFrame> units_;
  bool mono_ = false;
  std::vector<float> mix_;  // The capturer's thread only, like the two below.
  std::int64_t base_time_ = 0;
  bool has_base_ = false;
  std::atomic<bool> running_{false};
  std::atomic<std::uint64_t> buffers_{0};
  std::atomic<std::uint64_t> units_out_{0};
  std::atomic<std::uint64_t> dropped_early_{0};
};

}  // namespace mirell::session
