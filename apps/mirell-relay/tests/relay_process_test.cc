// The relay as an operator runs it, between our signal server (which knows it by its secret and
// names it on public shares' pages), a test host (the fixture stream: 640x360 test pattern and a
// 1 kHz tone, behind a share session) and real players: ffmpeg as VRChat's, and a raw RTSP
// client where the test needs to see packets.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "mirell/media/h264_rtp.h"
#include "mirell/protocol/share_token.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/transport/signal_client.h"
#include "rtsp_test_client.h"

namespace mirell::relay {
namespace {

using namespace std::chrono_literals;
using rtsp::testing::RtspTestClient;
using testsupport::ChildProcess;
using testsupport::Eventually;

constexpr const char* kHostSize = "640x360";

// How many times `text` occurs in `log`.
std::size_t Count(const std::string& log, const std::string& text) {
  std::size_t count = 0;
  for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
  return count;
}

// The last "frame=N" of an ffmpeg progress file or log; 0 when there is none.
std::uint64_t LastFrameCount(const std::string& text) {
  static const std::regex kFrame(R"(frame=\s*(\d+))");
  std::uint64_t last = 0;
  for (std::sregex_iterator it(text.begin(), text.end(), kFrame), end; it != end; ++it) {
    last = std::stoull((*it)[1]);
  }
  return last;
}

class RelayAcrossProcesses : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testsupport::HaveProgram("ffmpeg")) GTEST_SKIP() << "needs ffmpeg";
    std::ofstream(secret_file_) << "relay-secret-for-the-tests-0123\n";
    signal_port_ = testsupport::FreeLoopbackPort();
    relay_port_ = testsupport::FreeLoopbackPort();
    signal_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        MIRELL_SIGNAL_BINARY, "--listen", "127.0.0.1:" + std::to_string(signal_port_), "--relay-secret-file",
        secret_file_.string(), "--relay-url", "rtspt://127.0.0.1:" + std::to_string(relay_port_)});
    ASSERT_TRUE(Eventually([&] { return testsupport::LoopbackPortAccepts(signal_port_); }));
    StartRelay();
    credentials_ = protocol::GenerateShareCredentials();
  }

  void StartRelay() {
    relay_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        MIRELL_RELAY_BINARY, "--signal", SignalUrl(), "--relay-secret-file", secret_file_.string(), "--listen",
        "127.0.0.1:" + std::to_string(relay_port_), "--grace-seconds", "3"});
    ASSERT_TRUE(Eventually([&] { return testsupport::LoopbackPortAccepts(relay_port_); }, 30s));
  }

  void StartHost(bool is_public) {
    std::vector<std::string> argv{MIRELL_TEST_HOST_BINARY, "--signal", SignalUrl(), "--token",
                                  credentials_.token,      "--secret", credentials_.secret, "--dir",
                                  host_dir_.path().string()};
    if (is_public) argv.insert(argv.end(), {"--public", "yes"});
    host_ = std::make_unique<ChildProcess>(argv);
    ASSERT_TRUE(WaitForEvent("hosting", 30s)) << Events();
    // Under a sanitizer the relay's card, built at its start, and the host's first picture can
    // both take longer than the 3 s a DESCRIBE waits (503): the tests' players start once the
    // relay describes the share.
    if (is_public && testsupport::kSanitizedBuild) {
      ASSERT_TRUE(Eventually([&] {
        RtspTestClient probe(relay_port_);
        return probe.Request("DESCRIBE", RtspUrl(), 1).status == 200;
      }, 120s));
    }
  }

  std::string SignalUrl() const { return "ws://127.0.0.1:" + std::to_string(signal_port_) + "/signal"; }
  std::string RtspUrl(const std::string& token = {}) const {
    return "rtsp://127.0.0.1:" + std::to_string(relay_port_) + "/s/" + (token.empty() ? credentials_.token : token);
  }
  std::string Events() const { return testsupport::ReadFileText(host_dir_.path() / "events"); }
  bool WaitForEvent(const std::string& text, std::chrono::milliseconds limit = 20s) const {
    return Eventually([&] { return Events().find(text) != std::string::npos; }, limit);
  }
  void Command(const std::string& line) {
    std::ofstream(host_dir_.path() / "commands", std::ios::app) << line << '\n';
  }

  // ffmpeg reading the relay for `seconds` with `output` arguments after the input; its progress
  // (frame=N every half second) goes to `progress` when given.
  std::unique_ptr<ChildProcess> Player(double seconds, std::vector<std::string> output,
                                       const std::filesystem::path& progress = {}) {
    std::vector<std::string> argv{"ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "info"};
    if (!progress.empty()) argv.insert(argv.end(), {"-stats_period", "0.2", "-progress", progress.string()});
    argv.insert(argv.end(), {"-rtsp_transport", "tcp", "-i", RtspUrl(), "-t", std::to_string(seconds)});
    argv.insert(argv.end(), output.begin(), output.end());
    testsupport::ProcessOptions options;
    options.timeout = 180s;
    return std::make_unique<ChildProcess>(argv, options);
  }
  // Every decoded picture and block of sound, logged.
  std::unique_ptr<ChildProcess> DecodingPlayer(double seconds, const std::filesystem::path& progress = {}) {
    return Player(seconds, {"-vf", "showinfo", "-af", "ashowinfo", "-f", "null", "-"}, progress);
  }
  // Reads and discards, as a cheap player: many of them cost the machine little.
  std::unique_ptr<ChildProcess> CopyingPlayer(double seconds, const std::filesystem::path& progress = {}) {
    return Player(seconds, {"-c", "copy", "-f", "null", "-"}, progress);
  }
  bool Progressing(const std::filesystem::path& progress, std::uint64_t beyond = 0,
                   std::chrono::milliseconds limit = 30s) {
    return Eventually([&] { return LastFrameCount(testsupport::ReadFileText(progress)) > beyond; }, limit);
  }

  testsupport::TempDir dir_;
  testsupport::TempDir host_dir_;
  const std::filesystem::path secret_file_ = dir_.path() / "relay-secret";
  protocol::ShareCredentials credentials_;
  std::uint16_t signal_port_ = 0;
  std::uint16_t relay_port_ = 0;
  std::unique_ptr<ChildProcess> signal_;
  std::unique_ptr<ChildProcess> relay_;
  std::unique_ptr<ChildProcess> host_;
};

// The main promise: one stream from the host, however many play. Thirty players of one share at
// once; one decodes every picture and block of sound, one checks the tone, the rest read and
// discard; the host holds exactly one link all along.
TEST_F(RelayAcrossProcesses, ThirtyPlayersOfAPublicSharePlayOverTheHostsOneLink) {
  StartHost(true);
  const std::filesystem::path tone = dir_.path() / "tone.s16";
  auto decoding = DecodingPlayer(8);
  auto tone_player = Player(8, {"-vn", "-ac", "1", "-ar", "48000", "-f", "s16le", tone.string()});
  std::vector<std::unique_ptr<ChildProcess>> copying;
  for (int i = 0; i < 28; ++i) copying.push_back(CopyingPlayer(8));

  const auto decoded = decoding->Wait(120s);
  EXPECT_FALSE(decoded.timed_out);
  EXPECT_EQ(decoded.exit_code, 0) << decoded.err;
  std::size_t host_pictures = 0;
  static const std::regex kPicture(R"(Parsed_showinfo.* s:(\d+x\d+))");
  for (std::sregex_iterator it(decoded.err.begin(), decoded.err.end(), kPicture), end; it != end; ++it) {
    host_pictures += (*it)[1] == kHostSize ? 1u : 0u;
  }
  EXPECT_GT(host_pictures, 90u) << "the host's 640x360 pictures, not only the card";
  EXPECT_GT(Count(decoded.err, "Parsed_ashowinfo"), 100u) << "and its sound";

  const auto toned = tone_player->Wait(120s);
  EXPECT_EQ(toned.exit_code, 0) << toned.err;
  const std::string samples = testsupport::ReadFileText(tone);
  // The last three seconds are the host's: count the zero crossings of its sine.
  const std::size_t count = samples.size() / 2;
  ASSERT_GT(count, 48000u * 4) << "at least four seconds of sound";
  std::size_t crossings = 0;
  double energy = 0;
  auto sample = [&](std::size_t i) {
    return static_cast<std::int16_t>(static_cast<std::uint8_t>(samples[2 * i]) |
                                     (static_cast<std::uint8_t>(samples[2 * i + 1]) << 8));
  };
  for (std::size_t i = count - 48000 * 3 + 1; i < count; ++i) {
    crossings += (sample(i - 1) < 0) != (sample(i) < 0) ? 1u : 0u;
    energy += static_cast<double>(sample(i)) * sample(i);
  }
  const double hz = static_cast<double>(crossings) / 2 / 3;
  EXPECT_NEAR(hz, 1000, 30) << "the fixture's 1 kHz tone";
  EXPECT_GT(std::sqrt(energy / (48000 * 3)), 1000) << "sound, not silence";

  for (auto& player : copying) {
    const auto result = player->Wait(120s);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_GT(LastFrameCount(result.err), 150u) << result.err;
  }
  const std::string events = Events();
  EXPECT_NE(events.find("viewers 1"), std::string::npos) << events;
  EXPECT_EQ(events.find("viewers 2"), std::string::npos) << "one link from the host, not one per player: "
                                                         << events;
}

// GStreamer's rtspsrc given rtspt://, as VRChat's player gets the address: both tracks decode.
TEST_F(RelayAcrossProcesses, GstreamerPlaysBothTracksFromAnRtsptAddress) {
  if (!testsupport::HaveProgram("gst-launch-1.0")) GTEST_SKIP() << "needs gst-launch-1.0";
  StartHost(true);
  const std::string url = "rtspt" + RtspUrl().substr(4);
  testsupport::ProcessOptions options;
  options.timeout = 60s;
  const auto result = testsupport::RunProcess(
      {"timeout", "-s", "INT", "8", "gst-launch-1.0", "-e", "-v", "rtspsrc", "location=" + url, "latency=100",
       "name=src", "src.", "!", "application/x-rtp,media=video", "!", "rtph264depay", "!", "h264parse", "!",
       "avdec_h264", "!", "fakesink", "name=v", "silent=false", "src.", "!", "application/x-rtp,media=audio", "!",
       "rtpmp4gdepay", "!", "aacparse", "!", "avdec_aac", "!", "fakesink", "name=a", "silent=false"},
      options);
  // Under a sanitizer every instrumented step is slower: that both tracks decode is asserted, not
  // how much of them comes in the 8 s.
  const std::size_t pictures = testsupport::kSanitizedBuild ? 0u : 60u;
  const std::size_t sound = testsupport::kSanitizedBuild ? 0u : 100u;
  EXPECT_GT(Count(result.out, "(v:sink)"), pictures) << result.out.substr(0, 4000) << result.err;
  EXPECT_GT(Count(result.out, "(a:sink)"), sound) << result.err;
  EXPECT_EQ(result.err.find("ERROR"), std::string::npos) << result.err;
}

// A player that comes while others play gets the stream's history at once, starting on a whole
// keyframe; when the host ends the share, every player's stream ends within a second.
TEST_F(RelayAcrossProcesses, ALatePlayerIsPrimedAndTheHostsEndEndsEveryPlayerWithinASecond) {
  StartHost(true);
  std::vector<std::unique_ptr<ChildProcess>> players;
  for (int i = 0; i < 3; ++i) {
    const auto progress = dir_.path() / ("progress" + std::to_string(i));
    players.push_back(CopyingPlayer(120, progress));
    ASSERT_TRUE(Progressing(progress, 30)) << i;
  }

  RtspTestClient late(relay_port_);
  ASSERT_EQ(late.Request("DESCRIBE", RtspUrl(), 1).status, 200);
  ASSERT_EQ(late.Request("SETUP", RtspUrl() + "/trackID=0", 2, "Transport: RTP/AVP/TCP;interleaved=0-1\r\n").status,
            200);
  const auto played_at = std::chrono::steady_clock::now();
  ASSERT_EQ(late.Request("PLAY", RtspUrl(), 3).status, 200);
  media::H264RtpDepacketizer depacketizer;
  std::optional<media::H264AccessUnit> first;
  while (!first) {
    const auto frame = late.ReadFrame(2s);
    ASSERT_TRUE(frame.has_value());
    media::H264AccessUnit unit;
    if (frame->channel == 0 && depacketizer.Push(frame->payload, unit)) first = unit;
  }
  EXPECT_TRUE(first->keyframe);
  if (!testsupport::kSanitizedBuild) {
    EXPECT_LT(std::chrono::steady_clock::now() - played_at, 300ms) << "from the history, not the next keyframe";
  }

  const auto ended = std::chrono::steady_clock::now();
  Command("end");
  EXPECT_TRUE(late.WaitClosed(5s));
  for (auto& player : players) EXPECT_TRUE(Eventually([&] { return !player->Running(); }, 5s));
  const auto took = std::chrono::steady_clock::now() - ended;
  if (!testsupport::kSanitizedBuild) {
    EXPECT_LT(took, 1s) << std::chrono::duration<double>(took).count() << " s for every player to end";
  }
  ASSERT_TRUE(WaitForEvent("ended"));
}

// A token that is no public share of the server is answered 404 at once, and its host never
// hears of the relay; asked again, it is still 404.
TEST_F(RelayAcrossProcesses, ATokenThatIsNotAPublicShareIsAnswered404AtOnce) {
  StartHost(false);
  for (const std::string& token : {credentials_.token, std::string("ZZZZZZZZZZZZ"), credentials_.token}) {
    RtspTestClient client(relay_port_);
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(client.Request("DESCRIBE", RtspUrl(token), 1).status, 404) << token;
    EXPECT_LT(std::chrono::steady_clock::now() - asked, 2s) << token;
  }
  RtspTestClient odd(relay_port_);
  EXPECT_EQ(odd.Request("DESCRIBE", RtspUrl("not-a-token!"), 1).status, 404);
  const std::string events = Events();
  EXPECT_EQ(events.find("viewers"), std::string::npos) << events;
  EXPECT_EQ(events.find("pending"), std::string::npos) << events;
}

// The relay restarts: its players end, and once it is back, a new player plays the host again
// over a new link.
TEST_F(RelayAcrossProcesses, AfterARestartTheRelayServesTheShareAgain) {
  StartHost(true);
  const auto progress = dir_.path() / "before";
  auto before = CopyingPlayer(120, progress);
  ASSERT_TRUE(Progressing(progress, 30));
  relay_->Signal(SIGTERM);
  const auto stopped = relay_->Wait(20s);
  EXPECT_FALSE(stopped.timed_out);
  EXPECT_EQ(stopped.exit_code, 0) << stopped.err;
  EXPECT_TRUE(Eventually([&] { return !before->Running(); }, 10s));
  ASSERT_TRUE(WaitForEvent("viewers 0"));

  StartRelay();
  auto after = DecodingPlayer(5);
  const auto result = after->Wait(120s);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.err.find(std::string("s:") + kHostSize), std::string::npos) << result.err;
  EXPECT_EQ(Count(Events(), "viewers 1"), 2u) << Events();
}

// What a stranger can send to the relay's port: random bytes, a 100 kB request head, a hundred
// idle connections. The player that plays goes on playing.
TEST_F(RelayAcrossProcesses, HostileInputOnItsPortLeavesThePlayersPlaying) {
  StartHost(true);
  const auto progress = dir_.path() / "progress";
  auto player = CopyingPlayer(120, progress);
  ASSERT_TRUE(Progressing(progress, 30));

  std::mt19937 random(7);
  std::string noise(65536, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  {
    RtspTestClient garbage(relay_port_);
    garbage.SendRaw(noise);
    // Ended either as a head beyond the limit or, when the noise framed itself as interleaved
    // frames, for sending no request within 10 s.
    EXPECT_TRUE(garbage.WaitClosed(15s)) << "random bytes end their connection";
  }
  {
    RtspTestClient huge(relay_port_);
    huge.SendRaw("DESCRIBE " + RtspUrl() + " RTSP/1.0\r\nCSeq: 1\r\nX-Long: " + std::string(100 * 1024, 'a'));
    EXPECT_TRUE(huge.WaitClosed(10s)) << "a head beyond the limit ends its connection";
  }
  std::vector<std::unique_ptr<testsupport::TcpClient>> idle;
  for (int i = 0; i < 100; ++i) idle.push_back(std::make_unique<testsupport::TcpClient>(relay_port_));

  const std::uint64_t frames = LastFrameCount(testsupport::ReadFileText(progress));
  EXPECT_TRUE(Progressing(progress, frames + 60)) << "two more seconds of pictures";
  EXPECT_TRUE(player->Running());
  idle.clear();
  player->Signal(SIGINT);
  player->Wait(20s);
}

// A clean stop on SIGTERM is checked by the restart above.
TEST(RelayProcess, HelpAndMistakesAreAnsweredBeforeItStarts) {
  const auto help = testsupport::RunProcess({MIRELL_RELAY_BINARY, "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("--relay-secret-file FILE"), std::string::npos);
  const auto wrong = testsupport::RunProcess({MIRELL_RELAY_BINARY, "--signal", "ws://127.0.0.1:1/signal"});
  EXPECT_EQ(wrong.exit_code, 2);
  EXPECT_NE(wrong.err.find("--relay-secret-file FILE is needed"), std::string::npos) << wrong.err;
}

// A quiet log must not change when it stops: only on a signal, cleanly.
TEST(RelayProcess, WithAQuietLogItRunsUntilASignal) {
  testsupport::TempDir dir;
  std::ofstream(dir.path() / "secret") << "a-relay-secret-of-the-tests-0123\n";
  const std::uint16_t port = testsupport::FreeLoopbackPort();
  testsupport::ProcessOptions quiet;
  quiet.environment["MIRELL_LOG"] = "error";
  ChildProcess relay({MIRELL_RELAY_BINARY, "--signal", "ws://127.0.0.1:1/signal", "--relay-secret-file",
                      (dir.path() / "secret").string(), "--listen", "127.0.0.1:" + std::to_string(port)},
                     quiet);
  ASSERT_TRUE(Eventually([&] { return testsupport::LoopbackPortAccepts(port); }, 30s));
  EXPECT_TRUE(relay.Running());
  relay.Signal(SIGTERM);
  const auto result = relay.Wait(20s);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.exit_code, 0) << result.err;
}

// Headless: none of the libraries it is built against is an interface, display or sound one.
TEST(RelayProcess, LinksNoInterfaceDisplayOrSoundLibrary) {
  if (!testsupport::HaveProgram("readelf")) GTEST_SKIP() << "needs readelf";
  const auto needed = testsupport::RunProcess({"readelf", "-d", MIRELL_RELAY_BINARY});
  ASSERT_EQ(needed.exit_code, 0) << needed.err;
  EXPECT_NE(needed.out.find("libgstwebrtc"), std::string::npos) << needed.out;
  for (const char* library : {"libQt", "libxcb", "libX11", "libpulse", "libpipewire", "libsecret"}) {
    EXPECT_EQ(needed.out.find(library), std::string::npos) << library << " in\n" << needed.out;
  }
}

}  // namespace
}  // namespace mirell::relay
