// A published stream: the meeting point of producers (a share's encoders, a viewer's incoming
// peer media, the holding card) and consumers (the RTSP server, peer senders). Always held by
// shared pointer; it lives until its last reader has gone.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "mirell/streams/audio_bus.h"
#include "mirell/streams/frame_bus.h"

namespace mirell::streams {

struct AudioConfig {
  std::uint32_t sample_rate = 0;
  std::uint32_t channels = 0;
  std::uint32_t bitrate_kbps = 0;
  // May be empty; the SDP then derives it from rate and channels.
  std::vector<std::uint8_t> audio_specific_config;

  friend bool operator==(const AudioConfig&, const AudioConfig&) = default;
};

// Any thread may call any operation. The buses have locks of their own; the description is
// guarded by the stream's mutex, which is never held across a callback.
class MediaStream {
 public:
  // `fps` 0 stands for 30. Both buses start without history; the stream starts described.
  MediaStream(std::string label, int fps, unsigned bitrate_kbps);
  MediaStream(const MediaStream&) = delete;
  MediaStream& operator=(const MediaStream&) = delete;

  // Each non-zero argument replaces the stored value.
  void SetVideoParameters(int fps, unsigned bitrate_kbps);

  void SetSequenceHeader(std::span<const std::uint8_t> annex_b);
  std::vector<std::uint8_t> SequenceHeader() const;
  // Waits up to `ms` from the call for a sequence header (the card's, or the host's); returns
  // whether there is one.
  bool WaitSequenceHeader(int ms);

  void SetAudio(AudioConfig config);
  std::optional<AudioConfig> Audio() const;

  // Stores the wish; a non-zero `frames` also sizes the video history to frames + 3 s of frames,
  // so that a keyframe far enough back can still be found.
  void SetPriming(std::uint64_t frames, std::uint64_t ms);

  void SetKeyframeRequester(std::function<void()> requester);
  // Calls the requester, if any, with no lock held: it takes locks of the source.
  void RequestKeyframe();

  // The description will come later from a remote host: DESCRIBE waits for MarkDescribed.
  void ExpectDescription();
  void MarkDescribed();
  bool IsDescribed() const;
  // Waits up to `ms` from the call for the description; returns whether it is there.
  bool WaitDescribed(int ms);

  FrameBus& frames() { return frames_; }
  AudioBus& audio() { return audio_; }
  std::uint32_t fps() const { return fps_.load(); }
  std::uint32_t bitrate_kbps() const { return bitrate_kbps_.load(); }
  std::uint64_t prime_frames() const;
  std::uint64_t prime_ms() const;
  const std::string& label() const { return label_; }

 private:
  const std::string label_;
  std::atomic<std::uint32_t> fps_;
  std::atomic<std::uint32_t> bitrate_kbps_;
  FrameBus frames_;
  AudioBus audio_;

  mutable std::mutex mutex_;
  std::vector<std::uint8_t> sequence_header_;
  std::optional<AudioConfig> audio_config_;
  bool described_ = true;
  std::condition_variable described_changed_;
  std::function<void()> keyframe_requester_;
  std::uint64_t prime_frames_ = 0;
  std::uint64_t prime_ms_ = 0;
};

}  // namespace mirell::streams
