// One RTSP connection, from accept to close, on its own thread: the request loop and, after PLAY,
// the media delivery of the same loop.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <memory>
#include <string>
#include <vector>

#include "mirell/daemon/media_stream.h"
#include "mirell/daemon/rtsp_server.h"
#include "mirell/media/aac_rtp.h"
#include "mirell/media/h264_rtp.h"
#include "rtsp_request.h"

namespace mirell::daemon {

struct RtspConnectionContext {
  const StreamLookup& lookup;
  const std::atomic<bool>& running;
  std::uint16_t port;
  bool randomize_rtp_base;
  std::chrono::milliseconds request_within;  // See RtspServer::SetRequestWithin.
};

class RtspConnection {
 public:
  RtspConnection(RtspConnectionContext context, int socket, std::uint64_t client);
  ~RtspConnection();
  RtspConnection(const RtspConnection&) = delete;
  RtspConnection& operator=(const RtspConnection&) = delete;

  // Serves until the client leaves, asks TEARDOWN, a send fails or the server stops.
  void Run();

 private:
  // Where the player reached this server, for the URLs handed back to it.
  std::string Origin(std::string_view uri) const;
  using SteadyTime = std::chrono::steady_clock::time_point;

  // False when the connection must end (TEARDOWN).
  bool Handle(const RtspRequest& request);
  void Respond(std::string_view status, std::int32_t cseq, std::string_view extra_headers = {},
               std::string_view body = {});
  void Describe(const RtspRequest& request);
  void Setup(const RtspRequest& request);
  void Play(const RtspRequest& request);
  bool FindStream(const std::string& uri);
  void StartDelivery();
  // One delivery step; false when the send failed.
  bool DeliverStep();
  void QueueAudio();
  void QueueVideo();
  void QueueSenderReports(SteadyTime now);
  void QueueInterleaved(std::uint8_t channel, std::span<const std::uint8_t> packet);
  void LogStatistics(SteadyTime now);
  void Unsubscribe();
  bool StreamEnded() const;
  void SayGoodbye();
  std::int64_t ReportMediaNow(std::int64_t steady_ns);
  std::int64_t MsSinceConnect() const;

  RtspConnectionContext context_;
  const int socket_;
  const std::uint64_t client_;
  const std::string session_id_;
  std::string pending_;
  std::shared_ptr<MediaStream> stream_;
  std::uint8_t next_channel_ = 0;
  std::uint8_t video_rtp_channel_ = 0, video_rtcp_channel_ = 1;
  std::uint8_t audio_rtp_channel_ = 2, audio_rtcp_channel_ = 3;
  bool has_audio_ = false;
  std::uint32_t audio_rate_ = 48000;
  bool playing_ = false;
  media::H264RtpPacketizer h264_;
  media::AacRtpPacketizer aac_;
  const SteadyTime connected_at_;
  // Before PLAY, a request must come within the context's request_within of the connection or of
  // the last one, and at most kMaxRequestsBeforePlay may come: a connection that only talks is
  // ended.
  SteadyTime last_request_at_;
  std::uint32_t requests_before_play_ = 0;

  // Delivery, from PLAY on.
  std::shared_ptr<FrameBus::Subscription> video_sub_;
  std::shared_ptr<AudioBus::Subscription> audio_sub_;
  std::int64_t first_timestamp_ = -1;
  std::uint32_t rtp_base_ = 0;
  // The reports' media clock: media time minus steady time, in 100 ns; see QueueSenderReports.
  std::optional<std::int64_t> report_anchor_;
  std::uint32_t video_rtp_time_ = 0, audio_rtp_time_ = 0;
  std::uint32_t video_packets_ = 0, audio_packets_ = 0;
  std::uint32_t video_octets_ = 0, audio_octets_ = 0;
  bool audio_reported_ = false;
  std::vector<std::uint8_t> outgoing_;
  std::vector<media::Bytes> packets_;
  std::uint64_t frames_sent_ = 0, keyframes_sent_ = 0;
  std::uint64_t audio_sent_ = 0, audio_early_ = 0;
  std::uint64_t rtcp_in_ = 0;
  SteadyTime last_report_{}, last_stats_{};
  std::uint64_t frames_at_last_stats_ = 0;
  std::int64_t worst_send_us_ = 0;
};

}  // namespace mirell::daemon
