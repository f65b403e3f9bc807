#include "mirell/session/peer_receiver.h"

#include <memory>

#include "mirell/base/logging.h"
#include "mirell/media/nal.h"

namespace mirell::session {

std::int64_t TimestampUnwrapper::Next(std::uint32_t value) {
  if (!started) {
    started = true;
    last = value;
    return value;
  }
  if (value < last && last - value > 0x80000000u) {
    ++epoch;  // The clock wrapped.
  } else if (value > last && value - last > 0x80000000u) {
    if (epoch > 0) --epoch;  // A late packet from before a wrap.
  }
  last = value;
  return static_cast<std::int64_t>(value) + (epoch << 32);
}

PeerReceiver::PeerReceiver(transport::PeerLink* link, streams::FrameBus* frames,
                           streams::AudioBus* audio, unsigned audio_clock)
    : link_(link), frames_(frames), audio_(audio), audio_clock_(audio_clock) {}

void PeerReceiver::SetFirstVideoHandler(std::function<std::int64_t()> handler) {
  on_first_video_ = std::move(handler);
}

void PeerReceiver::SetSequenceHeaderHandler(std::function<void(ByteSpan)> handler) {
  on_sequence_header_ = std::move(handler);
}

void PeerReceiver::Start() {
  link_->OnVideo([this](ByteSpan packet) { OnVideo(packet); });
  link_->OnAudio([this](ByteSpan packet) { OnAudio(packet); });
}

void PeerReceiver::OnVideo(ByteSpan packet) {
  media::H264AccessUnit unit;
  if (!video_.Push(packet, unit)) return;
  const std::int64_t extended = video_unwrap_.Next(unit.rtp_timestamp);
  const std::int64_t t = (extended * 1000 + 4) / 9;  // 90 kHz to 100 ns, to nearest.
  const bool first = !first_video_seen_;
  const std::int64_t base = first ? t : base_.load(std::memory_order_relaxed);
  const std::int64_t relative = t - base;

  if (unit.keyframe) {
    media::Bytes parameter_sets;
    for (media::ByteSpan nal : media::SplitAnnexB(unit.annex_b)) {
      const int type = nal.empty() ? 0 : nal[0] & 0x1F;
      if (type == 7 || type == 8) media::AppendNal(parameter_sets, nal);
    }
    if (!parameter_sets.empty()) {
      bool changed = false;
      {
        std::lock_guard hold(lock_);
        if (parameter_sets != sequence_header_) {
          sequence_header_ = parameter_sets;
          changed = true;
        }
      }
      if (changed && on_sequence_header_) on_sequence_header_(parameter_sets);
    }
  }

  if (first) {
    first_video_seen_ = true;
    if (on_first_video_) {
      const std::int64_t resume = on_first_video_();
      if (resume > relative) {
        offset_.store(resume - relative, std::memory_order_relaxed);
        LOG_INFO("resume offset={}ms", (resume - relative) / 10000);
      }
    }
    // The audio thread starts once it sees the base, and then sees the offset too.
    base_.store(base, std::memory_order_release);
  }

  auto frame = std::make_shared<encode::EncodedFrame>();
  frame->data = std::move(unit.annex_b);
  frame->pts_100ns = relative + offset_.load(std::memory_order_relaxed);
  frame->duration_100ns = 0;
  frame->keyframe = unit.keyframe;
  ++video_units_;
  frames_->Publish(std::move(frame));
}

void PeerReceiver::OnAudio(ByteSpan packet) {
  media::AacAccessUnit unit;
  if (!audio_depacketizer_.Push(packet, unit)) return;
  const std::int64_t base = base_.load(std::memory_order_acquire);
  if (base < 0) {  // Only the first video unit sets the timeline.
    ++audio_units_before_video_;
    return;
  }
  const unsigned clock = audio_clock_.load();
  if (clock == 0) return;
  const std::int64_t t = audio_unwrap_.Next(unit.rtp_timestamp) * 10000000 / clock;
  const std::int64_t relative = t - base;
  if (relative < 0) {  // Older than the first video frame.
    ++audio_units_before_video_;
    return;
  }

  auto frame = std::make_shared<encode::EncodedAudioFrame>();
  frame->data = std::move(unit.bytes);
  frame->pts_100ns = relative + offset_.load(std::memory_order_relaxed);
  frame->duration_100ns = std::int64_t{1024} * 10000000 / static_cast<std::int64_t>(clock);
  ++audio_units_;
  audio_->Publish(std::move(frame));
}

std::vector<std::uint8_t> PeerReceiver::SequenceHeader() const {
  std::lock_guard hold(lock_);
  return sequence_header_;
}

}  // namespace mirell::session
