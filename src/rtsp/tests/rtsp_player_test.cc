// Real players that we did not write, against a live fixture stream served by our RTSP server:
// FFmpeg's and GStreamer's RTSP clients over interleaved TCP.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>
#include <thread>

#include "fixture_publisher.h"
#include "interop_support.h"
#include "mirell/base/logging.h"
#include "mirell/media/h264_rtp.h"
#include "mirell/rtsp/rtsp_server.h"
#include "mirell/rtsp/stream_path.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/testsupport/subprocess.h"
#include "rtsp_test_client.h"

namespace mirell::rtsp {
namespace {

using namespace std::chrono_literals;

using media::testing::ParseFramemd5;

class RtspPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testsupport::HaveProgram("ffmpeg") || !testsupport::HaveProgram("gst-launch-1.0")) {
      GTEST_SKIP() << "needs ffmpeg and gst-launch-1.0 (scripts/install-deps installs them)";
    }
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    SetLogLevel(LogLevel::kInfo);
    stream_ = std::make_shared<streams::MediaStream>("fixture", 30, 2000);
    publisher_ = std::make_unique<testing::FixturePublisher>(dir_.path(), stream_);
    registry_.Publish("ABCDEFGHJKMN", stream_);
    server_.Start(0);
    url_ = "rtsp://127.0.0.1:" + std::to_string(server_.port()) + "/s/ABCDEFGHJKMN";
    publisher_->Start();
  }
  void TearDown() override {
    if (publisher_) publisher_->Stop();
    server_.Stop();
  }
  std::string log() { return testsupport::ReadFileText(dir_.path() / "log"); }

  testsupport::TempDir dir_;
  streams::StreamRegistry registry_;
  RtspServer server_{[this](const std::string& path) { return registry_.Find(TokenFromPath(path)); }};
  std::shared_ptr<streams::MediaStream> stream_;
  std::unique_ptr<testing::FixturePublisher> publisher_;
  std::string url_;
};

// ffmpeg reads five seconds of the stream over TCP: 150 frames with rising times, and the sound
// of five seconds (234 units of 1024 samples at 48 kHz), each within 5 %.
void ExpectFiveSecondsOfBothTracks(const std::string& url) {
  testsupport::ProcessOptions options;
  options.timeout = 60s;
  const auto result = testsupport::RunProcess(
      {"ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", "tcp", "-i", url, "-t", "5", "-map",
       "0:v", "-map", "0:a", "-f", "framemd5", "-"},
      options);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.err, "") << "ffmpeg reported errors";
  std::vector<std::int64_t> video_pts;
  std::size_t audio_units = 0;
  for (const auto& line : ParseFramemd5(result.out)) {
    if (line.stream == 0) video_pts.push_back(line.pts);
    if (line.stream == 1) ++audio_units;
  }
  EXPECT_GE(video_pts.size(), 143u);
  EXPECT_LE(video_pts.size(), 157u);
  for (std::size_t i = 1; i < video_pts.size(); ++i) {
    ASSERT_GT(video_pts[i], video_pts[i - 1]) << "at frame " << i;
  }
  EXPECT_GE(audio_units, 222u);
  EXPECT_LE(audio_units, 246u);
}

// ffprobe lists three seconds of packets as its demuxer times them. It times a track's packets
// from the track's first sender report on, and any that came before that report from the
// track's own first packet: a report behind the primed sound stepped the sound back by the
// primed span. Neither track may step back, from its very first packet on.
void ExpectNeitherTrackStepsBack(const std::string& url) {
  testsupport::ProcessOptions options;
  options.timeout = 60s;
  const auto result = testsupport::RunProcess(
      {"ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-read_intervals", "%+3", "-show_entries",
       "packet=stream_index,pts_time", "-of", "csv=p=0", url},
      options);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  std::map<int, std::vector<double>> times;
  std::istringstream lines(result.out);
  for (std::string line; std::getline(lines, line);) {
    const auto comma = line.find(',');
    if (comma == std::string::npos || line.compare(comma + 1, 3, "N/A") == 0) continue;
    times[std::stoi(line.substr(0, comma))].push_back(std::stod(line.substr(comma + 1)));
  }
  ASSERT_EQ(times.size(), 2u) << result.out;
  for (const auto& [track, track_times] : times) {
    EXPECT_GT(track_times.size(), 60u) << "track " << track;
    for (std::size_t i = 1; i < track_times.size(); ++i) {
      ASSERT_GE(track_times[i], track_times[i - 1]) << "track " << track << " steps back at packet " << i;
    }
  }
}

TEST_F(RtspPlayerTest, FfmpegPrimedWithHalfASecondSeesNeitherTrackStepBack) {
  std::this_thread::sleep_for(600ms);
  ExpectNeitherTrackStepsBack(url_);
}

TEST_F(RtspPlayerTest, FfmpegDecodesFiveSecondsOfBothTracksWhileAnotherPlayerStalls) {
  // A player that stops reading after PLAY must not slow this one down.
  testing::RtspTestClient stalled(server_.port());
  ASSERT_EQ(stalled.Request("DESCRIBE", url_, 1).status, 200);
  ASSERT_EQ(stalled.Request("PLAY", url_, 2).status, 200);

  ExpectFiveSecondsOfBothTracks(url_);
}

TEST_F(RtspPlayerTest, FfmpegPrimedWithHalfASecondKeepsItsTwoTracksAligned) {
  // Joining once the history holds half a second, ffmpeg gets all that sound with the first
  // frame. The sender reports must still map both tracks to one instant, or ffmpeg shifts the
  // sound by the primed span and its five seconds hold a tenth more sound than picture.
  std::this_thread::sleep_for(600ms);
  ExpectFiveSecondsOfBothTracks(url_);
}

TEST_F(RtspPlayerTest, GstreamerRtspsrcPlaysBothTracks) {
  testsupport::ProcessOptions options;
  options.timeout = 30s;
  // playbin links rtspsrc's pads as they come; gst-launch's own delayed linking of two branches
  // stalled now and then on a loaded machine, with one sink waiting for ever. rtspt:// is TCP
  // only, as VRChat asks for it.
  std::string rtspt = url_;
  rtspt.replace(0, 4, "rtspt");
  const auto result = testsupport::RunProcess(
      {"timeout", "-s", "INT", "6", "gst-launch-1.0", "-e", "-v", "playbin", "uri=" + rtspt,
       "video-sink=fakesink name=v silent=false", "audio-sink=fakesink name=a silent=false"},
      options);
  EXPECT_NE(result.out.find("Setting pipeline to PLAYING"), std::string::npos) << result.out << result.err;
  std::size_t video_buffers = 0, audio_buffers = 0;
  for (std::size_t at = 0; (at = result.out.find("(v:sink)", at)) != std::string::npos; ++at) ++video_buffers;
  for (std::size_t at = 0; (at = result.out.find("(a:sink)", at)) != std::string::npos; ++at) ++audio_buffers;
  // The player's own last words, when it falls short.
  const std::string tail = result.out.substr(result.out.size() > 4000 ? result.out.size() - 4000 : 0);
  EXPECT_GT(video_buffers, 60u) << result.err << tail;
  EXPECT_GT(audio_buffers, 100u) << result.err << tail;
  EXPECT_EQ(result.err.find("ERROR"), std::string::npos) << result.err;
}

TEST_F(RtspPlayerTest, LateJoinerIsPrimedFromHistoryWithAudioNotBeforeTheFirstFrame) {
  std::this_thread::sleep_for(5s);
  testing::RtspTestClient client(server_.port());
  ASSERT_EQ(client.Request("DESCRIBE", url_, 1).status, 200);
  client.Request("SETUP", url_ + "/trackID=0", 2, "Transport: RTP/AVP/TCP;interleaved=0-1\r\n");
  client.Request("SETUP", url_ + "/trackID=1", 3, "Transport: RTP/AVP/TCP;interleaved=2-3\r\n");
  const auto played_at = std::chrono::steady_clock::now();
  ASSERT_EQ(client.Request("PLAY", url_, 4).status, 200);

  // The first video arrives at once and is a whole keyframe: the history, not the next keyframe
  // of the live source (up to half a second away).
  media::H264RtpDepacketizer depacketizer;
  std::optional<media::H264AccessUnit> first_unit;
  std::optional<std::uint32_t> first_audio_time;
  while (!first_unit || !first_audio_time) {
    const auto frame = client.ReadFrame(2s);
    ASSERT_TRUE(frame.has_value());
    if (frame->channel == 0 && !first_unit) {
      media::H264AccessUnit unit;
      if (depacketizer.Push(frame->payload, unit)) {
        first_unit = unit;
        EXPECT_LT(std::chrono::steady_clock::now() - played_at, 200ms);
      }
    }
    if (frame->channel == 2 && !first_audio_time) {
      first_audio_time = testing::ReadRtpFields(frame->payload).timestamp;
    }
  }
  EXPECT_TRUE(first_unit->keyframe);
  EXPECT_EQ(first_unit->rtp_timestamp, 0u);
  // Audio RTP time is measured from the first frame: a unit before it would wrap to a huge value.
  EXPECT_LT(*first_audio_time, 48000u) << "audio predates the first video frame";
  const std::string text = log();
  const auto primed = text.find("client=1 primed=");
  ASSERT_NE(primed, std::string::npos) << text;
  EXPECT_GT(std::stoi(text.substr(primed + 16)), 0);
  EXPECT_NE(text.find("client=1 audio primed="), std::string::npos);
}

}  // namespace
}  // namespace mirell::rtsp
