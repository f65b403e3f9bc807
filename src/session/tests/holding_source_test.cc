#include "mirell/session/holding_source.h"

#include <gtest/gtest.h>

#include <thread>

#include "mirell/base/logging.h"
#include "mirell/media/nal.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::session {
namespace {

using namespace std::chrono_literals;

HoldingClipConfig SmallClip() {
  HoldingClipConfig config;
  config.width = 320;
  config.height = 180;
  config.fps = 30;
  config.seconds = 1;
  config.bitrate_kbps = 300;
  return config;
}

TEST(HoldingClip, ConstructionReturnsAtOnceAndTheClipIsBuiltBehind) {
  const auto started = std::chrono::steady_clock::now();
  HoldingClip clip(HoldingClipConfig{});
  const auto construction = std::chrono::steady_clock::now() - started;
  EXPECT_FALSE(clip.WaitReady(0));  // Four seconds of 1280x720 take far longer to encode.
  if (!testsupport::kSanitizedBuild) {
    EXPECT_LT(construction, 20ms);
  }
  ASSERT_TRUE(clip.WaitReady(60'000));
  const auto frames = clip.Frames();
  // 30 fps x 4 s: one whole loop, whatever encoder made it.
  ASSERT_EQ(frames.size(), 120u);
  EXPECT_TRUE(frames.front().keyframe);
  EXPECT_TRUE(media::FirstNalIs(clip.SequenceHeader(), 7));
  EXPECT_FALSE(clip.Silence().empty());
}

// A program that quits while its card is still being built does not wait for the whole clip.
TEST(HoldingClip, DestroyedWhileBuildingItStopsEarly) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  SetLogLevel(LogLevel::kDebug);
  {
    HoldingClipConfig config;  // The full card: 1280x720, four seconds.
    HoldingClip clip(config);
  }
  SetLogLevel(LogLevel::kWarn);
  const std::string log = testsupport::ReadFileText(dir.path() / "log");
  EXPECT_NE(log.find("card build abandoned at frame "), std::string::npos) << log;
  EXPECT_EQ(log.find("card frames="), std::string::npos) << log;
}

TEST(HoldingClip, WithoutH264TheClipIsEmptyButReady) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  auto config = SmallClip();
  config.width = 321;  // The encoder refuses odd sizes.
  HoldingClip clip(config);
  ASSERT_TRUE(clip.WaitReady(10'000));
  EXPECT_TRUE(clip.Frames().empty());
  EXPECT_TRUE(clip.SequenceHeader().empty());
  EXPECT_NE(testsupport::ReadFileText(dir.path() / "log").find("h264 unavailable: "), std::string::npos);

  streams::FrameBus frames;
  streams::AudioBus audio;
  frames.SetHistory(10);
  HoldingSource source(frames, audio, clip);
  source.Start();
  EXPECT_FALSE(source.playing());
  source.Stop();
  EXPECT_EQ(source.frames_played(), 0u);
  EXPECT_EQ(frames.HistorySize(), 0u);
}

// The card's surface cannot be made (wider than Cairo draws): the builder logs it, the clip is
// empty but ready, and the process goes on.
TEST(HoldingClip, ACardThatCannotBeDrawnLeavesAnEmptyClipAndTheProcessRunning) {
  testsupport::TempDir dir;
  ASSERT_TRUE(SetLogFile(dir.path() / "log"));
  auto config = SmallClip();
  config.width = 40'000;
  HoldingClip clip(config);
  ASSERT_TRUE(clip.WaitReady(10'000));
  EXPECT_TRUE(clip.Frames().empty());
  EXPECT_TRUE(clip.SequenceHeader().empty());
  const std::string log = testsupport::ReadFileText(dir.path() / "log");
  EXPECT_NE(log.find("could not build the holding card: "), std::string::npos) << log;
  EXPECT_NE(log.find("check failed: made - could not create the holding card"), std::string::npos)
      << log;
  EXPECT_NE(log.find("viewers wait without it"), std::string::npos) << log;

  streams::FrameBus frames;
  streams::AudioBus audio;
  HoldingSource source(frames, audio, clip);
  source.Start();
  EXPECT_FALSE(source.playing());
}

TEST(HoldingSource, LoopsWithRisingTimesKeyframesAsInTheClipAndSilenceOneUnitAhead) {
  HoldingClip clip(SmallClip());
  ASSERT_TRUE(clip.WaitReady(30'000));
  const auto clip_frames = clip.Frames();
  ASSERT_EQ(clip_frames.size(), 30u);
  streams::FrameBus frames;
  streams::AudioBus audio;
  auto video_reader = frames.Subscribe(200, 0);
  auto audio_reader = audio.Subscribe(400, -1);
  HoldingSource source(frames, audio, clip);
  const auto started = std::chrono::steady_clock::now();
  source.Start();
  std::vector<encode::EncodedFramePtr> got;
  while (got.size() < 45) {
    auto frame = video_reader->Pop(1000);
    ASSERT_NE(frame, nullptr);
    got.push_back(frame);
  }
  const auto elapsed = std::chrono::steady_clock::now() - started;
  source.Stop();
  // The head start goes out at once, then real time: 45 frames take about 36 intervals, 1.2 s.
  EXPECT_GE(elapsed, 1100ms);
  EXPECT_LT(elapsed, 2200ms);
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i]->pts_100ns, static_cast<std::int64_t>(i) * 333'333) << i;
    EXPECT_EQ(got[i]->keyframe, clip_frames[i % 30].keyframe) << i;
    EXPECT_EQ(got[i]->data, clip_frames[i % 30].data) << i;
  }
  EXPECT_TRUE(got[30]->keyframe) << "the loop point starts with the clip's keyframe";
  EXPECT_GE(source.frames_played(), 45u);
  EXPECT_EQ(source.frame_duration(), 333'333);
  EXPECT_EQ(source.last_timestamp(), static_cast<std::int64_t>(source.frames_played() - 1) * 333'333);

  std::int64_t expected_audio = 0;
  const auto silence = clip.Silence();
  while (auto unit = audio_reader->TryPop()) {
    EXPECT_EQ(unit->pts_100ns, expected_audio);
    EXPECT_EQ(unit->data, silence);
    expected_audio += 10'240'000'000 / 48000;
  }
  // At most one unit ahead of the last picture.
  EXPECT_GT(expected_audio, source.last_timestamp());
  EXPECT_LE(expected_audio - 213'333, source.last_timestamp() + 213'333);
}

TEST(HoldingSource, APlayerOpeningTheStreamAtOnceFindsAHeadStartOfPicturesAndSound) {
  HoldingClip clip(SmallClip());
  ASSERT_TRUE(clip.WaitReady(30'000));
  streams::FrameBus frames;
  streams::AudioBus audio;
  frames.SetHistory(200);  // As a stream's buses keep it.
  audio.SetHistory(400);
  HoldingSource source(frames, audio, clip);
  const auto started = std::chrono::steady_clock::now();
  source.Start();
  ASSERT_TRUE(testsupport::Eventually([&] { return source.frames_played() >= HoldingSource::kHeadStartFrames; }, 2s));
  // In real time they would take eight intervals at the least.
  EXPECT_LT(std::chrono::steady_clock::now() - started, (HoldingSource::kHeadStartFrames - 1) * 33ms);
  // What a player joining now is primed with: the history since the first keyframe.
  auto video_reader = frames.Subscribe(200, HoldingSource::kHeadStartFrames);
  auto audio_reader = audio.Subscribe(400, 0);
  source.Stop();
  std::size_t pictures = 0;
  while (video_reader->Pop(0) != nullptr) ++pictures;
  std::size_t units = 0;
  while (audio_reader->TryPop() != nullptr) ++units;
  EXPECT_GE(pictures, HoldingSource::kHeadStartFrames) << "primed from the head start";
  EXPECT_GE(units * 213'333, (HoldingSource::kHeadStartFrames - 1) * 333'333) << "sound up to the last picture";
}

TEST(HoldingSource, WithoutSilenceOnlyVideoPlays) {
  auto config = SmallClip();
  config.sample_rate = 96000;  // The AAC encoder refuses it.
  HoldingClip clip(config);
  ASSERT_TRUE(clip.WaitReady(30'000));
  EXPECT_TRUE(clip.Silence().empty());
  ASSERT_FALSE(clip.Frames().empty());
  streams::FrameBus frames;
  streams::AudioBus audio;
  auto audio_reader = audio.Subscribe(100, -1);
  auto video_reader = frames.Subscribe(100, 0);
  HoldingSource source(frames, audio, clip);
  source.Start();
  source.Start();  // A second start does nothing.
  ASSERT_NE(video_reader->Pop(1000), nullptr);
  ASSERT_NE(video_reader->Pop(1000), nullptr);
  source.Stop();
  EXPECT_EQ(audio_reader->TryPop(), nullptr);
}

}  // namespace
}  // namespace mirell::session
