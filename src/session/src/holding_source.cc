#include "mirell/session/holding_source.h"

#include <chrono>
#include <exception>

#include "mirell/base/logging.h"
#include "mirell/base/media_time.h"
#include "mirell/base/thread_name.h"
#include "mirell/encode/aac_encoder.h"
#include "mirell/encode/h264_encoder.h"
#include "mirell/session/holding_card.h"

namespace mirell::session {
HoldingClip::HoldingClip(HoldingClipConfig config, std::function<void()> on_ready)
    : config_(std::move(config)), on_ready_(std::move(on_ready)) {
  builder_ = std::thread([this] {
    NameThisThread("card-build");
    Build();
  });
}

HoldingClip::~HoldingClip() {
  // A program that quits right after starting does not wait for a card nobody will see.
  abandoned_ = true;
  builder_.join();
}

bool HoldingClip::WaitReady(int ms) const {
  std::unique_lock lock(mutex_);
  return ready_changed_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return ready_.load(); });
}

std::vector<std::uint8_t> HoldingClip::SequenceHeader() const {
  std::lock_guard lock(mutex_);
  return sequence_header_;
}

std::vector<encode::EncodedFrame> HoldingClip::Frames() const {
  std::lock_guard lock(mutex_);
  return frames_;
}

std::vector<std::uint8_t> HoldingClip::Silence() const {
  std::lock_guard lock(mutex_);
  return silence_;
}

void HoldingClip::MarkReady() {
  {
    // Under the lock, so that a waiter cannot miss the change between its test and its wait.
    std::lock_guard lock(mutex_);
    ready_.store(true);
  }
  ready_changed_.notify_all();
}

void HoldingClip::Build() {
  // Nothing may leave the builder's thread: the card is cosmetic, and watches play without it.
  try {
    BuildClip();
  } catch (const std::exception& error) {
    LOG_ERROR("could not build the holding card: {}; viewers wait without it", error.what());
  }
  MarkReady();
  if (on_ready_ && !abandoned_.load()) on_ready_();
}

void HoldingClip::BuildClip() {
  // The card first: without a surface to draw on there is nothing to encode.
  HoldingCard card(config_.width, config_.height, config_.title);
  std::unique_ptr<encode::H264Encoder> encoder;
  try {
    encoder = encode::CreateH264Encoder(encode::LiveStreamConfig(
        config_.width, config_.height, config_.fps, config_.bitrate_kbps, encode::H264Profile::kMain));
  } catch (const std::exception& error) {
    LOG_WARN("h264 unavailable: {}", error.what());
    return;
  }

  const std::uint64_t total = static_cast<std::uint64_t>(config_.fps) * config_.seconds;
  const std::int64_t frame_duration = kTicksPerSecond / config_.fps;
  std::vector<encode::EncodedFrame> frames;
  try {
    // Exactly one loop of pictures; an encoder that holds frames back gives them up at Drain.
    for (std::uint64_t i = 0; i < total; ++i) {
      if (abandoned_.load()) {
        LOG_DEBUG("card build abandoned at frame {}", i);
        return;
      }
      const auto picture = card.Render(static_cast<double>(i) / static_cast<double>(total));
      encoder->Encode(picture, static_cast<std::int64_t>(i) * frame_duration, frames);
    }
    encoder->Drain(frames);
  } catch (const std::exception& error) {
    LOG_WARN("encode failed ({})", error.what());
  }
  while (!frames.empty() && !frames.front().keyframe) frames.erase(frames.begin());
  const auto header = encoder->sequence_header();
  std::vector<std::uint8_t> sequence_header(header.begin(), header.end());
  if (frames.empty() || sequence_header.empty()) {
    LOG_WARN("card empty, no parameter sets");
    return;
  }
  BuildAudio();
  bool have_silence = false;
  const std::size_t count = frames.size();
  {
    std::lock_guard lock(mutex_);
    frames_ = std::move(frames);
    sequence_header_ = std::move(sequence_header);
    have_silence = !silence_.empty();
  }
  LOG_INFO("card frames={} silence={}", count, have_silence);
}

void HoldingClip::BuildAudio() {
  std::unique_ptr<encode::AacEncoder> encoder;
  try {
    encoder = encode::CreateAacEncoder({config_.sample_rate, config_.channels, config_.audio_bitrate_kbps * 1000});
  } catch (const std::exception& error) {
    LOG_WARN("aac unavailable: {}", error.what());
    return;
  }
  const std::vector<float> zeros(static_cast<std::size_t>(config_.channels) * encode::kAacFrameSamples, 0.0f);
  const std::int64_t block_100ns = static_cast<std::int64_t>(encode::kAacFrameSamples) * kTicksPerSecond / config_.sample_rate;
  std::vector<encode::EncodedAudioFrame> units;
  try {
    for (std::uint32_t i = 0; i < config_.sample_rate / encode::kAacFrameSamples + 2; ++i) {
      encoder->Encode(zeros, static_cast<std::int64_t>(i) * block_100ns, units);
    }
    encoder->Drain(units);
  } catch (const std::exception& error) {
    LOG_WARN("aac unavailable: {}", error.what());
    return;
  }
  if (units.empty() || units.back().data.empty()) {
    LOG_WARN("card silence empty");
    return;
  }
  std::lock_guard lock(mutex_);
  silence_ = units.back().data;
}

HoldingSource::HoldingSource(streams::FrameBus& frames, streams::AudioBus& audio, const HoldingClip& clip)
    : frames_bus_(frames),
      audio_bus_(audio),
      clip_(clip.Frames()),
      silence_(clip.Silence()),
      frame_duration_(kTicksPerSecond / clip.config().fps),
      audio_duration_(static_cast<std::int64_t>(encode::kAacFrameSamples) * kTicksPerSecond /
                      clip.config().sample_rate) {}

HoldingSource::~HoldingSource() { Stop(); }

void HoldingSource::Start() {
  if (clip_.empty()) return;
  if (running_.exchange(true)) return;
  thread_ = std::thread([this] {
    NameThisThread("card-play");
    Run();
  });
}

void HoldingSource::Stop() {
  running_.store(false);
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void HoldingSource::Run() {
  try {
    Play();
  } catch (const std::exception& error) {
    LOG_ERROR("the holding card stopped: {}", error.what());
  }
}

void HoldingSource::Play() {
  const auto interval = std::chrono::nanoseconds(frame_duration_ * 100);
  // The card starts as if it had played for a moment already: the first pictures go out at once,
  // so a player that opens the stream just after it is made (as VRChat's does, straight after the
  // resolve) finds a backlog to start from, as on a stream that has run for a while, instead of
  // waiting for the pictures a player reads before it shows the first (ffmpeg's take 130-180 ms).
  auto deadline = std::chrono::steady_clock::now() - interval * kHeadStartFrames;
  std::uint64_t index = 0;
  std::int64_t audio_time = 0;
  while (running_.load()) {
    const auto& source = clip_[index % clip_.size()];
    auto frame = std::make_shared<encode::EncodedFrame>();
    frame->data = source.data;
    frame->keyframe = source.keyframe;
    frame->pts_100ns = static_cast<std::int64_t>(index) * frame_duration_;
    frame->duration_100ns = frame_duration_;
    last_timestamp_.store(frame->pts_100ns);
    frames_bus_.Publish(frame);
    frames_played_.fetch_add(1);
    ++index;
    deadline += interval;
    // Audio at most one unit ahead of the picture.
    while (!silence_.empty() && audio_time <= frame->pts_100ns) {
      auto unit = std::make_shared<encode::EncodedAudioFrame>();
      unit->data = silence_;
      unit->pts_100ns = audio_time;
      unit->duration_100ns = audio_duration_;
      audio_bus_.Publish(unit);
      audio_time += audio_duration_;
    }
    // Absolute deadlines: a late turn is caught up by not sleeping, so the clip does not drift.
    if (std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_until(deadline);
  }
  LOG_DEBUG("stopped frames={}", frames_played_.load());
}

}  // namespace mirell::session
