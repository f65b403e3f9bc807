// The holding card end to end: a stream fed by a HoldingSource, served by our RTSP server, read
// by ffmpeg. The first picture is kept as a PNG for a person to look at.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "mirell/rtsp/rtsp_server.h"
#include "interop_support.h"
#include "rtsp_test_client.h"
#include "mirell/rtsp/stream_path.h"
#include "mirell/session/holding_source.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::session {
namespace {

using namespace std::chrono_literals;

using media::testing::ParseFramemd5;

class HoldingPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testsupport::HaveProgram("ffmpeg")) GTEST_SKIP() << "needs ffmpeg";
    clip_ = std::make_unique<HoldingClip>(HoldingClipConfig{});
    ASSERT_TRUE(clip_->WaitReady(60'000));
    stream_ = std::make_shared<streams::MediaStream>("card", 30, 1000);
    stream_->SetSequenceHeader(clip_->SequenceHeader());
    stream_->SetAudio(streams::AudioConfig{48000, 2, 128, {}});
    stream_->SetPriming(15, 500);
    stream_->audio().SetHistory(100);
    registry_.Publish("ABCDEFGHJKMN", stream_);
    server_.Start(0);
    source_ = std::make_unique<HoldingSource>(stream_->frames(), stream_->audio(), *clip_);
    source_->Start();
    url_ = "rtsp://127.0.0.1:" + std::to_string(server_.port()) + "/s/ABCDEFGHJKMN";
  }
  void TearDown() override {
    if (source_) source_->Stop();
    server_.Stop();
  }

  std::unique_ptr<HoldingClip> clip_;
  std::shared_ptr<streams::MediaStream> stream_;
  streams::StreamRegistry registry_;
  rtsp::RtspServer server_{[this](const std::string& path) { return registry_.Find(rtsp::TokenFromPath(path)); }};
  std::unique_ptr<HoldingSource> source_;
  std::string url_;
};

TEST_F(HoldingPlayerTest, TenSecondsPlayWithoutGapsAcrossTheLoopAndInSilence) {
  testsupport::ProcessOptions options;
  options.timeout = 60s;
  const auto result = testsupport::RunProcess(
      {"ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", "tcp", "-i", url_, "-t", "10",
       "-map", "0:v", "-map", "0:a", "-c:a", "pcm_s16le", "-f", "framemd5", "-"},
      options);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.err, "");
  std::vector<std::int64_t> video, audio;
  std::size_t silent = 0;
  std::size_t cut_last = 0;
  // MD5 of 1024 stereo frames of 16-bit zeros (4096 zero bytes).
  const std::string zeros_md5 = "620f0b67a91f7f74151bc5be745b7110";
  for (const auto& line : ParseFramemd5(result.out)) {
    if (line.stream == 0) video.push_back(line.pts);
    if (line.stream == 1) {
      audio.push_back(line.pts);
      if (line.hash == zeros_md5) ++silent;
      if (line.size < 4096) ++cut_last;
    }
  }
  ASSERT_GE(video.size(), 285u);  // 10 s at 30 fps, within 5 %: over two loops of the 4 s clip.
  ASSERT_LE(video.size(), 315u);
  const std::int64_t step = video[1] - video[0];
  EXPECT_GT(step, 0);
  for (std::size_t i = 1; i < video.size(); ++i) {
    ASSERT_EQ(video[i] - video[i - 1], step) << "video gap at frame " << i;
  }
  // All of the sound came through. Its exact timing is checked on the wire below: ffmpeg
  // re-times audio at every sender report, which mixes its own timing into these figures.
  ASSERT_GE(audio.size(), 440u);  // 10 s is 469 units of 1024.
  // Every whole unit is silence; "-t 10" may cut the last one short (another size, another hash).
  EXPECT_LE(cut_last, 1u);
  EXPECT_EQ(silent + cut_last, audio.size()) << "the card's sound is not silence";
}

TEST_F(HoldingPlayerTest, FirstPictureShowsTheCard) {
  const std::filesystem::path artifacts = MIRELL_TEST_ARTIFACT_DIR;
  std::filesystem::create_directories(artifacts);
  const auto png = artifacts / "holding_card.png";
  testsupport::ProcessOptions options;
  options.timeout = 30s;
  const auto grabbed = testsupport::RunProcess({"ffmpeg", "-nostdin", "-v", "error", "-y", "-rtsp_transport",
                                                "tcp", "-i", url_, "-frames:v", "1", png.string()},
                                               options);
  ASSERT_EQ(grabbed.exit_code, 0) << grabbed.err;
  // Read the PNG back as RGB and look at the card's parts.
  const auto raw = testsupport::RunProcess({"ffmpeg", "-nostdin", "-v", "error", "-i", png.string(),
                                            "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
  ASSERT_EQ(raw.exit_code, 0) << raw.err;
  ASSERT_EQ(raw.out.size(), 1280u * 720 * 3);
  const auto pixel = [&](int x, int y) {
    const auto at = static_cast<std::size_t>(y * 1280 + x) * 3;
    return std::array<int, 3>{static_cast<unsigned char>(raw.out[at]),
                              static_cast<unsigned char>(raw.out[at + 1]),
                              static_cast<unsigned char>(raw.out[at + 2])};
  };
  // The bottom corner is the card's background (20, 18, 26) or its band (36, 31, 46), give or
  // take the compression.
  const auto corner = pixel(4, 715);
  EXPECT_GE(corner[0], 14);
  EXPECT_LE(corner[0], 42);
  EXPECT_GE(corner[1], 12);
  EXPECT_LE(corner[1], 37);
  EXPECT_GE(corner[2], 20);
  EXPECT_LE(corner[2], 52);
  EXPECT_GT(corner[2], corner[1]) << "the card is bluish";
  // The title row holds light text.
  int light = 0;
  for (int x = 0; x < 1280; ++x) {
    for (int y = 380; y < 430; ++y) {
      const auto p = pixel(x, y);
      if (p[0] > 180 && p[1] > 180 && p[2] > 180) ++light;
    }
  }
  EXPECT_GT(light, 1000) << "no title text in " << png;
}

// On the wire: RTP time stamps of both tracks over 6 s, across the clip's loop point at 4 s.
TEST_F(HoldingPlayerTest, RtpTimesStepEvenlyAcrossTheLoopPoint) {
  rtsp::testing::RtspTestClient client(server_.port());
  ASSERT_EQ(client.Request("DESCRIBE", url_, 1).status, 200);
  client.Request("SETUP", url_ + "/trackID=0", 2, "Transport: RTP/AVP/TCP;interleaved=0-1\r\n");
  client.Request("SETUP", url_ + "/trackID=1", 3, "Transport: RTP/AVP/TCP;interleaved=2-3\r\n");
  ASSERT_EQ(client.Request("PLAY", url_, 4).status, 200);
  std::vector<std::uint32_t> video, audio;
  const auto until = std::chrono::steady_clock::now() + 6s;
  while (std::chrono::steady_clock::now() < until) {
    const auto frame = client.ReadFrame(1s);
    ASSERT_TRUE(frame.has_value());
    const auto fields = rtsp::testing::ReadRtpFields(frame->payload);
    if (frame->channel == 0 && fields.marker) video.push_back(fields.timestamp);
    if (frame->channel == 2) audio.push_back(fields.timestamp);
  }
  ASSERT_GT(video.size(), 150u);
  for (std::size_t i = 1; i < video.size(); ++i) {
    // 333333 x 9 / 1000 = 2999.997: 3000 each, or 2999 where the rounding turns.
    const auto step = video[i] - video[i - 1];
    ASSERT_TRUE(step == 3000 || step == 2999) << "video step " << step << " at " << i;
  }
  ASSERT_GT(audio.size(), 250u);
  std::size_t short_steps = 0;
  for (std::size_t i = 1; i < audio.size(); ++i) {
    // A unit lasts 213333 x 100 ns, a third of a tick short of 1024 samples, so the RTP step is
    // 1024 and, about once in 13 s, 1023; never more, which would be a gap.
    const auto step = audio[i] - audio[i - 1];
    ASSERT_TRUE(step == 1024 || step == 1023) << "audio step " << step << " at " << i;
    if (step == 1023) ++short_steps;
  }
  EXPECT_LE(short_steps, 1u);
}

}  // namespace
}  // namespace mirell::session
