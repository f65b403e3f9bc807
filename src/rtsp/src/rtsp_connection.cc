#include "rtsp_connection.h"

#include <fmt/format.h>

#include <boost/asio/post.hpp>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "mirell/base/clock.h"
#include "mirell/base/logging.h"
#include "mirell/base/media_time.h"
#include "mirell/base/version.h"
#include "mirell/media/rtp.h"
#include "mirell/rtsp/stream_path.h"
#include "rtcp_sender_report.h"
#include "rtsp_sdp.h"

namespace mirell::rtsp {
namespace {

namespace asio = boost::asio;

constexpr std::uint32_t kSessionIdBase = 0x4D524C00;
constexpr std::uint64_t kVideoQueue = 8;
constexpr std::uint64_t kAudioQueue = 32;
constexpr auto kReportInterval = std::chrono::seconds(1);
constexpr auto kStatisticsInterval = std::chrono::seconds(2);
constexpr double kKeyframeRateFps = 20.0;
constexpr int kDescribedWaitMs = 400;
constexpr int kSequenceHeaderWaitMs = 3000;  // Longer than the card takes to build at start.
// A player sends its few requests before it plays; one that talks on without playing holds a
// place for nothing.
constexpr std::uint32_t kMaxRequestsBeforePlay = 32;
// Requests read but not yet answered (they wait while a stream is looked up), and answers not yet
// taken by a player that sends requests without reading: bounds on what one connection holds.
constexpr std::size_t kMaxWaitingRequests = 32;
constexpr std::size_t kMaxQueuedBytes = 1u << 20;

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

RtspConnection::RtspConnection(RtspConnectionContext context, Socket socket, std::uint64_t client,
                               std::uint32_t peer)
    : context_(std::move(context)),
      socket_(std::move(socket)),
      executor_(socket_.get_executor()),
      timer_(executor_),
      client_(client),
      peer_(peer),
      session_id_(fmt::format("{:08X}", client + kSessionIdBase)),
      connected_at_(std::chrono::steady_clock::now()),
      last_request_at_(connected_at_),
      video_ssrc_(media::RandomRtpValue()),
      audio_ssrc_(media::RandomRtpValue()),
      video_sequence_(static_cast<std::uint16_t>(media::RandomRtpValue())),
      audio_sequence_(static_cast<std::uint16_t>(media::RandomRtpValue())) {}

RtspConnection::~RtspConnection() { Unsubscribe(); }

std::int64_t RtspConnection::MsSinceConnect() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               connected_at_)
      .count();
}

void RtspConnection::Start() {
  LOG_INFO("client={} connected", client_);
  boost::system::error_code ignored;
  socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
  WatchRequestTime();
  Read();
}

void RtspConnection::Close() {
  if (closed_) return;
  closed_ = true;
  closed_flag_.store(true);
  timer_.cancel();
  boost::system::error_code ignored;
  socket_.close(ignored);
  Unsubscribe();
  LOG_INFO("client={} disconnected", client_);
  if (context_.closed) context_.closed(client_);
}

void RtspConnection::Tick() {
  timer_.expires_after(std::chrono::seconds(1));
  timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (error || self->closed_) return;
    // A player that stops reading while it plays is ended rather than left holding its place
    // for ever; its buses have long since dropped what it did not take.
    if (self->writing_ &&
        std::chrono::steady_clock::now() - self->write_progress_ >= self->context_.send_within) {
      LOG_INFO("client={} took nothing for {} ms, closing", self->client_,
               self->context_.send_within.count());
      // What it has not taken is dropped with the connection rather than trickled out.
      boost::system::error_code ignored;
      self->socket_.set_option(asio::socket_base::linger(true, 0), ignored);
      self->Close();
      return;
    }
    self->Deliver();
    self->Tick();
  });
}

void RtspConnection::Read() {
  socket_.async_read_some(asio::buffer(read_buffer_),
                          [self = shared_from_this()](const boost::system::error_code& error,
                                                      std::size_t size) { self->OnRead(error, size); });
}

void RtspConnection::OnRead(const boost::system::error_code& error, std::size_t size) {
  if (closed_) return;
  if (error) {
    Close();
    return;
  }
  // After TEARDOWN, or its stream's end, nothing more is read: the connection closes once its
  // last write is out.
  if (end_after_write_) return;
  pending_.append(read_buffer_.data(), size);
  std::vector<RtspRequest> requests;
  const FramingResult framing = FrameRtspInput(pending_, requests);
  rtcp_in_ += framing.interleaved_frames;
  if (framing.dropped_bytes != 0) {
    // No player sends a head that long: the connection is ended rather than read on.
    LOG_WARN("client={} unparseable bytes={}, closing", client_, framing.dropped_bytes);
    Close();
    return;
  }
  if (!requests.empty()) last_request_at_ = std::chrono::steady_clock::now();
  for (auto& request : requests) requests_.push_back(std::move(request));
  if (requests_.size() > kMaxWaitingRequests) {
    LOG_INFO("client={} sent {} requests without waiting for answers, closing", client_, requests_.size());
    Close();
    return;
  }
  HandleQueued();
  if (!closed_) Read();
}

// Before PLAY, the time since the last request (or the connection) is bounded; the wait for an
// answer of ours does not count.
void RtspConnection::WatchRequestTime() {
  if (closed_ || playing_) return;
  timer_.expires_at(last_request_at_ + context_.request_within);
  timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (error || self->closed_ || self->playing_) return;
    const auto now = std::chrono::steady_clock::now();
    if (!self->finding_ && self->requests_.empty() &&
        now - self->last_request_at_ >= self->context_.request_within) {
      LOG_INFO("client={} no request within {} ms, closing", self->client_,
               self->context_.request_within.count());
      self->Close();
      return;
    }
    if (self->finding_) self->last_request_at_ = now;
    self->WatchRequestTime();
  });
}

void RtspConnection::HandleQueued() {
  while (!closed_ && !finding_ && !end_after_write_ && !requests_.empty()) {
    const RtspRequest request = std::move(requests_.front());
    requests_.pop_front();
    if (!playing_ && ++requests_before_play_ > kMaxRequestsBeforePlay) {
      LOG_INFO("client={} {} requests without playing, closing", client_, kMaxRequestsBeforePlay);
      Close();
      return;
    }
    if (!Handle(request)) {
      end_after_write_ = true;
      requests_.clear();
      Flush();
      return;
    }
  }
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
  if (queued_.size() + response.size() > kMaxQueuedBytes) {
    LOG_INFO("client={} takes none of its answers, closing", client_);
    Close();
    return;
  }
  queued_.StartSection();
  queued_.AppendOwn({reinterpret_cast<const std::uint8_t*>(response.data()), response.size()});
  Flush();
}

bool RtspConnection::Handle(const RtspRequest& request) {
  LOG_DEBUG("client {} -> {} {} (+{} ms since connect)", client_, request.method, request.uri,
            MsSinceConnect());
  if (!request.valid) {
    Respond("400 Bad Request", 0);
  } else if (request.method == "OPTIONS") {
    Respond("200 OK", request.cseq, "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN\r\n");
  } else if (request.method == "DESCRIBE") {
    FindThenHandle(request, true, &RtspConnection::Describe);
  } else if (request.method == "SETUP") {
    Setup(request);
  } else if (request.method == "PLAY") {
    if (stream_) {
      Found known;
      known.stream = stream_;
      Play(request, known);
    } else {
      FindThenHandle(request, false, &RtspConnection::Play);
    }
  } else if (request.method == "TEARDOWN") {
    Respond("200 OK", request.cseq, fmt::format("Session: {}\r\n", session_id_));
    Unsubscribe();
    return false;
  } else {
    Respond("501 Not Implemented", request.cseq);
  }
  return true;
}

// A lookup may wait for a signal server's answer, and a description for a remote host: seconds
// that the I/O thread must not spend.
void RtspConnection::FindThenHandle(const RtspRequest& request, bool describe,
                                    void (RtspConnection::*then)(const RtspRequest&, const Found&)) {
  finding_ = true;
  asio::post(context_.lookups, [self = shared_from_this(), request, describe, then,
                                known = stream_] {
    auto found = std::make_shared<Found>();
    // A connection that closed while its lookup waited its turn (or the server stopping) needs
    // no answer: the turn goes to the next.
    if (self->closed()) return;
    try {
      found->stream = known ? known : self->context_.lookup(RequestPath(request.uri), self->peer_);
      if (found->stream && describe) {
        streams::MediaStream& stream = *found->stream;
        stream.RequestKeyframe();
        found->described = stream.IsDescribed() || stream.WaitDescribed(kDescribedWaitMs);
        found->audio = stream.Audio();
        found->has_sequence_header = stream.WaitSequenceHeader(kSequenceHeaderWaitMs);
        found->sequence_header = stream.SequenceHeader();
        found->bitrate_kbps = stream.bitrate_kbps();
      }
    } catch (const std::exception& error) {
      LOG_WARN("client={} lookup of {} failed: {}", self->client_, request.uri, error.what());
      found = std::make_shared<Found>();  // Answered as not found.
    }
    asio::post(self->executor_, [self, request, then, found] {
      self->finding_ = false;
      if (self->closed_) return;
      if (!self->stream_) self->stream_ = found->stream;
      (self.get()->*then)(request, *found);
      self->HandleQueued();
    });
  });
}

void RtspConnection::Describe(const RtspRequest& request, const Found& found) {
  if (!found.stream) {
    LOG_INFO("client={} uri={} not published", client_, request.uri);
    Respond("404 Not Found", request.cseq);
    return;
  }
  if (!found.described) {
    LOG_INFO("client={} uri={} describe timeout, using defaults", client_, request.uri);
  }
  if (found.audio) {
    audio_rate_ = found.audio->sample_rate;
    has_audio_ = true;
  }
  // A stream whose first picture is still being made (the holding card at start-up) is waited
  // for, within a bound; an answer of 503 ends most players for good.
  if (!found.has_sequence_header) {
    LOG_INFO("client={} uri={} no sequence header within {} ms", client_, request.uri, kSequenceHeaderWaitMs);
    Respond("503 Service Unavailable", request.cseq, "Retry-After: 1\r\n");
    return;
  }
  const std::string sdp = BuildSdp(found.sequence_header, found.bitrate_kbps, found.audio);
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

void RtspConnection::Play(const RtspRequest& request, const Found& found) {
  if (!found.stream) {
    Respond("404 Not Found", request.cseq);
    return;
  }
  // A PLAY while playing (some players send one to resume) is answered but changes nothing: a
  // second subscription would outlive the connection's own and keep the stream busy for ever.
  // Subscribed before the answer goes out, so that a frame published as soon as the player has
  // it is not missed; the first delivery is posted, and so comes after the answer.
  if (!playing_) {
    rtp_base_ = context_.randomize_rtp_base ? RandomRtpBase() : 0;
    playing_ = true;
    timer_.cancel();
    StartDelivery();
    Tick();
  }
  const std::string path = RequestPath(request.uri);
  const std::string origin = Origin(request.uri);
  std::string rtp_info = fmt::format("RTP-Info: url={}{}/trackID=0;seq={};rtptime={}", origin, path,
                                     video_sequence_, rtp_base_);
  if (has_audio_) {
    rtp_info += fmt::format(",url={}{}/trackID=1;seq={};rtptime={}", origin, path,
                            audio_sequence_, rtp_base_);
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
  const auto now = std::chrono::steady_clock::now();
  last_report_ = now - kReportInterval;
  last_stats_ = now;
  // The buses wake the connection from their producers' threads; it delivers here.
  std::weak_ptr<RtspConnection> weak = weak_from_this();
  const auto wake = [weak] {
    if (const auto self = weak.lock()) self->Wake();
  };
  video_sub_->SetWake(wake);
  if (audio_sub_) audio_sub_->SetWake(wake);
  Wake();  // For the primed backlog.
}

// Any thread: one delivery is posted however many units come before it runs.
void RtspConnection::Wake() {
  if (wake_pending_.exchange(true)) return;
  asio::post(executor_, [self = shared_from_this()] { self->Deliver(); });
}

void RtspConnection::Unsubscribe() {
  // After SetWake(nullptr) no bus calls back into this connection.
  if (video_sub_) video_sub_->SetWake(nullptr);
  if (audio_sub_) audio_sub_->SetWake(nullptr);
  if (stream_ && video_sub_) stream_->frames().Unsubscribe(video_sub_);
  if (stream_ && audio_sub_) stream_->audio().Unsubscribe(audio_sub_);
  video_sub_.reset();
  audio_sub_.reset();
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
  queued_.StartSection();
  QueueInterleaved(video_rtcp_channel_, BuildGoodbye(video_ssrc_, ntp_time, video_rtp_time_,
                                                     video_packets_, video_octets_));
  if (audio_sub_) {
    QueueInterleaved(audio_rtcp_channel_, BuildGoodbye(audio_ssrc_, ntp_time, audio_rtp_time_,
                                                       audio_packets_, audio_octets_));
  }
  LOG_INFO("client={} stream ended, goodbye sent", client_);
  end_after_write_ = true;
  Unsubscribe();
  Flush();
}

// A player that has not taken the last write gets nothing more until it does: its buses drop
// for it meanwhile, by their rules, and the other players are not touched.
void RtspConnection::Deliver() {
  wake_pending_.store(false);
  if (closed_ || !playing_ || writing_ || end_after_write_ || !video_sub_) return;
  if (StreamEnded()) {
    SayGoodbye();
    return;
  }
  const std::size_t step = queued_.StartSection();
  QueueAudio();
  QueueVideo();
  const auto now = std::chrono::steady_clock::now();
  QueueSenderReports(now, step);
  LogStatistics(now);
  Flush();
}

void RtspConnection::QueueInterleaved(std::uint8_t channel, std::span<const std::uint8_t> packet) {
  std::uint8_t* head = queued_.AppendOwnSpace(4 + packet.size());
  head[0] = '$';
  head[1] = channel;
  head[2] = static_cast<std::uint8_t>(packet.size() >> 8);
  head[3] = static_cast<std::uint8_t>(packet.size());
  std::copy(packet.begin(), packet.end(), head + 4);
}

// Each packet: the interleaving and the player's own RTP header, then the shared payload.
void RtspConnection::QueuePackets(const SharedPackets& packets, std::uint8_t channel,
                                  std::uint16_t& sequence, std::uint32_t timestamp,
                                  std::uint32_t ssrc, std::uint32_t& count, std::uint32_t& octets) {
  for (const media::Bytes& packet : *packets) {
    std::uint8_t* head = queued_.AppendOwnSpace(4 + media::kRtpHeaderSize);
    head[0] = '$';
    head[1] = channel;
    head[2] = static_cast<std::uint8_t>(packet.size() >> 8);
    head[3] = static_cast<std::uint8_t>(packet.size());
    WriteRtpHeader(packet, sequence++, timestamp, ssrc, head + 4);
    queued_.AppendShared(std::span(packet).subspan(media::kRtpHeaderSize), packets);
    ++count;
    octets += static_cast<std::uint32_t>(packet.size() - media::kRtpHeaderSize);
  }
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
    QueuePackets(context_.packets.Audio(unit), audio_rtp_channel_, audio_sequence_, audio_rtp_time_,
                 audio_ssrc_, audio_packets_, audio_octets_);
    ++audio_sent_;
  }
}

void RtspConnection::QueueVideo() {
  while (const auto frame = video_sub_->TryPop()) {
    if (first_timestamp_ < 0) first_timestamp_ = frame->pts_100ns;
    const std::int64_t delta = frame->pts_100ns - first_timestamp_;
    video_rtp_time_ = rtp_base_ + static_cast<std::uint32_t>(ScaleRounded(delta, 9, 1000));
    QueuePackets(context_.packets.Video(frame), video_rtp_channel_, video_sequence_, video_rtp_time_,
                 video_ssrc_, video_packets_, video_octets_);
    ++frames_sent_;
    if (frame->keyframe) ++keyframes_sent_;
  }
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
  const streams::FrameBus::LiveEdge edge = stream_->frames().live_edge();
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
void RtspConnection::QueueSenderReports(SteadyTime now, std::size_t step) {
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
  const std::size_t reports = queued_.StartSection();
  QueueInterleaved(video_rtcp_channel_, BuildSenderReport(video_ssrc_, ntp_time, video_rtp_time,
                                                          video_packets_, video_octets_));
  if (audio_sub_ && audio_packets_ != 0) {
    QueueInterleaved(audio_rtcp_channel_, BuildSenderReport(audio_ssrc_, ntp_time, audio_rtp_time,
                                                            audio_packets_, audio_octets_));
    audio_reported_ = true;
  }
  queued_.MoveToFront(step, reports);
  last_report_ = now;
}

void RtspConnection::Flush() {
  if (closed_ || writing_) return;
  if (queued_.empty()) {
    if (end_after_write_) Close();
    return;
  }
  std::swap(in_flight_, queued_);
  queued_.Clear();
  unwritten_ = in_flight_.Buffers();
  writing_ = true;
  write_started_ = std::chrono::steady_clock::now();
  write_progress_ = write_started_;
  WriteSome();
}

// The write goes out as the socket takes it, so that the send time-out counts from the last
// progress: a player that reads slowly but steadily is not ended while a big backlog goes out.
void RtspConnection::WriteSome() {
  socket_.async_write_some(unwritten_, [self = shared_from_this()](const boost::system::error_code& error,
                                                                   std::size_t size) {
    self->OnWrote(error, size);
  });
}

void RtspConnection::OnWrote(const boost::system::error_code& error, std::size_t size) {
  if (closed_) {
    writing_ = false;
    in_flight_.Clear();
    return;
  }
  if (error) {
    writing_ = false;
    in_flight_.Clear();
    LOG_DEBUG("client {} send failed: {}", client_, error.message());
    Close();
    return;
  }
  write_progress_ = std::chrono::steady_clock::now();
  std::size_t taken = 0;
  while (taken < unwritten_.size() && size >= unwritten_[taken].size()) size -= unwritten_[taken++].size();
  unwritten_.erase(unwritten_.begin(), unwritten_.begin() + static_cast<std::ptrdiff_t>(taken));
  if (!unwritten_.empty()) {
    unwritten_.front() += size;
    WriteSome();
    return;
  }
  OnWritten();
}

void RtspConnection::OnWritten() {
  writing_ = false;
  in_flight_.Clear();
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now() - write_started_)
                        .count();
  worst_write_us_ = std::max<std::int64_t>(worst_write_us_, took);
  if (playing_ && !end_after_write_) {
    Deliver();
  } else {
    Flush();
  }
}

void RtspConnection::LogStatistics(SteadyTime now) {
  if (now - last_stats_ < kStatisticsInterval) return;
  const double seconds = std::chrono::duration<double>(now - last_stats_).count();
  const double fps = static_cast<double>(frames_sent_ - frames_at_last_stats_) / seconds;
  const std::uint64_t dropped = video_sub_ ? video_sub_->Dropped() : 0;
  const std::uint64_t audio_dropped = audio_sub_ ? audio_sub_->Dropped() : 0;
  LOG_INFO("client {} delivered {:.1f} fps ({} frames, {} keyframes, {} dropped, worst send {} us, "
           "{} RTCP in), audio {} AUs ({} dropped, {} predating the first frame)",
           client_, fps, frames_sent_, keyframes_sent_, dropped, worst_write_us_, rtcp_in_,
           audio_sent_, audio_dropped, audio_early_);
  if (dropped != 0 && fps < kKeyframeRateFps) {
    LOG_WARN("client {} is only keeping up with about the keyframe rate. The client is reading "
             "slower than we produce, so the frame bus resyncs every GOP and the client sees "
             "roughly one frame per keyframe.",
             client_);
  }
  frames_at_last_stats_ = frames_sent_;
  last_stats_ = now;
  worst_write_us_ = 0;
}

}  // namespace mirell::rtsp
