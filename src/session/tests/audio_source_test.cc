// The audio source with a capturer the test drives, the real audio bus, and either a recording
// encoder (exact times, samples and failures) or the real AAC encoder.
#include "mirell/session/audio_source.h"

#include <gtest/gtest.h>

#include <mutex>
#include <stdexcept>

#include "fake_audio_capturer.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/media_time.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::session {
namespace {

// One unit for every buffer, timed by the pts it was given; Drain gives one "tail" unit.
class RecordingAacEncoder final : public encode::AacEncoder {
 public:
  RecordingAacEncoder(std::uint32_t rate = 48000, std::uint32_t channels = 2) : rate_(rate), channels_(channels) {}
  void Encode(std::span<const float> interleaved, std::int64_t pts_100ns,
              std::vector<encode::EncodedAudioFrame>& out) override {
    ++calls;
    if (fail_next) {
      fail_next = false;
      throw std::runtime_error("the encoder refused these samples");
    }
    samples.assign(interleaved.begin(), interleaved.end());
    encode::EncodedAudioFrame unit;
    unit.data = {1, 2, 3};
    unit.pts_100ns = pts_100ns;
    out.push_back(std::move(unit));
  }
  void Drain(std::vector<encode::EncodedAudioFrame>& out) override {
    encode::EncodedAudioFrame tail;
    tail.data = {0xEE};
    tail.pts_100ns = -1;
    out.push_back(std::move(tail));
  }
  std::span<const std::uint8_t> audio_specific_config() const override { return {}; }
  std::uint32_t sample_rate() const override { return rate_; }
  std::uint32_t channels() const override { return channels_; }
  std::uint32_t bitrate_bps() const override { return 128'000; }
  const std::string& name() const override { return name_; }

  int calls = 0;
  bool fail_next = false;
  std::vector<float> samples;

 private:
  std::uint32_t rate_, channels_;
  std::string name_ = "recording";
};

std::vector<float> Stereo(std::size_t frames, float left, float right) {
  std::vector<float> samples;
  for (std::size_t i = 0; i < frames; ++i) {
    samples.push_back(left);
    samples.push_back(right);
  }
  return samples;
}

class AudioSourceTest : public ::testing::Test {
 protected:
  std::unique_ptr<AudioSource> MakeSource(capture::AudioFormat format = {}) {
    auto capturer = std::make_unique<capture::FakeAudioCapturer>(format);
    capturer_ = capturer.get();
    auto encoder = std::make_unique<RecordingAacEncoder>(format.sample_rate, format.channels);
    encoder_ = encoder.get();
    return std::make_unique<AudioSource>(std::move(capturer), std::move(encoder), bus_);
  }
  std::vector<encode::EncodedAudioFramePtr> Published() {
    std::vector<encode::EncodedAudioFramePtr> units;
    while (auto unit = reader_->TryPop()) units.push_back(std::move(unit));
    return units;
  }

  streams::AudioBus bus_;
  std::shared_ptr<streams::AudioBus::Subscription> reader_ = bus_.Subscribe(256, -1);
  capture::FakeAudioCapturer* capturer_ = nullptr;
  RecordingAacEncoder* encoder_ = nullptr;
};

TEST_F(AudioSourceTest, AMissingPartOrAFormatMismatchIsAFailedCheck) {
  EXPECT_THROW(AudioSource(nullptr, std::make_unique<RecordingAacEncoder>(), bus_), Error);
  EXPECT_THROW(AudioSource(std::make_unique<capture::FakeAudioCapturer>(), nullptr, bus_), Error);
  try {
    AudioSource(std::make_unique<capture::FakeAudioCapturer>(capture::AudioFormat{44100, 2}),
                std::make_unique<RecordingAacEncoder>(48000, 2), bus_);
    ADD_FAILURE() << "a 44.1 kHz capture into a 48 kHz encoder was accepted";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("capture is 44100 Hz / 2 ch but the encoder is 48000 Hz / 2 ch"),
              std::string::npos)
        << error.what();
  }
}

TEST_F(AudioSourceTest, WithoutAnEpochTheFirstBufferIsTimeZero) {
  auto source = MakeSource();
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 5'000'000));
  ASSERT_TRUE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 5'100'000));
  const auto units = Published();
  ASSERT_EQ(units.size(), 2u);
  EXPECT_EQ(units[0]->pts_100ns, 0);
  EXPECT_EQ(units[1]->pts_100ns, 100'000);
}

TEST_F(AudioSourceTest, BuffersBeforeThePictureStartedAreDroppedEarly) {
  std::atomic<std::int64_t> epoch{0};
  auto source = MakeSource();
  source->SetEpoch(&epoch);
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 1'000'000));
  EXPECT_EQ(source->counters().dropped_early, 1u);
  EXPECT_EQ(encoder_->calls, 0);
  EXPECT_TRUE(Published().empty());
  // The picture starts: its time zero is 2'000'000.
  epoch = 2'000'000;
  ASSERT_TRUE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 1'950'000));  // 5 ms older than time zero.
  ASSERT_TRUE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 2'050'000));
  EXPECT_EQ(source->counters().dropped_early, 2u);
  const auto units = Published();
  ASSERT_EQ(units.size(), 1u);
  EXPECT_EQ(units[0]->pts_100ns, 50'000);
  // The base is read once: a later epoch (a new picture source) does not move this one.
  epoch = 9'000'000;
  ASSERT_TRUE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 2'150'000));
  EXPECT_EQ(Published().at(0)->pts_100ns, 150'000);
}

TEST_F(AudioSourceTest, MonoGivesEveryChannelTheAverage) {
  auto source = MakeSource();
  source->SetMono(true);
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(Stereo(4, 1.0f, 0.0f), 1'000'000));
  EXPECT_EQ(encoder_->samples, Stereo(4, 0.5f, 0.5f));
}

TEST_F(AudioSourceTest, AMonoCaptureIgnoresTheMonoSetting) {
  auto source = MakeSource({48000, 1});
  source->SetMono(true);
  source->Start();
  const std::vector<float> samples{0.25f, -0.5f, 1.0f};
  ASSERT_TRUE(capturer_->Deliver(samples, 1'000'000));
  EXPECT_EQ(encoder_->samples, samples);
}

TEST_F(AudioSourceTest, AnEncoderFailureCostsThatBufferOnly) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  auto source = MakeSource();
  source->Start();
  encoder_->fail_next = true;
  ASSERT_TRUE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 1'000'000));
  ASSERT_TRUE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 1'100'000));
  EXPECT_EQ(Published().size(), 1u);
  EXPECT_NE(testsupport::ReadFileText(dir.path() / "log").find("Encode failed: the encoder refused these samples"),
            std::string::npos);
}

TEST_F(AudioSourceTest, StopPublishesTheTailBeforeItsLineAndASecondStopDoesNothing) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  const LogLevel saved = GetLogLevel();
  SetLogLevel(LogLevel::kInfo);
  auto source = MakeSource();
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 1'000'000));
  ASSERT_TRUE(capturer_->Deliver({}, 1'100'000)) << "an empty buffer is ignored";
  source->Stop();
  auto units = Published();
  ASSERT_EQ(units.size(), 2u);
  EXPECT_EQ(units[1]->data, std::vector<std::uint8_t>{0xEE}) << "the drained tail";
  source->Stop();
  SetLogLevel(saved);
  EXPECT_TRUE(Published().empty());
  EXPECT_EQ(capturer_->stop_calls(), 1);
  EXPECT_FALSE(capturer_->Deliver(Stereo(480, 0.1f, 0.1f), 1'200'000)) << "the capturer was stopped";
  const std::string log = testsupport::ReadFileText(dir.path() / "log");
  const auto line = log.find("buffers=1 au=2 dropped_early=0");
  ASSERT_NE(line, std::string::npos) << log;
  EXPECT_EQ(log.find("buffers=", line + 1), std::string::npos) << log;
}

TEST_F(AudioSourceTest, TheRealEncoderTurnsTwentyMillisecondBuffersIntoTimedUnits) {
  auto capturer = std::make_unique<capture::FakeAudioCapturer>();
  auto* fake = capturer.get();
  encode::AacEncoderConfig config;
  AudioSource source(std::move(capturer), encode::CreateAacEncoder(config), bus_);
  source.Start();
  // One second of a 440 Hz tone in 10 ms buffers.
  for (int buffer = 0; buffer < 100; ++buffer) {
    std::vector<float> samples;
    for (int i = 0; i < 480; ++i) {
      const double t = (buffer * 480 + i) / 48000.0;
      const auto value = static_cast<float>(0.5 * std::sin(2 * 3.141592653589793 * 440 * t));
      samples.push_back(value);
      samples.push_back(value);
    }
    ASSERT_TRUE(fake->Deliver(samples, 1'000'000 + buffer * 100'000));
  }
  source.Stop();
  const auto units = Published();
  // 48000 samples make 46.9 blocks of 1024; the drain pads the last one.
  ASSERT_GE(units.size(), 46u);
  ASSERT_LE(units.size(), 49u);
  for (std::size_t i = 1; i < units.size(); ++i) {
    EXPECT_GT(units[i]->pts_100ns, units[i - 1]->pts_100ns);
    EXPECT_FALSE(units[i]->data.empty());
  }
  EXPECT_EQ(source.counters().units_out, units.size());
}

}  // namespace
}  // namespace mirell::session
