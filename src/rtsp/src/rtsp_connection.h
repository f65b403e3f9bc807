// One RTSP connection, from accept to close, on the server's I/O thread: it reads and answers
// requests and, after PLAY, sends the stream as its buses wake it. Nothing here blocks that
// thread: finding a stream and waiting for its description run on the lookup threads, and a
// player that does not read is left with one write in flight while its buses drop for it.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gathered_write.h"
#include "mirell/rtsp/rtsp_server.h"
#include "mirell/streams/media_stream.h"
#include "rtp_packet_cache.h"
#include "rtsp_request.h"

namespace mirell::rtsp {

struct RtspConnectionContext {
  const PeerStreamLookup& lookup;
  boost::asio::io_context& lookups;  // Where the blocking steps run.
  RtpPacketCache& packets;
  std::uint16_t port;
  bool randomize_rtp_base;
  std::chrono::milliseconds request_within;  // See RtspServer::SetRequestWithin.
  std::chrono::milliseconds send_within;     // See RtspServer::SetSendTimeout.
  std::function<void(std::uint64_t client)> closed;  // Called once, on the I/O thread.
};

class RtspConnection : public std::enable_shared_from_this<RtspConnection> {
 public:
  using Socket = boost::asio::ip::tcp::socket;
  using SteadyTime = std::chrono::steady_clock::time_point;

  // `peer`: the player's IPv4 address, 0 for this machine's, as the lookup is told.
  RtspConnection(RtspConnectionContext context, Socket socket, std::uint64_t client, std::uint32_t peer);
  // Any thread: a lookup not yet begun for a closed connection is skipped.
  bool closed() const { return closed_flag_.load(); }
  ~RtspConnection();
  RtspConnection(const RtspConnection&) = delete;
  RtspConnection& operator=(const RtspConnection&) = delete;

  // I/O thread, each.
  void Start();
  // Idempotent: cancels what is in flight, closes the socket, leaves the stream.
  void Close();

 private:
  // What the lookup threads found for a request.
  struct Found {
    std::shared_ptr<streams::MediaStream> stream;
    std::optional<streams::AudioConfig> audio;
    bool described = true;
    bool has_sequence_header = false;
    std::vector<std::uint8_t> sequence_header;
    std::uint32_t bitrate_kbps = 0;
  };

  void Read();
  void OnRead(const boost::system::error_code& error, std::size_t size);
  void WatchRequestTime();
  // While playing, once a second: sender reports and statistics while the source is still, and
  // the end of a player that has taken nothing for the send time-out.
  void Tick();
  void HandleQueued();
  // False when the connection must end once its answer is out (TEARDOWN).
  bool Handle(const RtspRequest& request);
  // Runs `find` for `request` on a lookup thread, then `then` here; requests wait meanwhile.
  void FindThenHandle(const RtspRequest& request, bool describe,
                      void (RtspConnection::*then)(const RtspRequest&, const Found&));
  void Respond(std::string_view status, std::int32_t cseq, std::string_view extra_headers = {},
               std::string_view body = {});
  void Describe(const RtspRequest& request, const Found& found);
  void Setup(const RtspRequest& request);
  void Play(const RtspRequest& request, const Found& found);
  std::string Origin(std::string_view uri) const;

  void StartDelivery();
  void Wake();
  void Deliver();
  void QueueAudio();
  void QueueVideo();
  void QueuePackets(const SharedPackets& packets, std::uint8_t channel, std::uint16_t& sequence,
                    std::uint32_t timestamp, std::uint32_t ssrc, std::uint32_t& count,
                    std::uint32_t& octets);
  void QueueSenderReports(SteadyTime now, std::size_t step);
  void QueueInterleaved(std::uint8_t channel, std::span<const std::uint8_t> packet);
  bool StreamEnded() const;
  void SayGoodbye();
  void Flush();
  void WriteSome();
  void OnWrote(const boost::system::error_code& error, std::size_t size);
  void OnWritten();
  void LogStatistics(SteadyTime now);
  void Unsubscribe();
  std::int64_t ReportMediaNow(std::int64_t steady_ns);
  std::int64_t MsSinceConnect() const;

  RtspConnectionContext context_;
  Socket socket_;
  // The I/O thread's executor, kept apart from the socket, which the I/O thread may be closing
  // while a bus or a lookup thread posts here.
  const boost::asio::any_io_executor executor_;
  // Before PLAY the request time-out, after it the tick.
  boost::asio::steady_timer timer_;
  const std::uint64_t client_;
  const std::uint32_t peer_;
  const std::string session_id_;
  std::array<char, 8192> read_buffer_{};
  std::string pending_;
  std::deque<RtspRequest> requests_;
  bool finding_ = false;       // A lookup is in flight; requests wait for it.
  bool closed_ = false;
  std::atomic<bool> closed_flag_{false};  // closed_, for the lookup threads.
  bool end_after_write_ = false;
  std::shared_ptr<streams::MediaStream> stream_;
  std::uint8_t next_channel_ = 0;
  std::uint8_t video_rtp_channel_ = 0, video_rtcp_channel_ = 1;
  std::uint8_t audio_rtp_channel_ = 2, audio_rtcp_channel_ = 3;
  bool has_audio_ = false;
  std::uint32_t audio_rate_ = 48000;
  bool playing_ = false;
  const SteadyTime connected_at_;
  // Before PLAY, a request must come within the context's request_within of the connection or of
  // the last one, and at most kMaxRequestsBeforePlay may come: a connection that only talks is
  // ended.
  SteadyTime last_request_at_;
  std::uint32_t requests_before_play_ = 0;

  // Writing: `queued_` fills while `in_flight_` is being written.
  GatheredWrite queued_, in_flight_;
  std::vector<boost::asio::const_buffer> unwritten_;  // What of in_flight_ the socket has not taken.
  bool writing_ = false;
  SteadyTime write_started_{};
  SteadyTime write_progress_{};  // When the socket last took some of the write.

  // Delivery, from PLAY on.
  std::shared_ptr<streams::FrameBus::Subscription> video_sub_;
  std::shared_ptr<streams::AudioBus::Subscription> audio_sub_;
  std::atomic<bool> wake_pending_{false};
  const std::uint32_t video_ssrc_, audio_ssrc_;
  std::uint16_t video_sequence_, audio_sequence_;
  std::int64_t first_timestamp_ = -1;
  std::uint32_t rtp_base_ = 0;
  // The reports' media clock: media time minus steady time, in 100 ns; see QueueSenderReports.
  std::optional<std::int64_t> report_anchor_;
  std::uint32_t video_rtp_time_ = 0, audio_rtp_time_ = 0;
  std::uint32_t video_packets_ = 0, audio_packets_ = 0;
  std::uint32_t video_octets_ = 0, audio_octets_ = 0;
  bool audio_reported_ = false;
  std::uint64_t frames_sent_ = 0, keyframes_sent_ = 0;
  std::uint64_t audio_sent_ = 0, audio_early_ = 0;
  std::uint64_t rtcp_in_ = 0;
  SteadyTime last_report_{}, last_stats_{};
  std::uint64_t frames_at_last_stats_ = 0;
  std::int64_t worst_write_us_ = 0;
};

}  // namespace mirell::rtsp
