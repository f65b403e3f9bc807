#include "rtsp_connection.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>

#include "mirell/base/clock.h"
#include "mirell/base/logging.h"
#include "mirell/base/media_time.h"
#include "mirell/base/version.h"
#include "mirell/daemon/stream_path.h"
#include "rtcp_sender_report.h"
#include "rtsp_sdp.h"
#include "socket_io.h"

namespace mirell::daemon {
namespace {

constexpr std::uint32_t kSessionIdBase = 0x4D524C00;
constexpr std::size_t kMaxPacketSize = 1200;
constexpr std::uint64_t kVideoQueue = 8;
constexpr std::uint64_t kAudioQueue = 32;
constexpr auto kReportInterval = std::chrono::seconds(1);
constexpr auto kStatisticsInterval = std::chrono::seconds(2);
constexpr double kKeyframeRateFps = 20.0;
constexpr int kSequenceHeaderWaitMs = 3000;  // Longer than the card takes to build at start.
// A player sends its few requests before it plays; one that talks on without playing holds a
// thread for nothing.
constexpr std::uint32_t kMaxRequestsBeforePlay = 32;
constexpr int kSendTimeoutMs = 15'000;

// value x numerator / denominator, rounded half away from zero.
std::int64_t ScaleRounded(std::int64_t value, std::int64_t numerator, std::int64_t denominator) {
  const std::int64_t product = value * numerator;
  const std::int64_t half = denominator / 2;
  return (product >= 0 ? product + half : product - half) / denominator;
}

std::uint32_t RandomRtpBase() {
  std::random_device source;
  const std::uint32_t first = source();
  const std::uint32_t second = source();
  return (second << 16) ^ first;
}

}  // namespace

RtspConnection::RtspConnection(RtspConnectionContext context, int socket, std::uint64_t client)
    : context_(context),
      socket_(socket),
      client_(client),
      session_id_(fmt::format("{:08X}", client + kSessionIdBase)),
      h264_(media::RtpPacketizerConfig{96, 0, kMaxPacketSize, 0}),
      aac_(media::AacRtpPacketizerConfig{97, 0, kMaxPacketSize, 0}),
      connected_at_(std::chrono::steady_clock::now()),
      last_request_at_(connected_at_) {}

RtspConnection::~RtspConnection() { Unsubscribe(); }

std::int64_t RtspConnection::MsSinceConnect() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               connected_at_)
      .count();
}

void RtspConnection::Run() {
  LOG_INFO("client={} connected", client_);
  SetNoDelay(socket_);
  // A player that stops reading while it plays is ended rather than left holding its thread and
  // its place for ever; the bus has long since dropped what it did not take.
  SetSendTimeout(socket_, kSendTimeoutMs);
  std::vector<RtspRequest> requests;
  std::array<char, 8192> buffer{};
  for (;;) {
    requests.clear();
    if (playing_ && StreamEnded()) {
      SayGoodbye();
      break;
    }
    if (WaitReadable(socket_, playing_ ? 0 : 200)) {
      const auto received = ReceiveSome(socket_, buffer);
      if (received < 1) break;
      pending_.append(buffer.data(), static_cast<std::size_t>(received));
      const FramingResult framing = FrameRtspInput(pending_, requests);
      rtcp_in_ += framing.interleaved_frames;
      if (framing.dropped_bytes != 0) {
        // No player sends a head that long: the connection is ended rather than read on.
        LOG_WARN("client={} unparseable bytes={}, closing", client_, framing.dropped_bytes);
        break;
      }
    } else if (playing_) {
      if (!DeliverStep()) break;
    }
    const SteadyTime now = std::chrono::steady_clock::now();
    if (!requests.empty()) last_request_at_ = now;
    if (!playing_ && now - last_request_at_ > context_.request_within) {
      LOG_INFO("client={} no request within {} ms, closing", client_, context_.request_within.count());
      break;
    }
    bool leave = false;
    for (const auto& request : requests) {
      if (!playing_ && ++requests_before_play_ > kMaxRequestsBeforePlay) {
        LOG_INFO("client={} {} requests without playing, closing", client_, kMaxRequestsBeforePlay);
        leave = true;
        break;
      }
      if (!Handle(request)) {
        leave = true;
        break;
      }
    }
    if (leave || !context_.running.load()) break;
  }
  Unsubscribe();
}

// A withdrawn stream has closed the subscriptions: nothing more will come.
bool RtspConnection::StreamEnded() const {
  return video_sub_ && video_sub_->Closed() && (!audio_sub_ || audio_sub_->Closed());
}

// The end of a withdrawn stream, told to the player rather than left as a frozen picture: a BYE
// on every track, after which the connection closes. Players end their stream on the BYEs, or at
// the latest on the closed connection.
void RtspConnection::SayGoodbye() {
  const std::uint64_t ntp_time = NtpTime(SystemTicks100ns());
  QueueInterleaved(video_rtcp_channel_, BuildGoodbye(h264_.ssrc(), ntp_time, video_rtp_time_,
                                                     video_packets_, video_octets_));
  if (audio_sub_) {
    QueueInterleaved(audio_rtcp_channel_, BuildGoodbye(aac_.ssrc(), ntp_time, audio_rtp_time_,
                                                       audio_packets_, audio_octets_));
  }
  SendAll(socket_, outgoing_);
  outgoing_.clear();
  LOG_INFO("client={} stream ended, goodbye sent", client_);
}

void RtspConnection::Unsubscribe() {
  if (stream_ && video_sub_) stream_->frames().Unsubscribe(video_sub_);
  if (stream_ && audio_sub_) stream_->audio().Unsubscribe(audio_sub_);
  video_sub_.reset();
  audio_sub_.reset();
}

void RtspConnection::Respond(std::string_view status, std::int32_t cseq,
                             std::string_view extra_headers, std::string_view body) {
  std::string response =
      fmt::format("RTSP/1.0 {}\r\nCSeq: {}\r\nServer: mirell/{}\r\n", status, cseq,
                  kVersionMajorMinor);
  response += extra_headers;
  if (!body.empty()) response += fmt::format("Content-Length: {}\r\n", body.size());
  response += "\r\n";
  response += body;
  // A failed send is found by the next receive or media send.
  SendAll(socket_, {reinterpret_cast<const std::uint8_t*>(response.data()), response.size()});
}

bool RtspConnection::Handle(const RtspRequest& request) {
  LOG_DEBUG("client {} -> {} {} (+{} ms since connect)", client_, request.method, request.uri,
            MsSinceConnect());
  if (!request.valid) {
    Respond("400 Bad Request", 0);
  } else if (request.method == "OPTIONS") {
    Respond("200 OK", request.cseq, "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN\r\n");
  } else if (request.method == "DESCRIBE") {
    Describe(request);
  } else if (request.method == "SETUP") {
    Setup(request);
  } else if (request.method == "PLAY") {
    Play(request);
  } else if (request.method == "TEARDOWN") {
    Respond("200 OK", request.cseq, fmt::format("Session: {}\r\n", session_id_));
    Unsubscribe();
    return false;
  } else {
    Respond("501 Not Implemented", request.cseq);
  }
  return true;
}

bool RtspConnection::FindStream(const std::string& uri) {
  if (!stream_) stream_ = context_.lookup(RequestPath(uri));
  return stream_ != nullptr;
}

void RtspConnection::Describe(const RtspRequest& request) {
  if (!FindStream(request.uri)) {
    LOG_INFO("client={} uri={} not published", client_, request.uri);
    Respond("404 Not Found", request.cseq);
    return;
  }
  stream_->RequestKeyframe();
  if (!stream_->IsDescribed() && !stream_->WaitDescribed(400)) {
    LOG_INFO("client={} uri={} describe timeout, using defaults", client_, request.uri);
  }
  const auto audio = stream_->Audio();
  if (audio) {
    audio_rate_ = audio->sample_rate;
    has_audio_ = true;
  }
  // A stream whose first picture is still being made (the holding card at start-up) is waited
  // for, within a bound; an answer of 503 ends most players for good.
  if (!stream_->WaitSequenceHeader(kSequenceHeaderWaitMs)) {
    LOG_INFO("client={} uri={} no sequence header within {} ms", client_, request.uri, kSequenceHeaderWaitMs);
    Respond("503 Service Unavailable", request.cseq, "Retry-After: 1\r\n");
    return;
  }
  const auto sequence_header = stream_->SequenceHeader();
  const std::string sdp = BuildSdp(sequence_header, stream_->bitrate_kbps(), audio);
  Respond("200 OK", request.cseq,
          fmt::format("Content-Type: application/sdp\r\nContent-Base: {}{}/\r\n"
                      "Session: {}\r\n",
                      Origin(request.uri), RequestPath(request.uri), session_id_),
          sdp);
}

std::string RtspConnection::Origin(std::string_view uri) const {
  return RequestOrigin(uri, fmt::format("rtsp://{}:{}", kLoopback, context_.port));
}

void RtspConnection::Setup(const RtspRequest& request) {
  if (request.transport.size() < 3 || request.transport.find("TCP") == std::string::npos) {
    LOG_WARN("client={} transport={} unsupported", client_, request.transport);
    Respond("461 Unsupported Transport", request.cseq);
    return;
  }
  unsigned rtp_channel = next_channel_;
  unsigned rtcp_channel = static_cast<std::uint8_t>(next_channel_ + 1);
  constexpr std::string_view kInterleaved = "interleaved=";
  const auto interleaved = request.transport.find(kInterleaved);
  if (interleaved != std::string::npos) {
    const auto dash = request.transport.find('-', interleaved + kInterleaved.size());
    if (dash != std::string::npos) {
      const int first = std::atoi(request.transport.c_str() + interleaved + kInterleaved.size());
      const int second = std::atoi(request.transport.c_str() + dash + 1);
      if (static_cast<unsigned>(first) <= 255 && static_cast<unsigned>(second) <= 255) {
        rtp_channel = static_cast<unsigned>(first);
        rtcp_channel = static_cast<unsigned>(second);
      }
    }
  }
  next_channel_ = static_cast<std::uint8_t>(std::max(rtcp_channel + 1, next_channel_ + 2u));
  const bool audio = has_audio_ && request.track_id == 1;
  if (audio) {
    audio_rtp_channel_ = static_cast<std::uint8_t>(rtp_channel);
    audio_rtcp_channel_ = static_cast<std::uint8_t>(rtcp_channel);
  } else {
    video_rtp_channel_ = static_cast<std::uint8_t>(rtp_channel);
    video_rtcp_channel_ = static_cast<std::uint8_t>(rtcp_channel);
  }
  LOG_DEBUG("client {} set up {} track on channels {}-{}", client_, audio ? "audio" : "video",
            rtp_channel, rtcp_channel);
  Respond("200 OK", request.cseq,
          fmt::format("Transport: RTP/AVP/TCP;unicast;interleaved={}-{}\r\nSession: {}\r\n",
                      rtp_channel, rtcp_channel, session_id_));
}

void RtspConnection::Play(const RtspRequest& request) {
  if (!FindStream(request.uri)) {
    Respond("404 Not Found", request.cseq);
    return;
  }
  // A PLAY while playing (some players send one to resume) is answered but changes nothing: a
  // second subscription would outlive the connection's own and keep the stream busy for ever.
  if (!playing_) StartDelivery();
  const std::string path = RequestPath(request.uri);
  const std::string origin = Origin(request.uri);
  std::string rtp_info = fmt::format("RTP-Info: url={}{}/trackID=0;seq={};rtptime={}", origin, path,
                                     h264_.next_sequence(), rtp_base_);
  if (has_audio_) {
    rtp_info += fmt::format(",url={}{}/trackID=1;seq={};rtptime={}", origin, path,
                            aac_.next_sequence(), rtp_base_);
  }
  rtp_info += "\r\n";
  Respond("200 OK", request.cseq,
          fmt::format("Session: {}\r\nRange: npt=0.000-\r\n{}", session_id_, rtp_info));
  LOG_INFO("client={} playing after={}ms", client_, MsSinceConnect());
}

void RtspConnection::StartDelivery() {
  video_sub_ = stream_->frames().Subscribe(kVideoQueue, stream_->prime_frames());
  if (stream_->prime_frames() != 0) {
    const std::uint64_t primed = video_sub_->Primed();
    if (primed == 0) {
      LOG_WARN("client {} was primed with NOTHING - it will starve, which looks like a "
               "keyframe-only stream",
               client_);
    } else {
      const std::uint32_t fps = stream_->fps();
      LOG_INFO("client={} primed={} (~{}ms) wanted={}ms", client_, primed,
               fps == 0 ? 0 : primed * 1000 / fps, stream_->prime_ms());
    }
  }
  if (has_audio_) {
    audio_sub_ = stream_->audio().Subscribe(kAudioQueue, video_sub_->FrontTimestamp());
    LOG_INFO("client={} audio primed={}", client_, audio_sub_->Primed());
  }
  first_timestamp_ = video_sub_->FrontTimestamp();
  playing_ = true;
  rtp_base_ = context_.randomize_rtp_base ? RandomRtpBase() : 0;
  const auto now = std::chrono::steady_clock::now();
  last_report_ = now - kReportInterval;
  last_stats_ = now;
}

void RtspConnection::QueueInterleaved(std::uint8_t channel, std::span<const std::uint8_t> packet) {
  outgoing_.push_back('$');
  outgoing_.push_back(channel);
  outgoing_.push_back(static_cast<std::uint8_t>(packet.size() >> 8));
  outgoing_.push_back(static_cast<std::uint8_t>(packet.size()));
  outgoing_.insert(outgoing_.end(), packet.begin(), packet.end());
}

void RtspConnection::QueueAudio() {
  if (!audio_sub_ || first_timestamp_ < 0) return;
  while (const auto unit = audio_sub_->TryPop()) {
    if (unit->pts_100ns < first_timestamp_) {
      ++audio_early_;
      continue;
    }
    const std::int64_t delta = unit->pts_100ns - first_timestamp_;
    audio_rtp_time_ =
        rtp_base_ + static_cast<std::uint32_t>(ScaleRounded(delta, audio_rate_, kTicksPerSecond));
    packets_.clear();
    aac_.Packetize(unit->data, audio_rtp_time_, packets_);
    for (const auto& packet : packets_) {
      QueueInterleaved(audio_rtp_channel_, packet);
      ++audio_packets_;
      audio_octets_ += static_cast<std::uint32_t>(packet.size() - media::kRtpHeaderSize);
    }
    ++audio_sent_;
  }
}

void RtspConnection::QueueVideo() {
  if (!video_sub_) return;
  const auto frame = video_sub_->Pop(audio_sub_ ? 10 : 250);
  if (!frame) return;
  if (first_timestamp_ < 0) first_timestamp_ = frame->pts_100ns;
  const std::int64_t delta = frame->pts_100ns - first_timestamp_;
  video_rtp_time_ = rtp_base_ + static_cast<std::uint32_t>(ScaleRounded(delta, 9, 1000));
  packets_.clear();
  h264_.Packetize(frame->data, video_rtp_time_, packets_);
  for (const auto& packet : packets_) {
    QueueInterleaved(video_rtp_channel_, packet);
    ++video_packets_;
    video_octets_ += static_cast<std::uint32_t>(packet.size() - media::kRtpHeaderSize);
  }
  ++frames_sent_;
  if (frame->keyframe) ++keyframes_sent_;
}

// Both tracks' reports name the RTP times of one media instant, "now" at the stream's live edge,
// so that a player lines them up the same way. The times last sent would not do: a new player
// gets all its primed sound with the first frame, and its two tracks' last times then differ by
// the primed span.
//
// "Now" runs on an anchor (media time minus steady time) rather than on each report's newest
// frame, because frames that came over the network are published with jitter, and a player
// re-times everything at each report: a report whose media time runs ahead of the last one's
// steps its time stamps back. The anchor follows the latest-published frames at once (time stamps
// then step forward, which players take in their stride) and earlier ones only by a fifth of a
// millisecond per second, which covers the drift between two machines' clocks.
std::int64_t RtspConnection::ReportMediaNow(std::int64_t steady_ns) {
  constexpr std::int64_t kAnchorCreepPerReport = 2'000;  // 100 ns: 0.2 ms.
  const FrameBus::LiveEdge edge = stream_->frames().live_edge();
  if (edge.pts_100ns >= 0) {
    const std::int64_t lag = edge.pts_100ns - edge.published_ns / 100;
    if (!report_anchor_ || lag < *report_anchor_) {
      report_anchor_ = lag;
    } else {
      report_anchor_ = std::min(lag, *report_anchor_ + kAnchorCreepPerReport);
    }
  }
  return report_anchor_ ? *report_anchor_ + steady_ns / 100 : -1;
}

// The reports go ahead of the step's packets, in the same write: a player times a track's packets
// from its first report on, and those that came before it from the track's own first packet,
// so ffmpeg stepped the primed sound back by the primed span when the report came behind it.
// For the same reason a track that starts later (sound after the first frames) is reported
// with its first packets, not up to a second afterwards.
void RtspConnection::QueueSenderReports(SteadyTime now) {
  if (video_packets_ == 0) return;
  const bool audio_unreported = audio_sub_ && audio_packets_ != 0 && !audio_reported_;
  if (now - last_report_ < kReportInterval && !audio_unreported) return;
  const std::int64_t media_now = ReportMediaNow(SteadyNowNs());
  const std::uint64_t ntp_time = NtpTime(SystemTicks100ns());
  std::uint32_t video_rtp_time = video_rtp_time_;
  std::uint32_t audio_rtp_time = audio_rtp_time_;
  if (media_now >= 0) {
    const std::int64_t delta = media_now - first_timestamp_;
    video_rtp_time = rtp_base_ + static_cast<std::uint32_t>(ScaleRounded(delta, 9, 1000));
    audio_rtp_time = rtp_base_ + static_cast<std::uint32_t>(ScaleRounded(delta, audio_rate_, kTicksPerSecond));
  }
  const auto media_bytes = static_cast<std::ptrdiff_t>(outgoing_.size());
  QueueInterleaved(video_rtcp_channel_, BuildSenderReport(h264_.ssrc(), ntp_time, video_rtp_time,
                                                          video_packets_, video_octets_));
  if (audio_sub_ && audio_packets_ != 0) {
    QueueInterleaved(audio_rtcp_channel_, BuildSenderReport(aac_.ssrc(), ntp_time, audio_rtp_time,
                                                            audio_packets_, audio_octets_));
    audio_reported_ = true;
  }
  std::rotate(outgoing_.begin(), outgoing_.begin() + media_bytes, outgoing_.end());
  last_report_ = now;
}

bool RtspConnection::DeliverStep() {
  QueueAudio();
  QueueVideo();
  const auto now = std::chrono::steady_clock::now();
  QueueSenderReports(now);
  if (!outgoing_.empty()) {
    const auto send_start = std::chrono::steady_clock::now();
    const bool sent = SendAll(socket_, outgoing_);
    const auto send_us = std::chrono::duration_cast<std::chrono::microseconds>(
                             std::chrono::steady_clock::now() - send_start)
                             .count();
    worst_send_us_ = std::max<std::int64_t>(worst_send_us_, send_us);
    outgoing_.clear();
    if (!sent) {
      LOG_DEBUG("client {} send failed", client_);
      return false;
    }
  }
  LogStatistics(now);
  return true;
}

void RtspConnection::LogStatistics(SteadyTime now) {
  if (now - last_stats_ < kStatisticsInterval) return;
  const double seconds = std::chrono::duration<double>(now - last_stats_).count();
  const double fps = static_cast<double>(frames_sent_ - frames_at_last_stats_) / seconds;
  const std::uint64_t dropped = video_sub_ ? video_sub_->Dropped() : 0;
  const std::uint64_t audio_dropped = audio_sub_ ? audio_sub_->Dropped() : 0;
  LOG_INFO("client {} delivered {:.1f} fps ({} frames, {} keyframes, {} dropped, worst send {} us, "
           "{} RTCP in), audio {} AUs ({} dropped, {} predating the first frame)",
           client_, fps, frames_sent_, keyframes_sent_, dropped, worst_send_us_, rtcp_in_,
           audio_sent_, audio_dropped, audio_early_);
  if (dropped != 0 && fps < kKeyframeRateFps) {
    LOG_WARN("client {} is only keeping up with about the keyframe rate. The client is reading "
             "slower than we produce, so the frame bus resyncs every GOP and the client sees "
             "roughly one frame per keyframe.",
             client_);
  }
  frames_at_last_stats_ = frames_sent_;
  last_stats_ = now;
  worst_send_us_ = 0;
}

}  // namespace mirell::daemon
