// The viewer's end of a peer link: rebuilds H.264 and AAC access units from the link's RTP
// packets, puts them on the local timeline and publishes them on a stream's buses, where the
// RTSP server reads them like any other stream. It has no thread: it runs on the link's track
// threads, one for video and one for audio, which may run at once. No buffering and no
// reordering beyond the depacketizers'.
//
// The host starts both RTP clocks at 0 with its first video frame, so the first video unit sets
// the base for both tracks; audio that comes before it is dropped. A resume handler lets the
// timeline go on from where the holding clip stopped, without a backward step.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <span>
#include <vector>

#include "mirell/media/aac_rtp.h"
#include "mirell/media/h264_rtp.h"
#include "mirell/streams/audio_bus.h"
#include "mirell/streams/frame_bus.h"
#include "mirell/transport/peer_link.h"

namespace mirell::session {

// Extends a 32-bit RTP time stamp to 64 bits across wraps, and takes a late packet from before a
// wrap back to the epoch it belongs to.
struct TimestampUnwrapper {
  std::uint32_t last = 0;
  std::int64_t epoch = 0;
  bool started = false;

  std::int64_t Next(std::uint32_t value);
};

class PeerReceiver {
 public:
  using ByteSpan = std::span<const std::uint8_t>;

  // `audio_clock` in Hz until SetAudioClock replaces it.
  PeerReceiver(transport::PeerLink* link, streams::FrameBus* frames, streams::AudioBus* audio,
               unsigned audio_clock);
  PeerReceiver(const PeerReceiver&) = delete;
  PeerReceiver& operator=(const PeerReceiver&) = delete;

  // Before Start. The first-video handler returns where the local timeline should resume
  // (100 ns); the sequence-header handler gets new parameter sets, Annex B.
  void SetFirstVideoHandler(std::function<std::int64_t()> handler);
  void SetSequenceHeaderHandler(std::function<void(ByteSpan)> handler);
  void SetAudioClock(unsigned clock) { audio_clock_ = clock; }
  // Takes the link's video and audio handlers.
  void Start();

  void OnVideo(ByteSpan packet);
  void OnAudio(ByteSpan packet);

  // The last parameter sets seen, each behind 00 00 00 01.
  std::vector<std::uint8_t> SequenceHeader() const;
  std::uint64_t video_units() const { return video_units_.load(); }
  std::uint64_t audio_units() const { return audio_units_.load(); }
  // Audio units dropped because they came before the first video unit (no timeline yet).
  std::uint64_t audio_units_before_video() const { return audio_units_before_video_.load(); }

 private:
  std::function<std::int64_t()> on_first_video_;
  std::atomic<std::int64_t> offset_{0};  // 100 ns; written once, before base_.
  bool first_video_seen_ = false;
  transport::PeerLink* link_;
  streams::FrameBus* frames_;
  streams::AudioBus* audio_;
  std::atomic<unsigned> audio_clock_;
  media::H264RtpDepacketizer video_;
  media::AacRtpDepacketizer audio_depacketizer_;
  TimestampUnwrapper video_unwrap_;
  TimestampUnwrapper audio_unwrap_;
  // 100 ns; -1 until the first video unit. Written once by the video thread (after offset_),
  // read by audio's.
  std::atomic<std::int64_t> base_{-1};
  mutable std::mutex lock_;  // Guards sequence_header_.
  std::vector<std::uint8_t> sequence_header_;
  std::function<void(ByteSpan)> on_sequence_header_;
  std::atomic<std::uint64_t> video_units_{0};
  std::atomic<std::uint64_t> audio_units_{0};
  std::atomic<std::uint64_t> audio_units_before_video_{0};
};

}  // namespace mirell::session
