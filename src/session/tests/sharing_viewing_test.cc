// A share and its viewer in one process, through our signal server and real peer links: the
// host's Sharing over windows of a private Xvfb, the viewer's Viewing with an RTSP server on its
// own registry, and ffmpeg as the player. What a viewer must not notice (a change of target) and
// what must end a viewer at once (a revoked link) are checked from the player's side.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <thread>

#include "mirell/rtsp/rtsp_server.h"
#include "mirell/rtsp/stream_path.h"
#include "mirell/session/sharing.h"
#include "mirell/session/viewing.h"
#include "mirell/streams/stream_registry.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/testsupport/xvfb.h"
#include "mirell/transport/peer_link.h"
#include "mirell/transport/signal_client.h"
#include "test_window.h"

namespace mirell::session {
namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::Eventually;

// One decoded picture: its time and the colour at its centre.
struct Picture {
  double time = 0;
  int r = 0, g = 0, b = 0;
  bool red() const { return r > 150 && g < 90 && b < 90; }
  bool blue() const { return b > 150 && r < 90 && g < 90; }
};

class SharingToAViewer : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testsupport::HaveProgram("ffmpeg")) GTEST_SKIP() << "needs ffmpeg";
    testsupport::XvfbOptions options;
    options.window_manager = true;
    display_ = std::make_unique<testsupport::XvfbDisplay>(options);
    if (!display_->available()) GTEST_SKIP() << "Xvfb or openbox is missing";
    setenv("DISPLAY", display_->name().c_str(), 1);
    transport::InitialiseTransportLogging();

    signal_port_ = testsupport::FreeLoopbackPort();
    signal_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{MIRELL_SIGNAL_BINARY, "--listen", "127.0.0.1:" + std::to_string(signal_port_)});
    ASSERT_TRUE(Eventually([&] { return testsupport::LoopbackPortAccepts(signal_port_); }));

    Sharing::Config config;
    config.quality.width = 640;
    config.quality.height = 360;
    config.quality.fps = 30;
    config.quality.video_kbps = 1500;
    config.audio_enabled = false;
    config.signal_url = SignalUrl();
    config.share_prefix = "127.0.0.1/s/";
    sharing_ = std::make_unique<Sharing>(host_registry_, config);
    sharing_->SetAdmissionRequired(false);

    Viewing::Config viewing;
    viewing.signal_url = SignalUrl();
    viewing.holding_card = false;
    viewing_ = std::make_unique<Viewing>(viewer_registry_, viewing);
    rtsp_ = std::make_unique<rtsp::RtspServer>(
        [this](const std::string& path) { return viewer_registry_.Find(rtsp::TokenFromPath(path)); });
    rtsp_->Start(0);
  }

  void TearDown() override {
    if (viewing_) viewing_->Stop();
    if (sharing_) sharing_->Stop();
    if (rtsp_) rtsp_->Stop();
  }

  std::string SignalUrl() const { return "ws://127.0.0.1:" + std::to_string(signal_port_) + "/signal"; }

  std::unique_ptr<capture::TestWindow> OpenWindow(const std::string& title, const std::string& colour) {
    auto window = std::make_unique<capture::TestWindow>(
        display_->name(), std::vector<std::string>{"--title", title, "--color", colour, "--size", "320x180"});
    EXPECT_NE(window->id(), 0u);
    return window;
  }

  static ShareTarget WindowTarget(capture::TestWindow& window, const std::string& label) {
    ShareTarget target;
    target.capture.window = window.id();
    target.label = label;
    target.process_id = static_cast<std::uint32_t>(window.pid());
    return target;
  }

  // ffmpeg on the viewer's RTSP server: each picture's time and centre colour on stderr.
  std::unique_ptr<ChildProcess> Play(const std::string& token, double seconds) {
    testsupport::ProcessOptions options;
    options.timeout = 120s;
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(rtsp_->port()) + "/s/" + token;
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{"ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "info", "-rtsp_transport", "tcp",
                                 "-i", url, "-t", std::to_string(seconds), "-an", "-vf",
                                 "crop=8:8:iw/2-4:ih/2-4,scale=1:1:flags=area,format=rgb24,showinfo", "-f", "rawvideo",
                                 (dir_.path() / "centre.rgb").string()},
        options);
  }

  std::vector<Picture> Pictures(const std::string& log) {
    static const std::regex kTime(R"(Parsed_showinfo.*pts_time:\s*([-0-9.]+))");
    std::vector<Picture> pictures;
    std::istringstream lines(log);
    std::string line;
    std::smatch match;
    while (std::getline(lines, line)) {
      if (std::regex_search(line, match, kTime)) pictures.push_back({std::stod(match[1])});
    }
    const std::string colours = testsupport::ReadFileText(dir_.path() / "centre.rgb");
    pictures.resize(std::min(pictures.size(), colours.size() / 3));
    for (std::size_t i = 0; i < pictures.size(); ++i) {
      pictures[i].r = static_cast<std::uint8_t>(colours[i * 3]);
      pictures[i].g = static_cast<std::uint8_t>(colours[i * 3 + 1]);
      pictures[i].b = static_cast<std::uint8_t>(colours[i * 3 + 2]);
    }
    return pictures;
  }

  // Without the card, a watch's stream can be played once the host's first keyframe is there.
  bool Watching(const std::string& token) {
    viewing_->Ensure(token);
    const auto stream = viewer_registry_.Find(token);
    return stream && Eventually([&] { return !stream->SequenceHeader().empty(); }, 20s);
  }

  bool OneViewerConnected() {
    const auto viewers = sharing_->viewers();
    return viewers.size() == 1 && viewers[0].state == transport::PeerState::kConnected;
  }

  testsupport::TempDir dir_;
  std::unique_ptr<testsupport::XvfbDisplay> display_;
  std::uint16_t signal_port_ = 0;
  std::unique_ptr<ChildProcess> signal_;
  streams::StreamRegistry host_registry_;
  streams::StreamRegistry viewer_registry_;
  std::unique_ptr<Sharing> sharing_;
  std::unique_ptr<Viewing> viewing_;
  std::unique_ptr<rtsp::RtspServer> rtsp_;
};

TEST_F(SharingToAViewer, ARetargetKeepsTheViewersLinkAndShowsTheNewWindowAtOnce) {
  auto red = OpenWindow("Red Window", "FF0000");
  auto blue = OpenWindow("Blue Window", "0000FF");
  sharing_->Start(WindowTarget(*red, "red"));
  const std::string token = sharing_->token();
  ASSERT_TRUE(Watching(token));
  auto player = Play(token, 9);
  ASSERT_TRUE(Eventually([&] { return OneViewerConnected(); }, 20s));
  const std::string connection = sharing_->viewers()[0].connection_id;
  std::this_thread::sleep_for(3s);
  sharing_->Poll();
  const auto before = sharing_->viewers()[0];

  sharing_->Retarget(WindowTarget(*blue, "blue"));
  std::this_thread::sleep_for(2s);
  sharing_->Poll();
  const auto viewers = sharing_->viewers();
  ASSERT_EQ(viewers.size(), 1u);
  // The same link, never renegotiated: same viewer, still connected, its counts going on.
  EXPECT_EQ(viewers[0].connection_id, connection);
  EXPECT_EQ(viewers[0].state, transport::PeerState::kConnected);
  EXPECT_GT(viewers[0].bytes_sent, before.bytes_sent);
  EXPECT_GE(viewers[0].frames_sent, before.frames_sent + 30);
  EXPECT_EQ(viewing_->WatchCount(), 1u);

  const auto result = player->Wait(60s);
  ASSERT_FALSE(result.timed_out);
  const std::vector<Picture> pictures = Pictures(result.err);
  ASSERT_GT(pictures.size(), 150u) << result.err;
  double last_red = -1, first_blue = -1;
  for (std::size_t i = 0; i < pictures.size(); ++i) {
    if (i > 0 && pictures[i].time >= 1.0) {
      ASSERT_GT(pictures[i].time, pictures[i - 1].time) << "picture " << i << " steps back";
    }
    if (pictures[i].red() && first_blue < 0) last_red = pictures[i].time;
    if (pictures[i].blue() && first_blue < 0) first_blue = pictures[i].time;
  }
  ASSERT_GT(last_red, 0) << result.err;
  ASSERT_GT(first_blue, last_red) << result.err;
  // Well within one keyframe interval (2 s): the keyframe asked for comes at once.
  EXPECT_LT(first_blue - last_red, 1.0);
  for (const Picture& picture : pictures) {
    if (picture.time > first_blue) {
      EXPECT_FALSE(picture.red()) << "red again at " << picture.time;
    }
  }
}

TEST_F(SharingToAViewer, ARevokedLinkDropsItsViewersAndNoLongerLeadsToTheShare) {
  auto window = OpenWindow("Revoked Window", "FF0000");
  sharing_->Start(WindowTarget(*window, "revoked"));
  const std::string old_token = sharing_->token();
  const std::string old_link = sharing_->link();
  ASSERT_TRUE(Watching(old_token));
  auto player = Play(old_token, 60);
  ASSERT_TRUE(Eventually([&] { return OneViewerConnected(); }, 20s));

  const auto revoked = std::chrono::steady_clock::now();
  sharing_->Revoke();
  EXPECT_NE(sharing_->link(), old_link);
  EXPECT_EQ(sharing_->link(), "http://127.0.0.1/s/" + sharing_->token()) << "a ws:// server's link";
  EXPECT_TRUE(sharing_->viewers().empty()) << "old viewers are dropped";
  EXPECT_EQ(host_registry_.Find(old_token), nullptr);
  // The viewer's player ends long before the minute it asked for: the host told the server the
  // old link's end, and the server the viewer, whose stream ends at once (Poll is not needed).
  EXPECT_TRUE(Eventually([&] { return !player->Running(); }, 30s));
  const auto ended_after = std::chrono::steady_clock::now() - revoked;
  if (!testsupport::kSanitizedBuild) {
    EXPECT_LT(ended_after, 1s) << std::chrono::duration<double>(ended_after).count() << " s";
  }
  viewing_->Poll();
  EXPECT_EQ(viewing_->WatchCount(), 0u);

  // Someone who comes with the old link is never let in: no host answers that token any more.
  transport::SignalConfig join;
  join.url = SignalUrl();
  join.token = old_token;
  join.identity = "usr_late";
  auto late = transport::CreateViewerSignalClient(join);
  std::atomic<bool> offered{false};
  late->OnOffer([&](const std::string&) { offered = true; });
  late->Start();
  std::this_thread::sleep_for(2s);
  sharing_->Poll();
  EXPECT_FALSE(offered.load());
  EXPECT_TRUE(sharing_->viewers().empty());
  late->Stop();
}

TEST_F(SharingToAViewer, AShareThatStopsEndsItsViewersPlayerWithinASecond) {
  auto window = OpenWindow("Stopping Window", "0000FF");
  sharing_->Start(WindowTarget(*window, "stopping"));
  const std::string token = sharing_->token();
  ASSERT_TRUE(Watching(token));
  auto player = Play(token, 60);
  ASSERT_TRUE(Eventually([&] { return OneViewerConnected(); }, 20s));
  ASSERT_TRUE(Eventually([&] {
    const auto stream = viewer_registry_.Find(token);
    return stream && stream->frames().SubscriberCount() == 1;
  }, 20s));
  ASSERT_TRUE(player->Running());

  const auto stopped = std::chrono::steady_clock::now();
  sharing_->Stop();
  EXPECT_TRUE(Eventually([&] { return !player->Running(); }, 30s));
  const auto ended_after = std::chrono::steady_clock::now() - stopped;
  if (!testsupport::kSanitizedBuild) {
    EXPECT_LT(ended_after, 1s) << std::chrono::duration<double>(ended_after).count() << " s";
  }
  std::printf("the player ended %.0f ms after the share was told to stop\n",
              std::chrono::duration<double, std::milli>(ended_after).count());
  EXPECT_EQ(viewer_registry_.Find(token), nullptr) << "withdrawn without waiting for a Poll";
  EXPECT_EQ(viewing_->WaitJoinState(token, 0ms), Viewing::JoinState::kRefused);
  viewing_->Poll();
  EXPECT_EQ(viewing_->WatchCount(), 0u);
}

TEST_F(SharingToAViewer, WithoutASignalServerTheShareStillPlaysOnThisMachine) {
  auto window = OpenWindow("Local Window", "0000FF");
  Sharing::Config config;
  config.quality.width = 640;
  config.quality.height = 360;
  config.audio_enabled = false;
  Sharing local(host_registry_, config);
  local.Start(WindowTarget(*window, "local"));
  EXPECT_EQ(local.viewer_count(), 0u);
  rtsp::RtspServer host_rtsp(
      [this](const std::string& path) { return host_registry_.Find(rtsp::TokenFromPath(path)); });
  host_rtsp.Start(0);
  const auto result = testsupport::RunProcess(
      {"ffmpeg", "-hide_banner", "-nostdin", "-rtsp_transport", "tcp", "-i",
       "rtsp://127.0.0.1:" + std::to_string(host_rtsp.port()) + "/s/" + local.token(), "-t", "2", "-an", "-vf",
       "crop=8:8:iw/2-4:ih/2-4,scale=1:1:flags=area,format=rgb24,showinfo", "-f", "rawvideo",
       (dir_.path() / "centre.rgb").string()});
  host_rtsp.Stop();
  const std::vector<Picture> pictures = Pictures(result.err);
  ASSERT_GT(pictures.size(), 40u) << result.err;
  EXPECT_TRUE(pictures.back().blue());
}

}  // namespace
}  // namespace mirell::session
