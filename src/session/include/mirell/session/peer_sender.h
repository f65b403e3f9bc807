// One viewer's media: a thread of its own that reads the share's two buses, packetizes each unit
// with packetizers of its own and hands the packets to the viewer's peer link. The units are
// shared by every viewer; only packetizing and sending are per viewer, so one encoder serves any
// number of senders, and a slow viewer loses frames without holding up anybody else.
//
// RTP time 0 of both tracks is the first video frame this viewer gets; audio is placed against
// it on its own clock. A sender never asks for a keyframe: its subscription starts at the next
// one, and the viewer's own requests reach the encoder through the link.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "mirell/media/aac_rtp.h"
#include "mirell/media/h264_rtp.h"
#include "mirell/streams/audio_bus.h"
#include "mirell/streams/frame_bus.h"
#include "mirell/transport/peer_link.h"

namespace mirell::session {

class PeerSender {
 public:
  // `audio` may be null: video only. `audio_clock` is the audio RTP clock in Hz.
  PeerSender(transport::PeerLink* link, streams::FrameBus* frames, streams::AudioBus* audio,
             unsigned audio_clock);
  ~PeerSender();
  PeerSender(const PeerSender&) = delete;
  PeerSender& operator=(const PeerSender&) = delete;

  // Starts the thread and says so; nothing once started or stopped. Any thread, also racing Stop.
  bool Start();
  // Joins the thread and logs the totals; a second call does nothing, and a Start after it
  // starts nothing. Any thread but the sender's own.
  void Stop();
  // The thread has ended by itself: the share's stream was closed or its readers ended.
  bool finished() const { return finished_.load(); }

  std::uint64_t frames_sent() const { return frames_sent_.load(); }
  std::uint64_t units_sent() const { return units_sent_.load(); }
  std::uint64_t bytes_sent() const { return bytes_sent_.load(); }
  // When the first picture went out (steady clock, ns); 0 before.
  std::int64_t first_picture_at() const { return first_picture_at_.load(); }

  // 100-nanosecond units from the base to the audio clock, rounded to nearest.
  static std::int64_t AudioRtpTime(std::int64_t t, std::int64_t base, unsigned clock);
  // 100-nanosecond units from the base to 90 kHz, rounded to nearest on either side of it.
  static std::int64_t VideoRtpTime(std::int64_t t, std::int64_t base);

 private:
  void Run();
  void SendAudio(streams::AudioBus::Subscription& subscription, std::int64_t base);
  void SendVideo(const encode::EncodedFramePtr& frame, std::int64_t base);

  transport::PeerLink* link_;
  streams::FrameBus* frames_;
  streams::AudioBus* audio_;
  unsigned audio_clock_;
  media::H264RtpPacketizer video_packetizer_;
  media::AacRtpPacketizer audio_packetizer_;
  std::mutex lifecycle_mutex_;  // Start and Stop.
  bool stopped_ = false;       // Under lifecycle_mutex_.
  std::atomic<bool> running_{false};
  std::atomic<bool> finished_{false};
  std::atomic<std::uint64_t> frames_sent_{0};
  std::atomic<std::uint64_t> units_sent_{0};
  std::atomic<std::uint64_t> bytes_sent_{0};
  std::atomic<std::int64_t> first_picture_at_{0};
  std::uint64_t refused_ = 0;  // The sender's thread only.
  std::vector<media::Bytes> packets_;  // Reused across rounds.
  std::thread thread_;
};

}  // namespace mirell::session
