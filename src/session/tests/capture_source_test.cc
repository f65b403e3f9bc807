// The capture source with a capturer the test drives, a real video processor and bus, and either
// a recording encoder (for exact counts, times and failures) or the real H.264 encoder.
#include "mirell/session/capture_source.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "fake_capturer.h"
#include "mirell/base/clock.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/base/media_time.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::session {
namespace {

constexpr std::int64_t kFrame60 = kTicksPerSecond / 60;  // 166666

// Records what it is given; one unit per picture, a keyframe on the first call and every 30th.
// Throws on the calls listed in `fail_on` (1-based).
class RecordingEncoder final : public encode::H264Encoder {
 public:
  void Encode(std::span<const std::uint8_t>, std::int64_t, std::vector<encode::EncodedFrame>&) override {
    FAIL() << "a capture source only hands over pictures";
  }
  void EncodeTexture(const encode::Nv12Frame& picture, std::int64_t pts_100ns,
                     std::vector<encode::EncodedFrame>& out) override {
    std::lock_guard lock(mutex_);
    ++calls_;
    luma_seen_.push_back(picture.bytes()[picture.bytes().size() / 3]);
    if (std::find(fail_on.begin(), fail_on.end(), calls_) != fail_on.end()) {
      throw std::runtime_error("the encoder refused this picture");
    }
    encode::EncodedFrame unit;
    unit.data = {0, 0, 0, 1, 0x65};
    unit.pts_100ns = pts_100ns;
    unit.keyframe = (calls_ - 1) % 30 == 0;
    out.push_back(std::move(unit));
  }
  bool gpu_input() const override { return true; }
  void Drain(std::vector<encode::EncodedFrame>&) override {}
  void RequestKeyframe() override {}
  std::span<const std::uint8_t> sequence_header() const override { return {}; }
  bool is_hardware() const override { return false; }
  const std::string& name() const override { return name_; }

  int calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  std::vector<std::uint8_t> luma_seen() const {
    std::lock_guard lock(mutex_);
    return luma_seen_;
  }
  std::vector<int> fail_on;

 private:
  mutable std::mutex mutex_;
  int calls_ = 0;
  std::vector<std::uint8_t> luma_seen_;
  std::string name_ = "recording";
};

struct SolidBgra {
  SolidBgra(std::uint32_t width, std::uint32_t height, std::uint8_t grey)
      : pixels(static_cast<std::size_t>(width) * height * 4, grey), view{pixels.data(), width * 4u, width, height} {}
  std::vector<std::uint8_t> pixels;
  media::BgraView view;
};

using testsupport::Eventually;

// Every tick's times, kept under a lock: the callback runs on the encode thread.
class TimingLog {
 public:
  std::function<void(const CaptureSource::FrameTiming&)> Callback() {
    return [this](const CaptureSource::FrameTiming& timing) {
      std::lock_guard lock(mutex_);
      timings_.push_back(timing);
    };
  }
  // Waits up to 5 s for `count` ticks; false if they did not come.
  bool WaitFor(std::size_t count) {
    return Eventually([&] {
      std::lock_guard lock(mutex_);
      return timings_.size() >= count;
    });
  }
  std::vector<CaptureSource::FrameTiming> timings() const {
    std::lock_guard lock(mutex_);
    return timings_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<CaptureSource::FrameTiming> timings_;
};

class CaptureSourceTest : public ::testing::Test {
 protected:
  std::unique_ptr<CaptureSource> MakeSource(std::uint32_t fps, encode::H264Encoder& encoder) {
    auto capturer = std::make_unique<capture::FakeCapturer>(640, 360);
    capturer_ = capturer.get();
    return std::make_unique<CaptureSource>(std::move(capturer), encoder,
                                           encode::CreateVideoProcessor(320, 180), bus_, fps);
  }
  // Units published on the bus, oldest first, until `count` arrived or 5 s passed.
  std::vector<encode::EncodedFramePtr> Collect(const std::shared_ptr<streams::FrameBus::Subscription>& reader,
                                               std::size_t count) {
    std::vector<encode::EncodedFramePtr> units;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (units.size() < count && std::chrono::steady_clock::now() < deadline) {
      if (auto unit = reader->Pop(100)) units.push_back(std::move(unit));
    }
    return units;
  }

  streams::FrameBus bus_;
  capture::FakeCapturer* capturer_ = nullptr;
  RecordingEncoder encoder_;
  SolidBgra grey_{640, 360, 128};
};

TEST_F(CaptureSourceTest, AZeroFrameRateIsAFailedCheck) {
  EXPECT_THROW(MakeSource(0, encoder_), Error);
}

TEST_F(CaptureSourceTest, ASixtyFrameCaptureIsThinnedEvenlyToThirty) {
  auto source = MakeSource(30, encoder_);
  source->Start();
  for (int i = 0; i < 120; ++i) ASSERT_TRUE(capturer_->Deliver(grey_.view, 1'000'000 + i * kFrame60));
  const auto counters = source->counters();
  EXPECT_EQ(counters.captured, 120u);
  EXPECT_GE(counters.dropped, 59u);
  EXPECT_LE(counters.dropped, 61u);
}

TEST_F(CaptureSourceTest, AFrameLaterThanDueDoesNotCauseABurst) {
  auto source = MakeSource(30, encoder_);
  source->Start();
  // A pause of a second, then frames at 60 again: only every second one is kept after it.
  ASSERT_TRUE(capturer_->Deliver(grey_.view, 1'000'000));
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(capturer_->Deliver(grey_.view, 1'000'000 + kTicksPerSecond + i * kFrame60));
  EXPECT_GE(source->counters().dropped, 9u);
  EXPECT_LE(source->counters().dropped, 10u);
  EXPECT_EQ(source->counters().captured, 21u);
}

TEST_F(CaptureSourceTest, AStillPictureIsRepeatedAtTheTargetRate) {
  auto source = MakeSource(30, encoder_);
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(grey_.view, 1'000'000));
  ASSERT_TRUE(Eventually([&] { return source->counters().encoded >= 15; }));
  source->Stop();
  const auto counters = source->counters();
  EXPECT_EQ(counters.captured, 1u);
  EXPECT_EQ(counters.repeated, counters.encoded - 1) << "every tick after the first repeats";
  EXPECT_EQ(static_cast<std::uint64_t>(encoder_.calls()), counters.encoded);
}

TEST_F(CaptureSourceTest, WithNothingCapturedNothingIsEncodedAndStopEndsTheWait) {
  auto source = MakeSource(30, encoder_);
  source->Start();
  // Three ticks' time with no frame: the metronome has not begun.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const auto begin = std::chrono::steady_clock::now();
  source->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ(source->counters().encoded, 0u);
  EXPECT_EQ(encoder_.calls(), 0);
  EXPECT_FALSE(capturer_->Deliver(grey_.view, 1'000'000)) << "the capturer was stopped";
}

TEST_F(CaptureSourceTest, ASecondStopChangesNothingAndLogsNothing) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  const LogLevel saved = GetLogLevel();
  SetLogLevel(LogLevel::kInfo);
  auto source = MakeSource(30, encoder_);
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(grey_.view, 1'000'000));
  ASSERT_TRUE(Eventually([&] { return source->counters().encoded >= 2; }));
  source->Stop();
  const auto after_first = source->counters();
  source->Stop();
  SetLogLevel(saved);
  EXPECT_EQ(source->counters().encoded, after_first.encoded);
  EXPECT_EQ(capturer_->stop_calls(), 1);
  const std::string log = testsupport::ReadFileText(dir.path() / "log");
  EXPECT_NE(log.find("fake window -> 320x180 GPU path"), std::string::npos) << log;
  const auto first = log.find("captured=1 encoded=");
  ASSERT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find("captured=", first + 1), std::string::npos) << "one counter line: " << log;
}

TEST_F(CaptureSourceTest, AResumeAtFrame900GivesTheNextFrameThirtySecondsAndSetsTheEpoch) {
  std::atomic<std::int64_t> epoch{0};
  auto source = MakeSource(30, encoder_);
  source->SetResumeFrame(900);
  source->SetEpoch(&epoch);
  const auto reader = bus_.Subscribe(64, 0);
  const std::int64_t before = SteadyNowNs() / 100;
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(grey_.view, 1'000'000));
  const auto units = Collect(reader, 3);
  const std::int64_t after = SteadyNowNs() / 100;
  ASSERT_EQ(units.size(), 3u);
  EXPECT_EQ(units[0]->pts_100ns, 30 * kTicksPerSecond);
  EXPECT_EQ(units[1]->pts_100ns, (901 * kTicksPerSecond) / 30);
  EXPECT_EQ(units[2]->pts_100ns, (902 * kTicksPerSecond) / 30);
  source->Stop();  // The index moves on just after a unit is published: read it once the loop has ended.
  EXPECT_GE(source->next_frame(), 903u);
  // Frame time zero lies 30 s before the moment the loop began.
  EXPECT_GE(epoch.load(), before - 30 * kTicksPerSecond);
  EXPECT_LE(epoch.load(), after - 30 * kTicksPerSecond);
}

TEST_F(CaptureSourceTest, AnEncoderFailureCostsThatTickOnly) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  encoder_.fail_on = {3};
  auto source = MakeSource(30, encoder_);
  const auto reader = bus_.Subscribe(64, 0);
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(grey_.view, 1'000'000));
  const auto units = Collect(reader, 4);
  ASSERT_EQ(units.size(), 4u);
  EXPECT_EQ(units[0]->pts_100ns, 0);
  // Frame times come from the index: index x 10^7 / 30, truncated.
  EXPECT_EQ(units[1]->pts_100ns, 333'333);
  EXPECT_EQ(units[2]->pts_100ns, 1'000'000) << "the failed tick's time is skipped";
  EXPECT_EQ(units[3]->pts_100ns, 1'333'333);
  source->Stop();
  EXPECT_NE(testsupport::ReadFileText(dir.path() / "log").find("Encode failed: the encoder refused this picture"),
            std::string::npos);
}

TEST_F(CaptureSourceTest, EveryKeyframeCallsTheKeyframeCallback) {
  std::atomic<int> keyframes{0};
  auto source = MakeSource(30, encoder_);
  source->SetKeyframeCallback([&] { ++keyframes; });
  const auto reader = bus_.Subscribe(128, 0);
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(grey_.view, 1'000'000));
  const auto units = Collect(reader, 31);
  source->Stop();
  ASSERT_EQ(units.size(), 31u);
  EXPECT_TRUE(units[0]->keyframe);
  EXPECT_TRUE(units[30]->keyframe);
  EXPECT_EQ(keyframes.load(), 2);
}

TEST_F(CaptureSourceTest, TheNewestPictureReachesTheEncoder) {
  auto source = MakeSource(30, encoder_);
  source->Start();
  SolidBgra white(640, 360, 255);
  ASSERT_TRUE(capturer_->Deliver(grey_.view, 1'000'000));
  ASSERT_TRUE(Eventually([&] { return encoder_.calls() >= 2; }));
  ASSERT_TRUE(capturer_->Deliver(white.view, 1'000'000 + kTicksPerSecond));
  ASSERT_TRUE(Eventually([&] { return encoder_.calls() >= 6; }));
  source->Stop();
  // The recorded sample is the middle of the luma plane.
  const auto luma = encoder_.luma_seen();
  ASSERT_GE(luma.size(), 6u);
  EXPECT_NEAR(luma.front(), 16 + 219.0 * 128 / 255, 2) << "the grey picture first";
  EXPECT_NEAR(luma.back(), 235, 2) << "then the white one, on every later tick";
}

TEST_F(CaptureSourceTest, AFrameThreadDeliveringThroughStopNeverRacesTheEncodeThread) {
  auto source = MakeSource(30, encoder_);
  SolidBgra white(640, 360, 255);
  source->Start();
  std::atomic<bool> delivering{true};
  std::atomic<int> delivered{0};
  std::thread frames([&] {
    // As fast as the machine allows, alternating pictures, on the steady clock like a capturer.
    for (int i = 0; delivering; ++i) {
      if (capturer_->Deliver(i % 2 == 0 ? grey_.view : white.view, SteadyNowNs() / 100)) ++delivered;
    }
  });
  ASSERT_TRUE(Eventually([&] { return source->counters().encoded >= 10; }));
  source->Stop();
  const int at_stop = delivered;
  const auto counters = source->counters();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  delivering = false;
  frames.join();
  EXPECT_EQ(delivered.load(), at_stop) << "nothing is delivered once the source has stopped";
  EXPECT_EQ(source->counters().encoded, counters.encoded);
  EXPECT_GT(counters.dropped, 0u);
}

TEST_F(CaptureSourceTest, TheRealEncoderMakesAKeyframeFirstAndFrameTimesFromTheIndex) {
  encode::H264EncoderConfig config;
  config.width = 320;
  config.height = 180;
  config.bitrate_bps = 500'000;
  const auto encoder = encode::CreateH264Encoder(config);
  auto source = MakeSource(30, *encoder);
  const auto reader = bus_.Subscribe(64, 0);
  source->Start();
  SolidBgra white(640, 360, 255);
  std::int64_t capture_time = 1'000'000;
  for (int i = 0; i < 10; ++i, capture_time += kTicksPerSecond / 30) {
    ASSERT_TRUE(capturer_->Deliver(i % 2 == 0 ? grey_.view : white.view, capture_time));
  }
  const auto units = Collect(reader, 10);
  source->Stop();
  ASSERT_EQ(units.size(), 10u);
  EXPECT_TRUE(units[0]->keyframe);
  for (std::size_t i = 0; i < units.size(); ++i) {
    EXPECT_EQ(units[i]->pts_100ns, static_cast<std::int64_t>(i) * kTicksPerSecond / 30);
    EXPECT_FALSE(units[i]->data.empty());
  }
}

TEST_F(CaptureSourceTest, EveryTickReportsItsTimesAndWhetherItRepeated) {
  TimingLog log;
  auto source = MakeSource(30, encoder_);
  source->SetTimingCallback(log.Callback());
  source->Start();
  const std::int64_t captured_100ns = SteadyNowNs() / 100;
  ASSERT_TRUE(capturer_->Deliver(grey_.view, captured_100ns));
  ASSERT_TRUE(log.WaitFor(3));
  source->Stop();
  const auto timings = log.timings();
  EXPECT_FALSE(timings[0].repeated);
  EXPECT_EQ(timings[0].captured_ns, captured_100ns * 100);
  EXPECT_TRUE(timings[1].repeated);
  EXPECT_EQ(timings[1].captured_ns, captured_100ns * 100) << "a repeat carries the picture's capture time";
  for (const auto& timing : timings) {
    EXPECT_GE(timing.encode_start_ns, timing.captured_ns);
    EXPECT_GE(timing.encode_end_ns, timing.encode_start_ns);
  }
}

TEST_F(CaptureSourceTest, TheCapturerIsToldTheTicksSoThatItReadsJustBeforeThem) {
  TimingLog log;
  auto source = MakeSource(30, encoder_);
  source->SetTimingCallback(log.Callback());
  source->Start();
  EXPECT_EQ(capturer_->tick_schedule().calls, 0) << "no schedule before the first picture starts the clock";
  ASSERT_TRUE(capturer_->Deliver(grey_.view, SteadyNowNs() / 100));
  ASSERT_TRUE(log.WaitFor(4));
  source->Stop();
  const auto schedule = capturer_->tick_schedule();
  EXPECT_EQ(schedule.calls, 1);
  EXPECT_EQ(schedule.ticks_per_second, 30u);
  const auto timings = log.timings();
  // Tick k begins no earlier than first + k/30 s (it may begin late, never early).
  for (std::size_t k = 0; k < timings.size(); ++k) {
    const std::int64_t tick = schedule.first_tick_ns + static_cast<std::int64_t>(k) * 1'000'000'000 / 30;
    EXPECT_GE(timings[k].encode_start_ns, tick - 100) << "tick " << k;
  }
  EXPECT_LT(timings[0].encode_start_ns - schedule.first_tick_ns, 20'000'000) << "the first tick is the schedule's first";
}

TEST_F(CaptureSourceTest, APictureJustAfterATickIsEncodedAtOnceNotAWholeIntervalLater) {
  TimingLog log;
  auto source = MakeSource(10, encoder_);  // 100 ms ticks: a 25 ms wait for a late picture.
  source->SetTimingCallback(log.Callback());
  source->Start();
  ASSERT_TRUE(capturer_->Deliver(grey_.view, SteadyNowNs() / 100));
  ASSERT_TRUE(Eventually([&] { return capturer_->tick_schedule().calls == 1; }));
  const std::int64_t tick1 = capturer_->tick_schedule().first_tick_ns + 100'000'000;
  std::this_thread::sleep_for(std::chrono::nanoseconds(tick1 + 5'000'000 - SteadyNowNs()));
  SolidBgra white(640, 360, 255);
  const std::int64_t delivered_ns = SteadyNowNs();
  ASSERT_TRUE(capturer_->Deliver(white.view, delivered_ns / 100));
  ASSERT_TRUE(log.WaitFor(3));
  source->Stop();
  const auto timings = log.timings();
  if (delivered_ns > tick1 + 20'000'000) GTEST_SKIP() << "the test thread woke too late to deliver inside the wait";
  EXPECT_FALSE(timings[1].repeated) << "tick 1 waited for the picture that came 5 ms after it";
  EXPECT_EQ(timings[1].captured_ns, delivered_ns / 100 * 100);
  EXPECT_GE(timings[1].encode_start_ns, delivered_ns);
  EXPECT_LT(timings[1].encode_start_ns, tick1 + 50'000'000) << "not at tick 2";
  EXPECT_TRUE(timings[2].repeated);
  EXPECT_EQ(encoder_.luma_seen().at(1), encoder_.luma_seen().at(2)) << "tick 2 repeats the white picture";
}

}  // namespace
}  // namespace mirell::session
