// Picture and sound stay together at the player. The stream's picture flashes white and its sound
// clicks at the same media times, once a second; ffmpeg's and GStreamer's RTSP clients play it from
// our server, one primed with the stream's history at its start and one joining late, and the
// decoded flashes and clicks must agree within 20 ms from the first second of playing on.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cmath>
#include <filesystem>
#include <regex>
#include <sstream>
#include <thread>

#include "fixture_publisher.h"
#include "mirell/base/logging.h"
#include "mirell/rtsp/rtsp_server.h"
#include "mirell/rtsp/stream_path.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::rtsp {
namespace {

using namespace std::chrono_literals;

// Seconds in the player's own time line.
struct Marks {
  double first_picture = -1;
  bool pictures_missing = false;  // Two pictures in a row more than 1.5 frames apart.
  bool nothing_recorded = false;  // The player stalled and wrote no file to read back.
  std::vector<double> flashes;
  std::vector<double> clicks;
  std::string log;
};

// From ffmpeg's showinfo (a white picture's mean luma is 235, black's 16) and silencedetect (the
// end of a silence is the onset of a click, to the sample).
Marks ReadMarks(const std::string& log) {
  static const std::regex kPicture(R"(Parsed_showinfo.*pts_time:\s*([-0-9.]+).*mean:\[(\d+))");
  static const std::regex kClick(R"(silence_end:\s*([-0-9.]+))");
  Marks marks;
  marks.log = log;
  std::istringstream lines(log);
  std::string line;
  std::smatch match;
  double previous_picture = -1;
  while (std::getline(lines, line)) {
    if (std::regex_search(line, match, kPicture)) {
      const double time = std::stod(match[1]);
      if (marks.first_picture < 0) marks.first_picture = time;
      if (previous_picture >= 0 && time - previous_picture > 1.5 / 30) marks.pictures_missing = true;
      previous_picture = time;
      if (std::stoi(match[2]) > 128) marks.flashes.push_back(time);
    } else if (std::regex_search(line, match, kClick)) {
      marks.clicks.push_back(std::stod(match[1]));
    }
  }
  return marks;
}

// The analysis both players' output goes through: ffmpeg on a URL or a file.
std::vector<std::string> AnalyseCommand(const std::string& input, double seconds) {
  std::vector<std::string> command = {"ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "info"};
  if (input.rfind("rtsp://", 0) == 0) command.insert(command.end(), {"-rtsp_transport", "tcp"});
  command.insert(command.end(), {"-i", input, "-t", std::to_string(seconds), "-vf", "showinfo",
                                 "-af", "silencedetect=noise=-30dB:d=0.2", "-f", "null", "-"});
  return command;
}

void ExpectFlashesAndClicksTogether(const Marks& marks) {
  ASSERT_GE(marks.first_picture, -1.0) << marks.log;
  int pairs = 0;
  for (const double flash : marks.flashes) {
    if (flash < marks.first_picture + 1.0) continue;  // From the first second of playing on.
    double nearest = 1e9;
    for (const double click : marks.clicks) {
      if (std::abs(click - flash) < std::abs(nearest - flash)) nearest = click;
    }
    EXPECT_NEAR(nearest, flash, 0.020) << "the flash at " << flash << " s\n" << marks.log;
    ++pairs;
  }
  EXPECT_GE(pairs, 3) << marks.log;
}

class AvSyncPlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testsupport::HaveProgram("ffmpeg") || !testsupport::HaveProgram("gst-launch-1.0")) {
      GTEST_SKIP() << "needs ffmpeg and gst-launch-1.0 (scripts/install-deps installs them)";
    }
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    SetLogLevel(LogLevel::kInfo);
    stream_ = std::make_shared<streams::MediaStream>("flash and click", 30, 2000);
    testing::FixtureOptions options;
    options.width = 320;
    options.height = 240;
    // 60 s: no test plays past the end of the fixture into its loop, not even three GStreamer
    // runs of which two stalled (each ends at its 16 s limit). With 20 s, a run after a stall
    // crossed the loop, where the tracks start again apart, and measured that.
    options.frames = 1800;
    options.video_source =
        "color=c=black:s=320x240:r=30,drawbox=color=white:t=fill:enable='eq(mod(n\\,30)\\,0)'";
    options.audio_source =
        "aevalsrc=exprs='if(lt(mod(t\\,1)\\,0.01)\\,0.8*sin(2*PI*2000*t)\\,0)':s=48000";
    options.sound_on_time = true;
    publisher_ = std::make_unique<testing::FixturePublisher>(dir_.path(), stream_, options);
    registry_.Publish("ABCDEFGHJKMN", stream_);
    server_.Start(0);
    url_ = "rtsp://127.0.0.1:" + std::to_string(server_.port()) + "/s/ABCDEFGHJKMN";
    publisher_->Start();
  }
  void TearDown() override {
    if (publisher_) publisher_->Stop();
    server_.Stop();
  }

  Marks PlayWithFfmpeg(double seconds) {
    testsupport::ProcessOptions options;
    options.timeout = 60s;
    const auto result = testsupport::RunProcess(AnalyseCommand(url_, seconds), options);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return ReadMarks(result.err);
  }

  // GStreamer's rtspsrc lines the tracks up by the sender reports; what it recorded, with its
  // running times, is read back by the same analysis. Matroska keeps the running times (MPEG-TS
  // from mpegtsmux does not: the same primed session recorded both ways showed the tracks in step
  // in Matroska and 0.42 s apart in MPEG-TS). Streamable and written unbuffered, the file reads
  // back even if the pipeline did not get to finish it. Each track ends itself after `seconds`
  // of media (an end of stream after so many frames), so the recording finishes cleanly: ended
  // by SIGINT, gst-launch once hung and left a file with nothing readable. SIGINT stays as the
  // backstop for a stream that stops short.
  Marks PlayWithGstreamer(int seconds) {
    const auto file = dir_.path() / "gstreamer.mkv";
    std::filesystem::remove(file);
    const int video_frames = seconds * 30;
    const int audio_units = seconds * 48000 / 1024;
    testsupport::ProcessOptions options;
    options.timeout = 60s;
    const auto recorded = testsupport::RunProcess(
        {"timeout", "-k", "3", "-s", "INT", std::to_string(seconds + 10), "gst-launch-1.0", "-e",
         "rtspsrc", "location=" + url_, "protocols=tcp", "latency=200", "name=src", "src.", "!",
         "application/x-rtp,media=video", "!", "rtph264depay", "!", "h264parse", "!", "identity",
         fmt::format("eos-after={}", video_frames), "!", "queue", "!", "matroskamux",
         "streamable=true", "name=mux", "!", "filesink", "buffer-mode=unbuffered",
         "location=" + file.string(), "src.", "!", "application/x-rtp,media=audio", "!",
         "rtpmp4gdepay", "!", "aacparse", "!", "identity", fmt::format("eos-after={}", audio_units),
         "!", "queue", "!", "mux."},
        options);
    EXPECT_EQ(recorded.err.find("ERROR"), std::string::npos) << recorded.err;
    std::error_code error;
    const auto size = std::filesystem::file_size(file, error);
    if (recorded.exit_code != 0 && (error || size < 64)) {
      // Seen about once in twenty runs: the muxer wrote not even a header while the server
      // delivered every picture and sound (its log shows them, and the player's reports).
      Marks stalled;
      stalled.nothing_recorded = true;
      stalled.log = recorded.err;
      return stalled;
    }
    EXPECT_EQ(recorded.exit_code, 0) << "the recording did not end by itself\n" << recorded.err;
    const auto result = testsupport::RunProcess(AnalyseCommand(file.string(), 60), options);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return ReadMarks(result.err);
  }

  // A GStreamer player that falls behind while it starts (the server then drops pictures up to a
  // keyframe for it) shows a gap, after which its jitter buffer re-times the video for a moment
  // (seen once: 268 ms for the next second). Such a run measures the player catching up, not the
  // reports, so it is played again, as is a run where the player stalled before it wrote
  // anything; three runs at most. A run without a gap must show the tracks together.
  Marks PlayWithGstreamerWithoutGaps(int seconds) {
    Marks marks;
    for (int run = 0; run < 3; ++run) {
      marks = PlayWithGstreamer(seconds);
      if (!marks.pictures_missing && !marks.nothing_recorded) return marks;
    }
    ADD_FAILURE() << "the player fell behind or stalled at its start in every run\n" << marks.log;
    return marks;
  }

  testsupport::TempDir dir_;
  streams::StreamRegistry registry_;
  RtspServer server_{[this](const std::string& path) { return registry_.Find(TokenFromPath(path)); }};
  std::shared_ptr<streams::MediaStream> stream_;
  std::unique_ptr<testing::FixturePublisher> publisher_;
  std::string url_;
};

TEST_F(AvSyncPlayerTest, FfmpegPrimedAtTheStart) {
  std::this_thread::sleep_for(700ms);  // The history holds the primed half second.
  ExpectFlashesAndClicksTogether(PlayWithFfmpeg(5));
}

TEST_F(AvSyncPlayerTest, FfmpegJoiningLate) {
  std::this_thread::sleep_for(6s);
  ExpectFlashesAndClicksTogether(PlayWithFfmpeg(5));
}

TEST_F(AvSyncPlayerTest, GstreamerPrimedAtTheStart) {
  std::this_thread::sleep_for(700ms);
  ExpectFlashesAndClicksTogether(PlayWithGstreamerWithoutGaps(6));
}

TEST_F(AvSyncPlayerTest, GstreamerJoiningLate) {
  std::this_thread::sleep_for(6s);
  ExpectFlashesAndClicksTogether(PlayWithGstreamerWithoutGaps(6));
}

}  // namespace
}  // namespace mirell::rtsp
