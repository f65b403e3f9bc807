#include "fixture_publisher.h"

#include <chrono>
#include <stdexcept>

#include "interop_support.h"
#include "mirell/media/nal.h"

namespace mirell::rtsp::testing {
namespace {

constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kAudioSamples = 1024;
constexpr std::int64_t kAudioRate = 48000;

bool HasNalOfType(const std::vector<std::uint8_t>& unit, int type) {
  for (const auto nal : media::SplitAnnexB(unit)) {
    if (!nal.empty() && (nal[0] & 0x1F) == type) return true;
  }
  return false;
}

}  // namespace

FixturePublisher::FixturePublisher(const std::filesystem::path& dir,
                                   std::shared_ptr<streams::MediaStream> stream, FixtureOptions options)
    : stream_(std::move(stream)), options_(options) {
  video_units_ = media::testing::SplitAtDelimiters(media::testing::ReadBytes(
      media::testing::MakeH264Fixture(dir, options_.frames, options_.width, options_.height,
                                      options_.video_kbps, options_.video_source)));
  if (video_units_.empty()) throw std::runtime_error("the H.264 fixture has no access units");
  for (const auto& unit : video_units_) keyframes_.push_back(HasNalOfType(unit, 5));

  std::vector<std::uint8_t> header;
  for (const auto nal : media::SplitAnnexB(video_units_.front())) {
    const int type = nal.empty() ? 0 : nal[0] & 0x1F;
    if (type != 7 && type != 8) continue;
    header.insert(header.end(), {0, 0, 0, 1});
    header.insert(header.end(), nal.begin(), nal.end());
  }
  stream_->SetSequenceHeader(header);
  stream_->SetPriming(static_cast<std::uint64_t>(options_.prime_ms) * 30 / 1000, options_.prime_ms);
  if (options_.audio) {
    audio_units_ = media::testing::ParseAdts(media::testing::ReadBytes(
        media::testing::MakeAacFixture(dir, options_.frames / 30.0 + 0.2, options_.audio_source)));
    stream_->SetAudio(streams::AudioConfig{48000, 2, 128, {}});
    stream_->audio().SetHistory(100);
  }
}

FixturePublisher::~FixturePublisher() { Stop(); }

void FixturePublisher::Start() {
  if (running_.exchange(true)) return;
  thread_ = std::thread([this] { Run(); });
}

void FixturePublisher::Stop() {
  if (!running_.exchange(false)) return;
  thread_.join();
}

void FixturePublisher::Run() {
  const auto start = std::chrono::steady_clock::now();
  const std::int64_t frame_ticks = kTicksPerSecond / 30;
  const std::int64_t audio_ticks = kAudioSamples * kTicksPerSecond / kAudioRate;
  std::uint64_t video_index = 0, audio_index = 0;
  std::uint64_t unit_offset = 0;  // Grows when a keyframe request skips ahead in the fixture.
  while (running_.load()) {
    const std::int64_t video_pts = static_cast<std::int64_t>(video_index) * frame_ticks;
    // From the sample count, so that 1024-sample steps do not accumulate rounding.
    const std::int64_t audio_sample =
        static_cast<std::int64_t>(audio_index) * kAudioSamples - (options_.sound_on_time ? kAudioSamples : 0);
    const std::int64_t audio_pts = audio_sample * kTicksPerSecond / kAudioRate;
    const bool video_next = audio_units_.empty() || video_pts <= audio_pts;
    const std::int64_t pts = video_next ? video_pts : audio_pts;
    std::this_thread::sleep_until(start + std::chrono::microseconds(pts / 10));
    if (video_next) {
      auto frame = std::make_shared<encode::EncodedFrame>();
      if (keyframe_requested_.exchange(false)) {
        while (!keyframes_[(video_index + unit_offset) % video_units_.size()]) ++unit_offset;
      }
      const std::size_t at = (video_index + unit_offset) % video_units_.size();
      frame->data = video_units_[at];
      frame->keyframe = keyframes_[at];
      frame->pts_100ns = video_pts;
      frame->duration_100ns = frame_ticks;
      stream_->frames().Publish(frame);
      ++video_index;
      video_published_.store(video_index);
    } else {
      auto unit = std::make_shared<encode::EncodedAudioFrame>();
      unit->data = audio_units_[audio_index % audio_units_.size()];
      unit->pts_100ns = audio_pts;
      unit->duration_100ns = audio_ticks;
      stream_->audio().Publish(unit);
      ++audio_index;
    }
  }
}

}  // namespace mirell::rtsp::testing
