#include "mirell/session/peer_sender.h"

#include "mirell/base/clock.h"
#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"

namespace mirell::session {
namespace {

constexpr std::uint64_t kVideoQueue = 8;   // Frames; overflow resyncs at the next keyframe.
constexpr std::uint64_t kAudioQueue = 32;  // Units; overflow drops the oldest.
constexpr int kVideoWaitMs = 10;           // Also bounds how long audio waits when video is idle.

}  // namespace

PeerSender::PeerSender(transport::PeerLink* link, streams::FrameBus* frames,
                       streams::AudioBus* audio, unsigned audio_clock)
    : link_(link),
      frames_(frames),
      audio_(audio),
      audio_clock_(audio_clock),
      video_packetizer_({96, transport::kVideoSsrc, transport::kMaxRtpPacketSize, 0}),
      audio_packetizer_({97, transport::kAudioSsrc, transport::kMaxRtpPacketSize, 0}) {}

PeerSender::~PeerSender() { Stop(); }

bool PeerSender::Start() {
  // Start comes from a link's thread (the link connected) and Stop from the interface thread:
  // under one lock, a Stop can never find the thread half made, nor a late Start revive it.
  std::lock_guard lock(lifecycle_mutex_);
  if (stopped_ || thread_.joinable()) return false;
  running_.store(true);
  thread_ = std::thread([this] {
    NameThisThread("peer-sender");
    Run();
    finished_.store(true);
  });
  return true;
}

void PeerSender::Stop() {
  std::lock_guard lock(lifecycle_mutex_);
  if (stopped_) return;
  stopped_ = true;
  running_.store(false);
  if (!thread_.joinable()) return;
  thread_.join();
  LOG_INFO("frames={} au={} bytes={:.1f}MiB", frames_sent_.load(), units_sent_.load(),
           static_cast<double>(bytes_sent_.load()) / 1048576.0);
}

std::int64_t PeerSender::AudioRtpTime(std::int64_t t, std::int64_t base, unsigned clock) {
  return (static_cast<std::int64_t>(clock) * (t - base) + 5000000) / 10000000;
}

std::int64_t PeerSender::VideoRtpTime(std::int64_t t, std::int64_t base) {
  const std::int64_t delta = t - base;
  return delta >= 0 ? (delta * 9 + 500) / 1000 : -((-delta * 9 + 500) / 1000);
}

void PeerSender::Run() {
  auto video = frames_->Subscribe(kVideoQueue, 0);
  std::shared_ptr<streams::AudioBus::Subscription> audio;
  if (audio_ != nullptr) audio = audio_->Subscribe(kAudioQueue, -1);

  std::int64_t base = -1;
  while (running_.load()) {
    if (base >= 0 && audio) SendAudio(*audio, base);
    encode::EncodedFramePtr frame = video->Pop(kVideoWaitMs);
    if (!frame) {
      // A closed subscription returns at once: waiting on it would spin a core.
      if (video->Closed()) break;
      continue;
    }
    if (base < 0) base = frame->pts_100ns;
    SendVideo(frame, base);
  }

  frames_->Unsubscribe(video);
  if (audio_ != nullptr) audio_->Unsubscribe(audio);
}

void PeerSender::SendAudio(streams::AudioBus::Subscription& subscription, std::int64_t base) {
  while (encode::EncodedAudioFramePtr unit = subscription.TryPop()) {
    if (unit->pts_100ns < base) continue;  // From before this viewer's first frame.
    const auto rtp = static_cast<std::uint32_t>(AudioRtpTime(unit->pts_100ns, base, audio_clock_));
    packets_.clear();
    audio_packetizer_.Packetize(unit->data, rtp, packets_);
    for (const media::Bytes& packet : packets_) {
      if (link_->SendAudio(packet)) bytes_sent_ += packet.size();
    }
    ++units_sent_;
  }
}

void PeerSender::SendVideo(const encode::EncodedFramePtr& frame, std::int64_t base) {
  // The RTP clock wraps by design: the low 32 bits are the time stamp.
  const auto rtp = static_cast<std::uint32_t>(VideoRtpTime(frame->pts_100ns, base));
  packets_.clear();
  video_packetizer_.Packetize(frame->data, rtp, packets_);
  std::uint64_t accepted = 0;
  for (const media::Bytes& packet : packets_) {
    if (link_->SendVideo(packet)) {
      bytes_sent_ += packet.size();
      ++accepted;
    }
  }
  if (accepted > 0) {
    if (first_picture_at_.load() == 0) {
      first_picture_at_ = SteadyNowNs();
      LOG_INFO("first frame packets={}", accepted);
    }
  } else {
    ++refused_;
    if (refused_ == 1 || refused_ == 30 || refused_ % 300 == 0) {
      LOG_WARN("video track closed, refused={}", refused_);
    }
  }
  ++frames_sent_;
}

}  // namespace mirell::session
