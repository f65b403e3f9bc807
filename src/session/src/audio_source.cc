#include "mirell/session/audio_source.h"

#include "mirell/base/error.h"
#include "mirell/base/logging.h"

namespace mirell::session {

AudioSource::AudioSource(std::unique_ptr<capture::IAudioCapturer> capturer,
                         std::unique_ptr<encode::AacEncoder> encoder, streams::AudioBus& bus)
    : capturer_(std::move(capturer)), encoder_(std::move(encoder)), bus_(bus) {
  MIRELL_CHECK(capturer_ != nullptr, "an audio source needs a capturer");
  MIRELL_CHECK(encoder_ != nullptr, "an audio source needs an encoder");
  const auto& format = capturer_->format();
  MIRELL_CHECK(format.sample_rate == encoder_->sample_rate() && format.channels == encoder_->channels(),
               "capture is {} Hz / {} ch but the encoder is {} Hz / {} ch", format.sample_rate, format.channels,
               encoder_->sample_rate(), encoder_->channels());
}

AudioSource::~AudioSource() { Stop(); }

void AudioSource::SetEpoch(std::atomic<std::int64_t>* epoch) { epoch_ = epoch; }
void AudioSource::SetMono(bool mono) { mono_ = mono; }

void AudioSource::Start() {
  if (running_.exchange(true)) return;
  capturer_->Start([this](const capture::AudioBuffer& buffer) { OnAudio(buffer); });
}

void AudioSource::Stop() {
  if (!running_.exchange(false)) return;
  capturer_->Stop();
  {
    std::lock_guard lock(mutex_);
    units_.clear();
    try {
      encoder_->Drain(units_);
    } catch (const std::exception& error) {
      LOG_WARN("Drain failed: {}", error.what());
    }
    Publish();
  }
  const Counters c = counters();
  LOG_INFO("buffers={} au={} dropped_early={}", c.buffers, c.units_out, c.dropped_early);
}

AudioSource::Counters AudioSource::counters() const {
  return {buffers_.load(), units_out_.load(), dropped_early_.load()};
}

void AudioSource::OnAudio(const capture::AudioBuffer& buffer) {
  if (!running_ || buffer.frames == 0) return;
  ++buffers_;
  if (!has_base_) {
    if (epoch_ != nullptr) {
      const std::int64_t epoch = epoch_->load();
      // The picture has not started: sound must not run ahead of it.
      if (epoch == 0) {
        ++dropped_early_;
        return;
      }
      base_time_ = epoch;
    } else {
      base_time_ = buffer.timestamp;
    }
    has_base_ = true;
  }
  const std::int64_t pts = buffer.timestamp - base_time_;
  if (pts < 0) {
    ++dropped_early_;
    return;
  }
  const std::uint32_t channels = capturer_->format().channels;
  const std::size_t count = static_cast<std::size_t>(buffer.frames) * channels;
  std::span<const float> samples(buffer.samples, count);
  if (mono_ && channels >= 2) {
    mix_.resize(count);
    for (std::size_t frame = 0; frame < buffer.frames; ++frame) {
      float sum = 0.0f;
      for (std::uint32_t c = 0; c < channels; ++c) sum += samples[frame * channels + c];
      const float average = sum / static_cast<float>(channels);
      for (std::uint32_t c = 0; c < channels; ++c) mix_[frame * channels + c] = average;
    }
    samples = mix_;
  }
  std::lock_guard lock(mutex_);
  units_.clear();
  try {
    encoder_->Encode(samples, pts, units_);
  } catch (const std::exception& error) {
    LOG_WARN("Encode failed: {}", error.what());
    return;
  }
  Publish();
}

void AudioSource::Publish() {
  for (auto& unit : units_) {
    ++units_out_;
    bus_.Publish(std::make_shared<const encode::EncodedAudioFrame>(std::move(unit)));
  }
  units_.clear();
}

}  // namespace mirell::session
