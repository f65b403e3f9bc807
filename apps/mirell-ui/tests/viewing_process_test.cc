// A share link played across real processes, as on a viewer's machine: our signal server on
// loopback, a test host (the fixture stream behind a share session the test decides for), the real
// mirell-ui as the viewer, and ffmpeg as VRChat's player on the address the resolver gives.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "installed_ui.h"
#include "mirell/protocol/share_token.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/transport/signal_client.h"

namespace mirell::ui {
namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::Eventually;
using testsupport::ExchangeOnce;

// One decoded picture or block of sound, as ffmpeg's showinfo and ashowinfo filters print it.
struct Played {
  double time = 0;
  std::string size;  // "WxH" for pictures.
};

struct Playback {
  std::vector<Played> video;
  std::vector<Played> audio;
  std::string log;
};

Playback ParsePlayback(const std::string& log) {
  static const std::regex kVideo(R"(Parsed_showinfo.*pts_time:\s*([-0-9.]+).* s:(\d+x\d+))");
  static const std::regex kAudio(R"(Parsed_ashowinfo.*pts_time:\s*([-0-9.]+))");
  Playback playback;
  playback.log = log;
  std::istringstream lines(log);
  std::string line;
  std::smatch match;
  while (std::getline(lines, line)) {
    if (std::regex_search(line, match, kVideo)) {
      playback.video.push_back({std::stod(match[1]), match[2]});
    } else if (std::regex_search(line, match, kAudio)) {
      playback.audio.push_back({std::stod(match[1]), {}});
    }
  }
  return playback;
}

// The picture sizes tell the card (1280x720) from the test host's fixture (640x360).
constexpr const char* kCardSize = "1280x720";
constexpr const char* kHostSize = "640x360";

class ViewingAcrossProcesses : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testsupport::HaveProgram("ffmpeg")) GTEST_SKIP() << "needs ffmpeg";
    signal_port_ = testsupport::FreeLoopbackPort();
    signal_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        MIRELL_SIGNAL_BINARY, "--listen", "127.0.0.1:" + std::to_string(signal_port_)});
    ASSERT_TRUE(Eventually([&] { return testsupport::LoopbackPortAccepts(signal_port_); }));
    credentials_ = protocol::GenerateShareCredentials();
    StartHost();
    StartViewer();
  }

  void StartHost(const std::string& allow = {}) {
    std::vector<std::string> argv{MIRELL_TEST_HOST_BINARY, "--signal", SignalUrl(), "--token",
                                  credentials_.token, "--secret", credentials_.secret, "--dir",
                                  host_dir_.path().string()};
    if (!allow.empty()) argv.insert(argv.end(), {"--allow", allow});
    host_ = std::make_unique<ChildProcess>(argv);
    ASSERT_TRUE(WaitForEvent("hosting", 30s)) << Events();
  }

  // Configured for `signal_url`, this test's server when empty.
  void StartViewer(bool wait_for_card = true, std::string signal_url = {}) {
    if (signal_url.empty()) signal_url = SignalUrl();
    pipe_port_ = testsupport::FreeLoopbackPort();
    rtsp_port_ = testsupport::FreeLoopbackPort();
    pipe_ = "127.0.0.1:" + std::to_string(pipe_port_);
    viewer_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{ui_.binary().string(), "--signal", signal_url, "--pipe", pipe_,
                                 "--rtsp-port", std::to_string(rtsp_port_), "--no-stub"},
        Headless(home_.path()));
    ASSERT_TRUE(ui_.WaitForLog(rtsp_port_, pipe_, "listening " + pipe_)) << ViewerLog();
    // The card is built in the background at start-up; most tests start from a ready card.
    if (wait_for_card) {
      ASSERT_TRUE(ui_.WaitForLog(rtsp_port_, pipe_, "card frames=", 60s)) << ViewerLog();
    }
  }

  std::string SignalUrl() const {
    return "ws://127.0.0.1:" + std::to_string(signal_port_) + "/signal";
  }
  // The share link as the host hands it out; its prefix follows from the signal server.
  std::string Link() const {
    return "https://127.0.0.1:" + std::to_string(signal_port_) + "/s/" + credentials_.token;
  }
  std::string RtspUrl() const {
    return "rtspt://127.0.0.1:" + std::to_string(rtsp_port_) + "/s/" + credentials_.token;
  }
  std::string ViewerLog() const { return ui_.Log(rtsp_port_, pipe_); }
  bool ViewerLogged(const std::string& text, std::chrono::milliseconds limit = 20s) const {
    return ui_.WaitForLog(rtsp_port_, pipe_, text, limit);
  }
  std::size_t ViewerLogCount(const std::string& text) const {
    const std::string log = ViewerLog();
    std::size_t count = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
  }

  std::string Resolve() { return ExchangeOnce(pipe_port_, "RESOLVE " + Link() + "\n"); }

  std::string Events() const { return testsupport::ReadFileText(host_dir_.path() / "events"); }
  bool WaitForEvent(const std::string& text, std::chrono::milliseconds limit = 20s) const {
    return Eventually([&] { return Events().find(text) != std::string::npos; }, limit);
  }
  // The peer id of the `nth` (from 1) "pending" event, once it is there; empty when it is not.
  std::string WaitForPending(int nth = 1, std::chrono::milliseconds limit = 20s) const {
    std::string peer;
    Eventually([&] {
      std::istringstream lines(Events());
      std::string line;
      int seen = 0;
      while (std::getline(lines, line)) {
        if (line.rfind("pending ", 0) == 0 && ++seen == nth) {
          peer = line.substr(8, line.find(' ', 8) - 8);
          return true;
        }
      }
      return false;
    }, limit);
    return peer;
  }
  void Command(const std::string& line) {
    std::ofstream(host_dir_.path() / "commands", std::ios::app) << line << '\n';
  }

  // ffmpeg as VRChat's player: every picture and block of sound it decodes, for `seconds`.
  // Resolves, plays for `seconds`, lets the viewer in as `peer` and waits for the host's media;
  // null (with the failure reported) when any step fails.
  std::unique_ptr<ChildProcess> PlayLetIn(double seconds, std::string& peer) {
    EXPECT_EQ(Resolve(), "OK " + RtspUrl() + "\n");
    auto player = Play(seconds);
    peer = WaitForPending();
    EXPECT_FALSE(peer.empty());
    if (peer.empty()) return nullptr;
    // The card plays first: on a slow machine a player that asked late would start at the host.
    if (!ViewerLogged(" playing after=", 30s)) return nullptr;
    Command("approve " + peer);
    if (!ViewerLogged("stream up, card frames=", 30s)) return nullptr;
    return player;
  }

  std::unique_ptr<ChildProcess> Play(double seconds) {
    testsupport::ProcessOptions options;
    options.timeout = 120s;
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{"ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "info",
                                 "-rtsp_transport", "tcp", "-i", RtspUrl().replace(0, 5, "rtsp"),
                                 "-t", std::to_string(seconds), "-vf", "showinfo", "-af",
                                 "ashowinfo", "-f", "null", "-"},
        options);
  }
  static Playback Finish(ChildProcess& player, std::chrono::milliseconds limit = 60s) {
    const auto result = player.Wait(limit);
    EXPECT_FALSE(result.timed_out) << result.err;
    return ParsePlayback(result.err);
  }

  testsupport::TempDir home_;
  testsupport::TempDir host_dir_;
  InstalledUi ui_;
  protocol::ShareCredentials credentials_;
  std::uint16_t signal_port_ = 0;
  std::uint16_t pipe_port_ = 0;
  std::uint16_t rtsp_port_ = 0;
  std::string pipe_;
  std::unique_ptr<ChildProcess> signal_;
  std::unique_ptr<ChildProcess> host_;
  std::unique_ptr<ChildProcess> viewer_;
};

// Pictures in time order with no backward step, the card's first and the host's after, if any.
// A player re-times what it got before the stream's first sender report, so the order is checked
// from the first second of media on, as a viewer would notice it.
void ExpectOneTimeline(const Playback& playback) {
  ASSERT_FALSE(playback.video.empty()) << playback.log;
  bool host_seen = false;
  for (std::size_t i = 0; i < playback.video.size(); ++i) {
    const Played& picture = playback.video[i];
    if (i > 0 && picture.time >= 1.0 && picture.time <= playback.video[i - 1].time) {
      ADD_FAILURE() << "picture " << i << " steps back in time:\n" << playback.log;
      return;
    }
    if (picture.size == kHostSize) host_seen = true;
    if (host_seen && picture.size != kHostSize) {
      ADD_FAILURE() << "picture " << i << " is the card again:\n" << playback.log;
      return;
    }
  }
}

double FirstTimeOf(const Playback& playback, const std::string& size) {
  for (const Played& picture : playback.video) {
    if (picture.size == size) return picture.time;
  }
  return -1;
}

// Found from outside: a link played the moment mirell-ui starts, before its card is built, was
// answered 503 then and by every later player of that link. Its player now waits for the card.
TEST_F(ViewingAcrossProcesses, ALinkPlayedRightAfterStartUpPlaysTheCardOnceItIsBuilt) {
  viewer_.reset();
  StartViewer(false);
  ASSERT_EQ(Resolve(), "OK " + RtspUrl() + "\n");
  const bool card_was_ready = ViewerLog().find("card frames=") != std::string::npos;
  auto first = Play(1);
  const Playback played = Finish(*first);
  // Under a sanitizer the card may take longer to build than the 3 s a DESCRIBE waits for it;
  // once it is built, the next player must get it all the same (no lasting 503).
  if (testsupport::kSanitizedBuild) {
    ASSERT_TRUE(ui_.WaitForLog(rtsp_port_, pipe_, "card frames=", 60s)) << ViewerLog();
    // That wait can outlast the watch's 6 s without players: the link is resolved again, as a
    // player that comes later would have it.
    ASSERT_EQ(Resolve(), "OK " + RtspUrl() + "\n");
  } else {
    ASSERT_FALSE(played.video.empty()) << played.log << ViewerLog();
    EXPECT_EQ(played.video.front().size, kCardSize);
  }
  auto second = Play(1);
  const Playback again = Finish(*second);
  ASSERT_FALSE(again.video.empty()) << again.log;
  EXPECT_EQ(again.video.front().size, kCardSize);
  if (card_was_ready) GTEST_SKIP() << "the card was built before the resolve: the late path was not taken";
}

TEST_F(ViewingAcrossProcesses, TheCardPlaysAtOnceAndTheHostFollowsAdmission) {
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(Resolve(), "OK " + RtspUrl() + "\n");
  const auto answered = std::chrono::steady_clock::now() - asked;
  EXPECT_LT(answered, 500ms);  // At once: nothing in the answer waits on the network.

  auto player = Play(9);
  const std::string peer = WaitForPending();
  ASSERT_FALSE(peer.empty()) << Events();
  ASSERT_TRUE(ViewerLogged("token=" + credentials_.token + " media=640x360@30 audio=48000/2"));
  std::this_thread::sleep_for(3s);  // The card plays meanwhile.
  Command("approve " + peer);
  EXPECT_TRUE(WaitForEvent("viewers 1"));
  const Playback playback = Finish(*player);

  ExpectOneTimeline(playback);
  EXPECT_EQ(playback.video.front().size, kCardSize);
  const double host_from = FirstTimeOf(playback, kHostSize);
  ASSERT_GT(host_from, 0) << playback.log;
  double last_card = 0;
  for (const Played& picture : playback.video) {
    if (picture.size == kCardSize) last_card = picture.time;
  }
  // The host's pictures go on from the card's last, without a gap a viewer would see.
  EXPECT_GT(host_from, last_card);
  EXPECT_LT(host_from - last_card, 0.25) << playback.log;
  std::size_t host_pictures = 0;
  for (const Played& picture : playback.video) host_pictures += picture.size == kHostSize ? 1u : 0u;
  EXPECT_GT(host_pictures, 30u);
  std::size_t sound_after = 0;
  for (const Played& block : playback.audio) sound_after += block.time > host_from ? 1u : 0u;
  EXPECT_GT(sound_after, 20u) << playback.log;
  EXPECT_EQ(playback.log.find("rror while decoding"), std::string::npos) << playback.log;
  EXPECT_TRUE(ViewerLogged("stream up, card frames="));
  EXPECT_TRUE(ViewerLogged("token=" + credentials_.token + " connected"));
}

// A link names its server: a viewer whose own server is another plays it, with the host's
// pictures and sound once the host lets it in.
TEST_F(ViewingAcrossProcesses, ALinkOfAnotherServerPlaysForAViewerConfiguredForItsOwn) {
  const std::uint16_t own_port = testsupport::FreeLoopbackPort();
  ChildProcess own({MIRELL_SIGNAL_BINARY, "--listen", "127.0.0.1:" + std::to_string(own_port)});
  ASSERT_TRUE(Eventually([&] { return testsupport::LoopbackPortAccepts(own_port); }));
  viewer_.reset();
  StartViewer(true, "ws://127.0.0.1:" + std::to_string(own_port) + "/signal");
  const std::string link =
      "http://127.0.0.1:" + std::to_string(signal_port_) + "/s/" + credentials_.token;
  EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE " + link + "\n"), "OK " + RtspUrl() + "\n");
  auto player = Play(8);
  const std::string peer = WaitForPending();
  ASSERT_FALSE(peer.empty()) << Events() << ViewerLog();
  Command("approve " + peer);
  EXPECT_TRUE(WaitForEvent("viewers 1"));
  const Playback playback = Finish(*player);
  const double host_from = FirstTimeOf(playback, kHostSize);
  ASSERT_GT(host_from, 0) << playback.log;
  std::size_t sound_after = 0;
  for (const Played& block : playback.audio) sound_after += block.time > host_from ? 1u : 0u;
  EXPECT_GT(sound_after, 20u) << playback.log;
}

TEST_F(ViewingAcrossProcesses, AnAllowlistedViewerIsLetInWithoutBeingAsked) {
  // The viewer's identity comes from VRChat's log; without one, the allowlist cannot match, so a
  // host that lists some other id still asks.
  host_.reset();
  StartHost("usr_someone_else");
  EXPECT_EQ(Resolve(), "OK " + RtspUrl() + "\n");
  EXPECT_FALSE(WaitForPending().empty()) << Events();
}

TEST_F(ViewingAcrossProcesses, DenyEndsTheWatchAndThePlayersStream) {
  EXPECT_EQ(Resolve(), "OK " + RtspUrl() + "\n");
  auto player = Play(60);
  const std::string peer = WaitForPending();
  ASSERT_FALSE(peer.empty());
  std::this_thread::sleep_for(2s);
  Command("deny " + peer);
  const Playback playback = Finish(*player, 20s);
  EXPECT_TRUE(ViewerLogged("token=" + credentials_.token + " refused: "));
  EXPECT_TRUE(ViewerLogged("token=" + credentials_.token + " stopped"));
  ExpectOneTimeline(playback);
  EXPECT_LT(playback.video.back().time, 30);
  EXPECT_EQ(FirstTimeOf(playback, kHostSize), -1);
}

TEST_F(ViewingAcrossProcesses, DisconnectingAnAdmittedViewerEndsTheirStream) {
  std::string peer;
  auto player = PlayLetIn(60, peer);
  ASSERT_TRUE(player) << ViewerLog();
  std::this_thread::sleep_for(2s);
  Command("disconnect " + peer);
  const Playback playback = Finish(*player, 20s);
  EXPECT_TRUE(WaitForEvent("viewers 0"));
  EXPECT_TRUE(ViewerLogged("token=" + credentials_.token + " stopped"));
  ExpectOneTimeline(playback);
  EXPECT_GT(FirstTimeOf(playback, kHostSize), 0);
}

TEST_F(ViewingAcrossProcesses, AWatchWithoutPlayersIsDroppedAfterTheGraceUnlessOneComesBack) {
  EXPECT_EQ(Resolve(), "OK " + RtspUrl() + "\n");
  Finish(*Play(2));
  const auto first_left = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(3s);
  Finish(*Play(2));  // Back within the grace: the count starts again.
  const auto second_left = std::chrono::steady_clock::now();
  EXPECT_EQ(ViewerLogCount("no players, dropping"), 0u);
  ASSERT_TRUE(ViewerLogged("token=" + credentials_.token + " no players, dropping", 15s));
  const auto dropped = std::chrono::steady_clock::now();
  EXPECT_GE(dropped - second_left, 5s);
  EXPECT_GE(dropped - first_left, 9s);
  EXPECT_TRUE(ViewerLogged("token=" + credentials_.token + " stopped"));
  EXPECT_EQ(ExchangeOnce(rtsp_port_, "DESCRIBE " + RtspUrl().replace(0, 5, "rtsp") +
                                         " RTSP/1.0\r\nCSeq: 1\r\n\r\n", 2s)
                .substr(0, 22),
            "RTSP/1.0 404 Not Found");
}

TEST_F(ViewingAcrossProcesses, AHostWhoseSignalRestartsServesTheWaitingViewerWithoutANewResolve) {
  EXPECT_EQ(Resolve(), "OK " + RtspUrl() + "\n");
  auto player = Play(12);
  ASSERT_FALSE(WaitForPending().empty());
  Command("restart-signal");
  const std::string peer = WaitForPending(2);
  ASSERT_FALSE(peer.empty()) << Events();
  Command("approve " + peer);
  const Playback playback = Finish(*player);
  ExpectOneTimeline(playback);
  EXPECT_GT(FirstTimeOf(playback, kHostSize), 0) << playback.log;
  EXPECT_EQ(ViewerLogCount("token=" + credentials_.token + " fetching"), 1u);
}

TEST_F(ViewingAcrossProcesses, AKilledHostEndsTheWatchAndANewResolvePlaysTheCardAgain) {
  std::string peer;
  auto player = PlayLetIn(120, peer);
  ASSERT_TRUE(player) << ViewerLog();
  std::this_thread::sleep_for(1s);
  host_->Signal(SIGKILL);
  const auto killed = std::chrono::steady_clock::now();
  const Playback playback = Finish(*player, 40s);
  // Within the link's liveness bound (10 s) and a poll, not minutes of a frozen picture.
  EXPECT_LT(std::chrono::steady_clock::now() - killed, 15s);
  EXPECT_TRUE(ViewerLogged("token=" + credentials_.token + " stopped"));
  ExpectOneTimeline(playback);

  EXPECT_EQ(Resolve(), "OK " + RtspUrl() + "\n");
  EXPECT_EQ(ViewerLogCount("token=" + credentials_.token + " fetching"), 2u);
  const Playback again = Finish(*Play(2));
  ASSERT_FALSE(again.video.empty()) << again.log;
  EXPECT_EQ(again.video.front().size, kCardSize);
}

}  // namespace
}  // namespace mirell::ui
