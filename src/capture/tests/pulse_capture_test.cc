// Sound capture against a private PulseAudio server with tone players in processes of their
// own: one application's sound apart from another's, the whole output, silence until an
// application plays, time stamps and Stop.
#include <gtest/gtest.h>

#include <cmath>
#include <mutex>
#include <thread>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/capture/audio_capturer.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "pulse_server.h"
#include "tone_power.h"

namespace mirell::capture {
namespace {

using namespace std::chrono_literals;
using testsupport::Eventually;

// What a capturer delivered: the left channel's samples and each buffer's time and length.
class SoundLog {
 public:
  explicit SoundLog(std::uint32_t channels = 2) : channels_(channels) {}
  IAudioCapturer::AudioCallback Callback() {
    return [this](const AudioBuffer& buffer) {
      std::lock_guard lock(mutex_);
      for (std::uint64_t i = 0; i < buffer.frames; ++i) left_.push_back(buffer.samples[i * channels_]);
      buffers_.push_back({buffer.timestamp, buffer.frames});
      if (buffer.silent) silent_frames_ += buffer.frames;
    };
  }
  std::size_t frames() const {
    std::lock_guard lock(mutex_);
    return left_.size();
  }
  std::vector<float> left() const {
    std::lock_guard lock(mutex_);
    return left_;
  }
  std::vector<std::pair<std::int64_t, std::uint64_t>> buffers() const {
    std::lock_guard lock(mutex_);
    return buffers_;
  }
  // Frames of the buffers marked silent.
  std::uint64_t silent_frames() const {
    std::lock_guard lock(mutex_);
    return silent_frames_;
  }

 private:
  const std::uint32_t channels_;
  mutable std::mutex mutex_;
  std::vector<float> left_;
  std::vector<std::pair<std::int64_t, std::uint64_t>> buffers_;
  std::uint64_t silent_frames_ = 0;
};

// The last second of what was captured, once at least that much has come.
std::vector<float> LastSecond(const SoundLog& log) {
  auto left = log.left();
  if (left.size() > 48000) left.erase(left.begin(), left.end() - 48000);
  return left;
}

class PulseCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!server_.available()) GTEST_SKIP() << "pulseaudio is missing";
    if (!testsupport::HaveProgram("paplay") || !testsupport::HaveProgram("sox")) GTEST_SKIP() << "paplay or sox is missing";
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    saved_level_ = GetLogLevel();
    SetLogLevel(LogLevel::kInfo);
  }
  void TearDown() override { SetLogLevel(saved_level_); }

  // A capturer of a player whose sound is heard already; null when it never plays.
  std::unique_ptr<IAudioCapturer> ProcessCapturer(int pid) {
    if (!WaitUntilPlaying(pid, 5s)) return nullptr;
    return CreateProcessLoopbackCapturer(static_cast<std::uint32_t>(pid), {});
  }

  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }

  PulseServer server_;
  testsupport::TempDir dir_;
  LogLevel saved_level_ = LogLevel::kWarn;
};

TEST_F(PulseCaptureTest, OneApplicationIsHeardApartFromAnother) {
  TonePlayer low(server_, 440);
  TonePlayer high(server_, 880);
  auto capturer = ProcessCapturer(low.pid());
  ASSERT_NE(capturer, nullptr) << "the 440 Hz player's stream never appeared";
  EXPECT_TRUE(capturer->process_scoped());
  EXPECT_EQ(capturer->format().sample_rate, 48000u);
  EXPECT_EQ(capturer->format().channels, 2u);
  SoundLog log;
  capturer->Start(log.Callback());
  // A null sink may render its first block late.
  ASSERT_TRUE(Eventually([&] { return log.frames() >= 96000; }, 6s));
  capturer->Stop();
  const auto samples = LastSecond(log);
  const double at_440 = PowerAt(samples, 440);
  const double at_880 = PowerAt(samples, 880);
  EXPECT_GT(at_440, 100 * at_880) << "440: " << at_440 << ", 880: " << at_880;
  EXPECT_GT(at_440, 0.001);
  EXPECT_NE(Log().find("process " + std::to_string(low.pid()) + " loopback at 48000 Hz, 2 channels"), std::string::npos);
}

TEST_F(PulseCaptureTest, TheWholeOutputHasEveryApplication) {
  TonePlayer low(server_, 440);
  TonePlayer high(server_, 880);
  // Both players are playing once each one's own capture can start.
  ASSERT_NE(ProcessCapturer(low.pid()), nullptr);
  ASSERT_NE(ProcessCapturer(high.pid()), nullptr);
  auto capturer = CreateDeviceLoopbackCapturer({});
  EXPECT_FALSE(capturer->process_scoped());
  EXPECT_EQ(capturer->name(), "whole-device loopback");
  SoundLog log;
  capturer->Start(log.Callback());
  ASSERT_TRUE(Eventually([&] { return log.frames() >= 96000; }, 6s));
  capturer->Stop();
  const auto samples = LastSecond(log);
  EXPECT_GT(PowerAt(samples, 440), 0.001);
  EXPECT_GT(PowerAt(samples, 880), 0.001);
}

TEST_F(PulseCaptureTest, AProcessTreeIsFollowedIncludingStreamsThatStartLater) {
  const auto low_file = server_.directory() / "tone-440.wav";
  const auto high_file = server_.directory() / "tone-880.wav";
  testsupport::RunProcess({"sox", "-n", "-r", "48000", "-c", "2", "-b", "16", low_file.string(), "synth", "30", "sine", "440", "vol", "0.5"});
  testsupport::RunProcess({"sox", "-n", "-r", "48000", "-c", "2", "-b", "16", high_file.string(), "synth", "30", "sine", "880", "vol", "0.5"});
  // A parent that plays one tone through a child at once and another through a second child later.
  testsupport::ChildProcess tree({"sh", "-c", "paplay " + low_file.string() + " & sleep 2; paplay " + high_file.string()});
  auto capturer = ProcessCapturer(tree.pid());
  ASSERT_NE(capturer, nullptr);
  SoundLog log;
  capturer->Start(log.Callback());
  ASSERT_TRUE(Eventually([&] { return log.frames() >= 48000 * 5; }, 10s));
  capturer->Stop();
  const auto samples = LastSecond(log);
  EXPECT_GT(PowerAt(samples, 440), 0.001);
  EXPECT_GT(PowerAt(samples, 880), 0.001) << "the later stream was not followed";
}

// A window whose program plays nothing yet is heard as silence, never as the rest of the output
// (voice chat, the game), until it plays; then it alone is heard.
TEST_F(PulseCaptureTest, AProcessThatPlaysNothingYetIsSilenceUntilItPlaysAndNeverTheRest) {
  TonePlayer other(server_, 880);
  ASSERT_TRUE(WaitUntilPlaying(other.pid()));
  const auto tone = server_.directory() / "later-440.wav";
  testsupport::RunProcess({"sox", "-n", "-r", "48000", "-c", "2", "-b", "16", tone.string(), "synth", "30",
                           "sine", "440", "vol", "0.5"});
  testsupport::ProcessOptions options;
  options.environment["PULSE_SERVER"] = server_.address();
  testsupport::ChildProcess later({"sh", "-c", "sleep 2; exec paplay \"$0\"", tone.string()}, options);
  auto capturer = CreateProcessLoopbackCapturer(static_cast<std::uint32_t>(later.pid()), {});
  EXPECT_TRUE(capturer->process_scoped());
  SoundLog log;
  capturer->Start(log.Callback());
  ASSERT_TRUE(Eventually([&] { return log.frames() >= 48000; }, 5s)) << "silence goes out from the start";
  EXPECT_EQ(log.silent_frames(), log.frames()) << "nothing but silence while it plays nothing";
  EXPECT_TRUE(Eventually([&] { return PowerAt(LastSecond(log), 440) > 0.001; }, 10s)) << "its tone, once it plays";
  capturer->Stop();
  const auto samples = log.left();
  EXPECT_LT(PowerAt(samples, 880), 1e-6) << "the other application was heard";
  EXPECT_EQ(Log().find("whole-device"), std::string::npos) << Log();
}

TEST_F(PulseCaptureTest, TimeStampsAdvanceWithTheSamples) {
  TonePlayer tone(server_, 440);
  ASSERT_NE(ProcessCapturer(tone.pid()), nullptr);
  auto capturer = CreateDeviceLoopbackCapturer({});
  SoundLog log;
  capturer->Start(log.Callback());
  // A fresh null sink may send a backlog faster than real time at first: three seconds of
  // sound are let pass, then five are measured.
  ASSERT_TRUE(Eventually([&] { return log.frames() >= 48000 * 8; }, 15s));
  capturer->Stop();
  const auto buffers = log.buffers();
  std::size_t first = 0;
  for (std::uint64_t frames = 0; first < buffers.size() && frames < 48000 * 3; ++first) frames += buffers[first].second;
  ASSERT_LT(first + 100, buffers.size());
  std::uint64_t frames_between = 0;
  for (std::size_t i = first; i + 1 < buffers.size(); ++i) frames_between += buffers[i].second;
  const std::int64_t by_clock = buffers.back().first - buffers[first].first;
  const auto by_samples = static_cast<std::int64_t>(frames_between * 10'000'000 / 48000);
  const double seconds = static_cast<double>(by_samples) / 1e7;
  // Under 1 ms per 10 s, and one re-anchoring's 5 ms at either end.
  EXPECT_LT(std::abs(by_clock - by_samples), static_cast<std::int64_t>(10'000 * seconds / 10 + 50'000))
      << "clock " << by_clock << " samples " << by_samples << " over " << seconds << " s";
  for (std::size_t i = first + 1; i < buffers.size(); ++i) {
    EXPECT_GT(buffers[i].first, buffers[i - 1].first) << "buffer " << i;
  }
}

TEST_F(PulseCaptureTest, StopReturnsAtOnceAndNoBufferComesAfterIt) {
  TonePlayer tone(server_, 440);
  ASSERT_NE(ProcessCapturer(tone.pid()), nullptr);
  auto capturer = CreateDeviceLoopbackCapturer({});
  SoundLog log;
  capturer->Start(log.Callback());
  ASSERT_TRUE(Eventually([&] { return log.frames() >= 4800; }, 6s));
  const auto begin = std::chrono::steady_clock::now();
  capturer->Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 200ms);
  const std::size_t at_stop = log.frames();
  std::this_thread::sleep_for(100ms);  // Ten fragments' time, watching for buffers that must not come.
  EXPECT_EQ(log.frames(), at_stop);
  capturer->Stop();
}

TEST_F(PulseCaptureTest, ARateTheServerCannotTakeFallsBackToTheOutputsOwnWithAWarning) {
  auto capturer = CreateDeviceLoopbackCapturer({1'000'000, 2});
  EXPECT_EQ(capturer->format().sample_rate, 48000u) << "the test server's null sink runs at 48 kHz";
  EXPECT_EQ(capturer->format().channels, 2u);
  EXPECT_NE(Log().find("the output device would not resample to 1000000 Hz ("), std::string::npos) << Log();
  EXPECT_NE(Log().find("falling back to its own rate, and a viewer may get the pitch wrong"), std::string::npos);
  // One application's sound at such a rate is refused.
  TonePlayer tone(server_, 440);
  ASSERT_NE(ProcessCapturer(tone.pid()), nullptr);
  EXPECT_THROW(CreateProcessLoopbackCapturer(static_cast<std::uint32_t>(tone.pid()), {1'000'000, 2}), Error);
}

TEST_F(PulseCaptureTest, MoreThanTwoChannelsAreAskedAsTwo) {
  auto capturer = CreateDeviceLoopbackCapturer({48000, 6});
  EXPECT_EQ(capturer->format().channels, 2u);
  SoundLog log;
  capturer->Start(log.Callback());
  EXPECT_TRUE(Eventually([&] { return log.frames() >= 4800; }, 6s));
  capturer->Stop();
}

TEST(PulseCaptureWithoutServer, NoServerIsAFailedCheckWithinTheBound) {
  testsupport::TempDir dir;
  setenv("PULSE_SERVER", ("unix:" + (dir.path() / "nothing").string()).c_str(), 1);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THROW(CreateDeviceLoopbackCapturer({}), Error);
  EXPECT_THROW(CreateProcessLoopbackCapturer(1, {}), Error);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
  unsetenv("PULSE_SERVER");
}

}  // namespace
}  // namespace mirell::capture
