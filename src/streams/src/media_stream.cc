#include "mirell/streams/media_stream.h"

#include <chrono>

namespace mirell::streams {

namespace {
constexpr std::uint32_t kDefaultFps = 30;
}  // namespace

MediaStream::MediaStream(std::string label, int fps, unsigned bitrate_kbps)
    : label_(std::move(label)),
      fps_(fps == 0 ? kDefaultFps : static_cast<std::uint32_t>(fps)),
      bitrate_kbps_(bitrate_kbps) {}

void MediaStream::SetVideoParameters(int fps, unsigned bitrate_kbps) {
  if (fps != 0) fps_.store(static_cast<std::uint32_t>(fps));
  if (bitrate_kbps != 0) bitrate_kbps_.store(bitrate_kbps);
}

void MediaStream::SetSequenceHeader(std::span<const std::uint8_t> annex_b) {
  {
    std::lock_guard lock(mutex_);
    sequence_header_.assign(annex_b.begin(), annex_b.end());
  }
  described_changed_.notify_all();
}

bool MediaStream::WaitSequenceHeader(int ms) {
  std::unique_lock lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  described_changed_.wait_until(lock, deadline, [this] { return !sequence_header_.empty(); });
  return !sequence_header_.empty();
}

std::vector<std::uint8_t> MediaStream::SequenceHeader() const {
  std::lock_guard lock(mutex_);
  return sequence_header_;
}

void MediaStream::SetAudio(AudioConfig config) {
  std::lock_guard lock(mutex_);
  audio_config_ = std::move(config);
}

std::optional<AudioConfig> MediaStream::Audio() const {
  std::lock_guard lock(mutex_);
  return audio_config_;
}

void MediaStream::SetPriming(std::uint64_t frames, std::uint64_t ms) {
  {
    std::lock_guard lock(mutex_);
    prime_frames_ = frames;
    prime_ms_ = ms;
  }
  if (frames != 0) frames_.SetHistory(frames + 3 * static_cast<std::uint64_t>(fps_.load()));
}

void MediaStream::SetKeyframeRequester(std::function<void()> requester) {
  std::lock_guard lock(mutex_);
  keyframe_requester_ = std::move(requester);
}

void MediaStream::RequestKeyframe() {
  std::function<void()> requester;
  {
    std::lock_guard lock(mutex_);
    requester = keyframe_requester_;
  }
  if (requester) requester();
}

void MediaStream::ExpectDescription() {
  std::lock_guard lock(mutex_);
  described_ = false;
}

void MediaStream::MarkDescribed() {
  {
    std::lock_guard lock(mutex_);
    described_ = true;
  }
  described_changed_.notify_all();
}

bool MediaStream::IsDescribed() const {
  std::lock_guard lock(mutex_);
  return described_;
}

bool MediaStream::WaitDescribed(int ms) {
  std::unique_lock lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  described_changed_.wait_until(lock, deadline, [this] { return described_; });
  return described_;
}

std::uint64_t MediaStream::prime_frames() const {
  std::lock_guard lock(mutex_);
  return prime_frames_;
}

std::uint64_t MediaStream::prime_ms() const {
  std::lock_guard lock(mutex_);
  return prime_ms_;
}

}  // namespace mirell::streams
