// The whole product, headless: a window with moving colours and a tone on a private Xvfb with
// openbox and a private PulseAudio server, one mirell-ui sharing it from the command line, our
// signal server, a second mirell-ui as the viewer, and ffmpeg as VRChat's player on the address
// the viewer's resolver gives. What ffmpeg decodes is checked by its pixels and its spectrum.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "full_signal_server.h"
#include "installed_ui.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/testsupport/xvfb.h"
#include "mirell/transport/identity_key.h"
#include "mirell/transport/signal_client.h"
#include "mirell/transport/viewer_proof.h"
#include "pulse_server.h"
#include "test_window.h"
#include "tone_power.h"

namespace mirell::ui {
namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::Eventually;

// ffmpeg's pictures, shrunk to this size for the pixel checks.
constexpr int kThumbWidth = 64;
constexpr int kThumbHeight = 36;

struct Rgb {
  int r = 0, g = 0, b = 0;
  bool red() const { return r > 150 && g < 90 && b < 90; }
  bool blue() const { return b > 150 && r < 90 && g < 90; }
  bool black() const { return r < 40 && g < 40 && b < 40; }
};

// What ffmpeg played: every picture's time, the pictures themselves and the sound.
struct Recording {
  std::vector<double> times;
  std::vector<std::vector<std::uint8_t>> pictures;  // kThumbWidth x kThumbHeight RGB.
  std::vector<float> sound;                         // Mono, 48 kHz.
  std::string log;

  Rgb At(std::size_t picture, int x, int y) const {
    const std::uint8_t* p = pictures[picture].data() + (y * kThumbWidth + x) * 3;
    return {p[0], p[1], p[2]};
  }
};

// One mirell-ui process on ports of its own.
struct UiProcess {
  std::uint16_t pipe_port = testsupport::FreeLoopbackPort();
  std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  std::string pipe = "127.0.0.1:" + std::to_string(pipe_port);
  std::unique_ptr<ChildProcess> process;
};

class SharingAcrossProcesses : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* program : {"ffmpeg", "paplay", "sox", "Xvfb", "openbox"}) {
      if (!testsupport::HaveProgram(program)) GTEST_SKIP() << "needs " << program;
    }
    pulse_ = std::make_unique<capture::PulseServer>();
    if (!pulse_->available()) GTEST_SKIP() << "no PulseAudio server";
    signal_port_ = testsupport::FreeLoopbackPort();
    signal_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        MIRELL_SIGNAL_BINARY, "--listen", "127.0.0.1:" + std::to_string(signal_port_)});
    ASSERT_TRUE(Eventually([&] { return testsupport::LoopbackPortAccepts(signal_port_); }));
  }

  void StartDisplay(int width, int height) {
    testsupport::XvfbOptions options;
    options.width = width;
    options.height = height;
    options.window_manager = true;
    display_ = std::make_unique<testsupport::XvfbDisplay>(options);
    ASSERT_TRUE(display_->available());
  }

  std::unique_ptr<capture::TestWindow> OpenWindow(std::vector<std::string> arguments, int hertz) {
    if (hertz != 0) {
      const auto file = dir_.path() / ("tone-" + std::to_string(hertz) + ".wav");
      testsupport::RunProcess({"sox", "-n", "-r", "48000", "-c", "2", "-b", "16", file.string(), "synth", "30",
                               "sine", std::to_string(hertz), "vol", "0.5"});
      arguments.insert(arguments.end(), {"--tone-file", file.string()});
    }
    auto window = std::make_unique<capture::TestWindow>(display_->name(), arguments);
    EXPECT_NE(window->id(), 0u) << "the test window did not come up";
    if (hertz != 0) {
      EXPECT_TRUE(capture::WaitUntilPlaying(window->pid())) << "the window's tone never played";
    }
    return window;
  }

  std::string SignalUrl() const { return "ws://127.0.0.1:" + std::to_string(signal_port_) + "/signal"; }

  testsupport::ProcessOptions UiEnvironment() const {
    testsupport::ProcessOptions options = Headless(home_.path());
    options.environment["DISPLAY"] = display_->name();
    options.environment["PULSE_SERVER"] = pulse_->address();
    return options;
  }

  // The sharing mirell-ui with the given share options; returns the link it printed.
  // Meeting at `signal` ("--signal"'s value), this test's server when empty.
  std::string StartHost(const std::vector<std::string>& share_options, bool with_window = false,
                        std::string signal = {}) {
    if (signal.empty()) signal = SignalUrl();
    std::vector<std::string> argv{"sh", "-c", "exec \"$0\" \"$@\" > \"" + (dir_.path() / "host.out").string() + "\"",
                                  ui_.binary().string(), "--signal", signal, "--pipe", host_.pipe,
                                  "--rtsp-port", std::to_string(host_.rtsp_port), "--no-stub"};
    argv.insert(argv.end(), share_options.begin(), share_options.end());
    testsupport::ProcessOptions environment = UiEnvironment();
    if (with_window) environment.environment["QT_QPA_PLATFORM"] = "xcb";  // The window and its prompts.
    host_.process = std::make_unique<ChildProcess>(argv, environment);
    std::string link;
    Eventually([&] {
      std::istringstream out(testsupport::ReadFileText(dir_.path() / "host.out"));
      return static_cast<bool>(std::getline(out, link));
    }, 30s);
    EXPECT_FALSE(link.empty()) << HostLog();
    return link;
  }

  void StartViewer(std::string signal = {}) {
    if (signal.empty()) signal = SignalUrl();
    viewer_.process = std::make_unique<ChildProcess>(
        std::vector<std::string>{ui_.binary().string(), "--signal", signal, "--pipe", viewer_.pipe,
                                 "--rtsp-port", std::to_string(viewer_.rtsp_port), "--no-stub"},
        UiEnvironment());
    ASSERT_TRUE(ui_.WaitForLog(viewer_.rtsp_port, viewer_.pipe, "listening " + viewer_.pipe)) << ViewerLog();
    ASSERT_TRUE(ui_.WaitForLog(viewer_.rtsp_port, viewer_.pipe, "card frames=", 60s)) << ViewerLog();
  }

  std::string HostLog() const { return ui_.Log(host_.rtsp_port, host_.pipe); }
  std::string ViewerLog() const { return ui_.Log(viewer_.rtsp_port, viewer_.pipe); }
  bool HostLogged(const std::string& text, std::chrono::milliseconds limit = 20s) const {
    return ui_.WaitForLog(host_.rtsp_port, host_.pipe, text, limit);
  }

  // As the stub asks: the viewer's resolver gives the loopback address to play.
  std::string Resolve(const std::string& link) {
    const std::string answer = testsupport::ExchangeOnce(viewer_.pipe_port, "RESOLVE " + link + "\n");
    EXPECT_EQ(answer.rfind("OK rtspt://127.0.0.1:", 0), 0u) << answer;
    if (answer.size() < 4) return {};
    return "rtsp" + answer.substr(8, answer.size() - 9);  // "rtspt://" played as rtsp over TCP.
  }

  std::unique_ptr<ChildProcess> Play(const std::string& url, double seconds) {
    testsupport::ProcessOptions options;
    options.timeout = 180s;
    const std::string scale = "showinfo,scale=" + std::to_string(kThumbWidth) + ":" + std::to_string(kThumbHeight) +
                              ":flags=area,format=rgb24";
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{"ffmpeg", "-hide_banner", "-nostdin", "-y", "-loglevel", "info", "-rtsp_transport",
                                 "tcp", "-i", url, "-t", std::to_string(seconds), "-map", "0:v", "-vf", scale, "-f",
                                 "rawvideo", (dir_.path() / "video.rgb").string(), "-t", std::to_string(seconds),
                                 "-map", "0:a", "-ac", "1", "-ar", "48000", "-f", "f32le",
                                 (dir_.path() / "sound.raw").string()},
        options);
  }

  Recording Finish(ChildProcess& player, std::chrono::milliseconds limit = 90s) {
    const auto result = player.Wait(limit);
    EXPECT_FALSE(result.timed_out) << result.err;
    Recording recording;
    recording.log = result.err;
    static const std::regex kVideo(R"(Parsed_showinfo.*pts_time:\s*([-0-9.]+))");
    std::istringstream lines(result.err);
    std::string line;
    std::smatch match;
    while (std::getline(lines, line)) {
      if (std::regex_search(line, match, kVideo)) recording.times.push_back(std::stod(match[1]));
    }
    const std::string pictures = testsupport::ReadFileText(dir_.path() / "video.rgb");
    const std::size_t size = kThumbWidth * kThumbHeight * 3;
    for (std::size_t at = 0; at + size <= pictures.size(); at += size) {
      recording.pictures.emplace_back(pictures.begin() + static_cast<std::ptrdiff_t>(at),
                                      pictures.begin() + static_cast<std::ptrdiff_t>(at + size));
    }
    const std::string sound = testsupport::ReadFileText(dir_.path() / "sound.raw");
    recording.sound.resize(sound.size() / sizeof(float));
    std::memcpy(recording.sound.data(), sound.data(), recording.sound.size() * sizeof(float));
    return recording;
  }

  testsupport::TempDir dir_;
  testsupport::TempDir home_;
  InstalledUi ui_;
  std::unique_ptr<capture::PulseServer> pulse_;
  std::unique_ptr<testsupport::XvfbDisplay> display_;
  std::uint16_t signal_port_ = 0;
  std::unique_ptr<ChildProcess> signal_;
  UiProcess host_;
  UiProcess viewer_;
};

TEST_F(SharingAcrossProcesses, AWindowAndItsSoundPlayOnAnotherMirell) {
  StartDisplay(1280, 720);
  auto window = OpenWindow({"--title", "Moving Demo", "--size", "640x360", "--color", "FF0000", "--color2",
                            "0000FF", "--alternate-ms", "400"},
                           660);
  const std::string link = StartHost({"--share-window", "moving demo", "--admit-everyone"});
  // A plain ws:// signal server's page is plain http:// too.
  ASSERT_TRUE(std::regex_match(link, std::regex("http://127\\.0\\.0\\.1:" + std::to_string(signal_port_) +
                                                "/s/[0-9A-Z]{12}")))
      << link;
  EXPECT_TRUE(HostLogged("every viewer is let in without asking (--admit-everyone)")) << HostLog();
  EXPECT_TRUE(HostLogged("target=Moving Demo token=")) << HostLog();
  StartViewer();
  auto player = Play(Resolve(link), 8);
  const Recording recording = Finish(*player);

  ASSERT_GT(recording.pictures.size(), 150u) << recording.log;
  // showinfo runs ahead of the cut at 8 s, so it may list a picture or two more.
  ASSERT_GE(recording.times.size(), recording.pictures.size()) << recording.log;
  std::size_t red = 0, blue = 0;
  for (std::size_t i = 0; i < recording.pictures.size(); ++i) {
    const Rgb centre = recording.At(i, kThumbWidth / 2, kThumbHeight / 2);
    red += centre.red() ? 1u : 0u;
    blue += centre.blue() ? 1u : 0u;
  }
  EXPECT_GT(red, 40u) << "the window's first colour";
  EXPECT_GT(blue, 40u) << "the window's second colour";
  for (std::size_t i = 1; i < recording.times.size(); ++i) {
    if (recording.times[i] >= 1.0) {
      ASSERT_GT(recording.times[i], recording.times[i - 1]) << "picture " << i << " steps back\n" << recording.log;
    }
  }
  ASSERT_GT(recording.sound.size(), 48000u * 3) << recording.log;
  const std::vector<float> last(recording.sound.end() - 96000, recording.sound.end());
  const double at_tone = capture::PowerAt(last, 660);
  EXPECT_GT(at_tone, 0.001);
  EXPECT_GT(at_tone, 100 * capture::PowerAt(last, 440));
  EXPECT_GT(at_tone, 100 * capture::PowerAt(last, 990));
}

// No other program runs: the sharing Mirell is the meeting place, and its link, which names this
// computer's network address, plays on a Mirell pointed at it.
TEST_F(SharingAcrossProcesses, AHostThatIsTheMeetingPlaceSharesWithNoServerRunning) {
  signal_.reset();
  StartDisplay(1280, 720);
  auto window = OpenWindow({"--title", "Moving Demo", "--size", "640x360", "--color", "FF0000", "--color2",
                            "0000FF", "--alternate-ms", "400"},
                           660);
  const std::uint16_t meeting_port = testsupport::FreeLoopbackPort();
  const std::string link = StartHost({"--share-window", "moving demo", "--admit-everyone"}, false,
                                     "local:" + std::to_string(meeting_port));
  std::smatch parts;
  ASSERT_TRUE(std::regex_match(link, parts, std::regex("http://([0-9.]+):" + std::to_string(meeting_port) +
                                                         "/s/[0-9A-Z]{12}")))
      << link << HostLog();
  EXPECT_TRUE(HostLogged("meeting place: this computer, port " + std::to_string(meeting_port)));
  StartViewer("ws://" + parts[1].str() + ":" + std::to_string(meeting_port) + "/signal");
  auto player = Play(Resolve(link), 6);
  const Recording recording = Finish(*player);

  ASSERT_GT(recording.pictures.size(), 100u) << recording.log << ViewerLog();
  std::size_t red = 0, blue = 0;
  for (std::size_t i = 0; i < recording.pictures.size(); ++i) {
    const Rgb centre = recording.At(i, kThumbWidth / 2, kThumbHeight / 2);
    red += centre.red() ? 1u : 0u;
    blue += centre.blue() ? 1u : 0u;
  }
  EXPECT_GT(red, 20u);
  EXPECT_GT(blue, 20u);
  ASSERT_GT(recording.sound.size(), 48000u * 3) << recording.log;
  const std::vector<float> last(recording.sound.end() - 96000, recording.sound.end());
  EXPECT_GT(capture::PowerAt(last, 660), 0.001);
}

TEST_F(SharingAcrossProcesses, AMonitorIsLetterboxedToTheOutputSize) {
  StartDisplay(1280, 1024);
  auto window = OpenWindow({"--title", "Corner", "--size", "640x512", "--position", "0,0", "--color", "FF0000"}, 0);
  const std::string link = StartHost({"--share-monitor", "0", "--admit-everyone"});
  EXPECT_TRUE(HostLogged("target=Monitor 1 (")) << HostLog();
  StartViewer();
  auto player = Play(Resolve(link), 5);
  const Recording recording = Finish(*player);
  ASSERT_GT(recording.pictures.size(), 60u) << recording.log;
  // A 5:4 screen in a 16:9 picture: bars left and right (190 and 190 of 1280 pixels), the
  // screen between, its top-left quarter the red window.
  const std::size_t last = recording.pictures.size() - 1;
  EXPECT_TRUE(recording.At(last, 2, kThumbHeight / 2).black());
  EXPECT_TRUE(recording.At(last, kThumbWidth - 3, kThumbHeight / 2).black());
  EXPECT_TRUE(recording.At(last, 20, 10).red()) << recording.At(last, 20, 10).r;
}

TEST_F(SharingAcrossProcesses, ClosingTheSharedWindowEndsTheShareAndTheViewersStream) {
  StartDisplay(1280, 720);
  auto window = OpenWindow({"--title", "Closing Soon", "--size", "640x360", "--color", "00FF00"}, 0);
  const std::string link = StartHost({"--share-window", "Closing Soon", "--admit-everyone"});
  StartViewer();
  auto player = Play(Resolve(link), 120);
  ASSERT_TRUE(ui_.WaitForLog(viewer_.rtsp_port, viewer_.pipe, " connected", 30s)) << ViewerLog();
  std::this_thread::sleep_for(2s);
  window.reset();
  EXPECT_TRUE(HostLogged("capture target gone, stopped")) << HostLog();
  EXPECT_TRUE(HostLogged("target=Closing Soon stopped")) << HostLog();
  // The viewer's stream ends: its player stops long before the two minutes it asked for.
  const auto result = player->Wait(45s);
  EXPECT_FALSE(result.timed_out) << ViewerLog();
}

// A viewer as the signal server sees one: the test joins the share with a claimed identity and
// notes whether the host makes it an offer (lets it in).
// A viewer's join, with its proof when it is given a key.
class Joiner {
 public:
  Joiner(const std::string& url, const std::string& token, const std::string& identity,
         const transport::IdentityKey* key = nullptr) {
    transport::SignalConfig config;
    config.url = url;
    config.token = token;
    config.identity = identity;
    config.display_name = "Name of " + identity;
    if (key != nullptr) config.key = key->PublicText();
    client_ = transport::CreateViewerSignalClient(config);
    client_->OnOffer([this](const std::string&) { offered_ = true; });
    client_->OnChallenge([this, key, token](const std::string& challenge) {
      if (key != nullptr) client_->SendProof(key->Sign(transport::IdentityStatement(token, challenge)));
    });
    client_->Start();
  }
  ~Joiner() { client_->Stop(); }
  bool offered() const { return offered_; }

 private:
  std::atomic<bool> offered_{false};
  std::unique_ptr<transport::SignalClient> client_;
};

std::string TokenOf(const std::string& link) { return link.substr(link.rfind('/') + 1); }

constexpr const char* kFriend = "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413";
constexpr const char* kStranger = "usr_0a1b2c3d-4e5f-6789-abcd-ef0123456789";

TEST_F(SharingAcrossProcesses, AnAllowedIdentityGetsInAtOnceAndAnotherWaitsLogged) {
  StartDisplay(1280, 720);
  auto window = OpenWindow({"--title", "Door", "--size", "320x180"}, 0);
  const std::string link = StartHost({"--share-window", "Door", "--allow", kFriend});
  ASSERT_TRUE(HostLogged("hosting")) << HostLog();
  Joiner friend_viewer(SignalUrl(), TokenOf(link), kFriend);
  Joiner stranger(SignalUrl(), TokenOf(link), kStranger);
  EXPECT_TRUE(Eventually([&] { return friend_viewer.offered(); }, 20s)) << HostLog();
  EXPECT_TRUE(HostLogged(std::string("waits to be let in; says it is ") + kStranger + " (Name of " + kStranger + ")"))
      << HostLog();
  std::this_thread::sleep_for(1s);
  EXPECT_FALSE(stranger.offered());
}

// The list binds the friend's id to their computer's key: that computer gets in at once; the same
// id from another computer, or with nothing proved, waits, and the host's log says which.
TEST_F(SharingAcrossProcesses, AListedFriendsComputerGetsInAtOnceAndTheirIdElsewhereWaits) {
  StartDisplay(1280, 720);
  const auto friends_key = transport::IdentityKey::Generate();
  const auto forgers_key = transport::IdentityKey::Generate();
  const std::string friends_fingerprint = transport::KeyFingerprint(friends_key.PublicText());
  std::filesystem::create_directories(home_.path() / ".config/Mirell");
  std::ofstream(home_.path() / ".config/Mirell/Mirell.conf")
      << "[network]\nstun=none\n[access]\nallowlist=" << kFriend << "|Ann\nallowlistKeys=" << kFriend
      << "|" << friends_fingerprint << "\n";
  auto window = OpenWindow({"--title", "Keyed Door", "--size", "320x180"}, 0);
  const std::string link = StartHost({"--share-window", "Keyed Door"});
  ASSERT_TRUE(HostLogged("hosting")) << HostLog();
  Joiner friend_viewer(SignalUrl(), TokenOf(link), kFriend, &friends_key);
  EXPECT_TRUE(Eventually([&] { return friend_viewer.offered(); }, 20s)) << HostLog();
  EXPECT_TRUE(HostLogged("allowlisted, key proved id=Name of " + std::string(kFriend) + " key=" +
                         friends_fingerprint))
      << HostLog();

  Joiner forger(SignalUrl(), TokenOf(link), kFriend, &forgers_key);
  Joiner claimer(SignalUrl(), TokenOf(link), kFriend);
  EXPECT_TRUE(HostLogged("pending, listed id from another computer id=Name of " + std::string(kFriend) +
                         " key=" + transport::KeyFingerprint(forgers_key.PublicText())))
      << HostLog();
  EXPECT_TRUE(HostLogged("pending id=Name of " + std::string(kFriend) + " key=not proved")) << HostLog();
  std::this_thread::sleep_for(1s);
  EXPECT_FALSE(forger.offered());
  EXPECT_FALSE(claimer.offered());
}

// The waiting viewers of a share without a window are logged with the commands that decide about
// them, and those commands, run as a later start, decide in the running instance.
TEST_F(SharingAcrossProcesses, AWaitingViewerIsLoggedWithTheCommandsThatLetThemInOrSendThemAway) {
  StartDisplay(1280, 720);
  auto window = OpenWindow({"--title", "Asked Door", "--size", "320x180"}, 0);
  const std::string link = StartHost({"--share-window", "Asked Door"});
  ASSERT_TRUE(HostLogged("hosting")) << HostLog();
  Joiner first(SignalUrl(), TokenOf(link), kFriend);
  Joiner second(SignalUrl(), TokenOf(link), kStranger);
  // "viewer PEER waits ... Let them in with: mirell-ui --admit PEER --rtsp-port N --pipe P; ..."
  const std::string instance =
      " --rtsp-port " + std::to_string(host_.rtsp_port) + " --pipe " + host_.pipe;
  const auto peer_of = [&](const std::string& user) {
    std::smatch match;
    const std::string log = HostLog();
    const std::regex line("warn .*viewer (\\S+) waits to be let in; says it is " + user +
                          " .*Let them in with: mirell-ui --admit (\\S+)" + instance +
                          "; send them away with: mirell-ui --deny (\\S+)" + instance);
    if (!std::regex_search(log, match, line) || match[1] != match[2] || match[1] != match[3]) return std::string();
    return match[1].str();
  };
  std::string first_peer, second_peer;
  ASSERT_TRUE(Eventually([&] { return !(first_peer = peer_of(kFriend)).empty(); }, 20s)) << HostLog();
  ASSERT_TRUE(Eventually([&] { return !(second_peer = peer_of(kStranger)).empty(); }, 20s)) << HostLog();

  testsupport::ProcessOptions options = UiEnvironment();
  options.timeout = 30s;
  const auto decide = [&](const char* option, const std::string& peer) {
    return testsupport::RunProcess({ui_.binary().string(), "--pipe", host_.pipe, "--rtsp-port",
                                    std::to_string(host_.rtsp_port), option, peer},
                                   options);
  };
  const auto admitted = decide("--admit", first_peer);
  EXPECT_EQ(admitted.exit_code, 0) << admitted.err;
  EXPECT_EQ(admitted.out, "viewer " + first_peer + " is let in\n");
  EXPECT_TRUE(Eventually([&] { return first.offered(); }, 20s)) << HostLog();
  const auto denied = decide("--deny", second_peer);
  EXPECT_EQ(denied.exit_code, 0) << denied.err;
  EXPECT_EQ(denied.out, "viewer " + second_peer + " is sent away\n");
  const auto again = decide("--admit", second_peer);
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_EQ(again.err, "mirell-ui: no viewer " + second_peer + " is waiting to be let in\n");
  std::this_thread::sleep_for(1s);
  EXPECT_FALSE(second.offered());
}

// A Mirell already runs without a share; a second start with the same ports asks it for one and
// prints the link it got, which plays.
TEST_F(SharingAcrossProcesses, ASecondStartHandsItsShareToTheRunningInstanceAndPrintsTheLink) {
  StartDisplay(1280, 720);
  auto window = OpenWindow({"--title", "Moving Demo", "--size", "640x360", "--color", "FF0000", "--color2",
                            "0000FF", "--alternate-ms", "400"},
                           660);
  host_.process = std::make_unique<ChildProcess>(
      std::vector<std::string>{ui_.binary().string(), "--signal", SignalUrl(), "--pipe", host_.pipe,
                               "--rtsp-port", std::to_string(host_.rtsp_port), "--no-stub"},
      UiEnvironment());
  ASSERT_TRUE(HostLogged("listening " + host_.pipe)) << HostLog();
  testsupport::ProcessOptions options = UiEnvironment();
  options.timeout = 40s;
  const auto second = testsupport::RunProcess({ui_.binary().string(), "--pipe", host_.pipe, "--rtsp-port",
                                               std::to_string(host_.rtsp_port), "--share-window", "moving demo",
                                               "--admit-everyone"},
                                              options);
  EXPECT_EQ(second.exit_code, 0) << second.err;
  ASSERT_TRUE(std::regex_match(second.out, std::regex("http://127\\.0\\.0\\.1:" + std::to_string(signal_port_) +
                                                      "/s/[0-9A-Z]{12}\n")))
      << second.out << second.err;
  const std::string link = second.out.substr(0, second.out.size() - 1);
  EXPECT_TRUE(HostLogged("share link " + link + " (asked by a later start)")) << HostLog();
  StartViewer();
  auto player = Play(Resolve(link), 4);
  const Recording recording = Finish(*player);
  EXPECT_GT(recording.pictures.size(), 60u) << recording.log;
}

TEST_F(SharingAcrossProcesses, WithoutAdmissionOptionsEveryViewerWaits) {
  StartDisplay(1280, 720);
  auto window = OpenWindow({"--title", "Closed Door", "--size", "320x180"}, 0);
  const std::string link = StartHost({"--share-window", "Closed Door"});
  ASSERT_TRUE(HostLogged("hosting")) << HostLog();
  Joiner someone(SignalUrl(), TokenOf(link), kFriend);
  EXPECT_TRUE(HostLogged(std::string("waits to be let in; says it is ") + kFriend)) << HostLog();
  std::this_thread::sleep_for(1s);
  EXPECT_FALSE(someone.offered());
}

// With its window on screen, the host asks the person about each viewer; xdotool answers as
// they would. Return lets the first in ("Let them watch" is the box's default); Escape turns the
// second away.
TEST_F(SharingAcrossProcesses, TheHostsWindowAsksAboutEachViewerAndTheAnswerHolds) {
  StartDisplay(1280, 720);
  auto window = OpenWindow({"--title", "Asked About", "--size", "320x180", "--position", "900,500"}, 0);
  const std::string link = StartHost({"--share-window", "Asked About"}, true);
  ASSERT_TRUE(HostLogged("hosting")) << HostLog();
  testsupport::ProcessOptions x;
  x.environment["DISPLAY"] = display_->name();
  x.timeout = 10s;
  // Qt on X11 puts the program's name after a dialog's title ("Let them watch? — Mirell").
  const auto prompt = [&] {
    return testsupport::RunProcess({"xdotool", "search", "--onlyvisible", "--name", "^Let them watch\\?"}, x).out;
  };
  const auto answer = [&](const std::string& key) {
    const std::string box = prompt();
    testsupport::RunProcess({"xdotool", "windowactivate", "--sync", box.substr(0, box.find('\n')), "key", key}, x);
  };

  Joiner friend_viewer(SignalUrl(), TokenOf(link), kFriend);
  ASSERT_TRUE(Eventually([&] { return !prompt().empty(); }, 20s)) << HostLog();
  const std::filesystem::path artifacts = MIRELL_TEST_ARTIFACT_DIR;
  std::filesystem::create_directories(artifacts);
  testsupport::RunProcess({"ffmpeg", "-loglevel", "error", "-y", "-f", "x11grab", "-video_size", "1280x720", "-i",
                           display_->name(), "-frames:v", "1", (artifacts / "admission_prompt.png").string()},
                          x);
  EXPECT_FALSE(friend_viewer.offered()) << "nobody gets in before the person says so";
  answer("Return");
  EXPECT_TRUE(Eventually([&] { return friend_viewer.offered(); }, 20s)) << HostLog();

  Joiner stranger(SignalUrl(), TokenOf(link), kStranger);
  ASSERT_TRUE(Eventually([&] { return !prompt().empty(); }, 20s)) << HostLog();
  answer("Escape");
  EXPECT_TRUE(HostLogged("denied")) << HostLog();
  EXPECT_FALSE(stranger.offered());

  // A real viewer, who says nothing about themselves, is let in too and plays the window.
  StartViewer();
  auto player = Play(Resolve(link), 8);
  ASSERT_TRUE(Eventually([&] { return !prompt().empty(); }, 20s)) << HostLog();
  answer("Return");
  std::this_thread::sleep_for(4s);  // Long enough for the window's refresh to show the rates.
  testsupport::RunProcess({"ffmpeg", "-loglevel", "error", "-y", "-f", "x11grab", "-video_size", "1280x720", "-i",
                           display_->name(), "-frames:v", "1", (artifacts / "main_window_two_viewers.png").string()},
                          x);
  const Recording recording = Finish(*player);
  ASSERT_GT(recording.pictures.size(), 30u) << recording.log;
  EXPECT_TRUE(recording.At(recording.pictures.size() - 1, kThumbWidth / 2, kThumbHeight / 2).red())
      << "the shared window, once let in";
}

// As a person does it: the tray menu's "Share something...", the window picked in the picker by
// keyboard, the viewer let in at the prompt; the viewer plays the picked window.
TEST_F(SharingAcrossProcesses, APersonPicksAWindowInThePickerAndAViewerPlaysIt) {
  if (!testsupport::HaveProgram("trayer") || !testsupport::HaveProgram("xdotool")) {
    GTEST_SKIP() << "needs trayer and xdotool";
  }
  StartDisplay(1280, 720);
  testsupport::ProcessOptions x;
  x.environment["DISPLAY"] = display_->name();
  x.timeout = 10s;
  const auto run = [&](const std::vector<std::string>& argv) { return testsupport::RunProcess(argv, x).out; };
  const auto visible = [&](const std::string& name) {
    return run({"xdotool", "search", "--onlyvisible", "--name", name});
  };
  ChildProcess tray({"trayer", "--edge", "top", "--align", "right", "--widthtype", "request", "--height", "24"}, x);
  auto window = OpenWindow({"--title", "Picked By Hand", "--size", "320x180", "--position", "100,400"}, 0);

  host_.process = std::make_unique<ChildProcess>(
      std::vector<std::string>{ui_.binary().string(), "--signal", SignalUrl(), "--pipe", host_.pipe, "--rtsp-port",
                               std::to_string(host_.rtsp_port), "--no-stub"},
      [&] {
        testsupport::ProcessOptions options = UiEnvironment();
        options.environment["QT_QPA_PLATFORM"] = "xcb";
        options.environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/nonexistent";  // The tray by XEmbed.
        return options;
      }());
  ASSERT_TRUE(Eventually([&] { return !visible("^Mirell$").empty(); }, 30s)) << HostLog();
  // The tray icon's menu (trayer's first slot), then its second entry.
  ASSERT_TRUE(Eventually([&] {
    const auto icon = testsupport::TrayIconPoint(x);
    if (!icon) return false;
    run({"xdotool", "mousemove", std::to_string(icon->x), std::to_string(icon->y), "click", "3"});
    std::this_thread::sleep_for(300ms);
    run({"xdotool", "key", "Down", "Down", "Return"});
    return Eventually([&] { return !visible("^Share a screen or a window").empty(); }, 3s);
  }, 30s)) << HostLog();
  // Thumbnails come on a timer; give them a moment for the screenshot.
  std::this_thread::sleep_for(1500ms);
  const std::filesystem::path artifacts = MIRELL_TEST_ARTIFACT_DIR;
  std::filesystem::create_directories(artifacts);
  run({"ffmpeg", "-loglevel", "error", "-y", "-f", "x11grab", "-video_size", "1280x720", "-i", display_->name(),
       "-frames:v", "1", (artifacts / "desktop_picker.png").string()});
  // Monitors come first, windows after: the last entry is the one window to pick. The focus
  // chain follows the list in the order things show: "All sound" and "Anyone with the link can
  // watch" (both left unticked), "Share", then "Cancel".
  const std::string picker = visible("^Share a screen or a window");
  run({"xdotool", "windowactivate", "--sync", picker.substr(0, picker.find('\n')), "key", "End", "Tab", "Tab",
       "Tab", "space"});
  ASSERT_TRUE(HostLogged("target=Picked By Hand", 20s)) << HostLog();
  // The token is copied out: a match only points into the text it was found in.
  const std::string token = [&] {
    std::smatch match;
    static const std::regex kToken("token=([0-9A-Z]{12})");
    const std::string log = HostLog();
    return std::regex_search(log, match, kToken) ? match[1].str() : std::string();
  }();
  ASSERT_FALSE(token.empty()) << HostLog();
  const std::string link = "https://127.0.0.1:" + std::to_string(signal_port_) + "/s/" + token;

  StartViewer();
  auto player = Play(Resolve(link), 6);
  const auto prompt = [&] { return visible("^Let them watch\\?"); };
  ASSERT_TRUE(Eventually([&] { return !prompt().empty(); }, 20s)) << HostLog();
  const std::string box = prompt();
  run({"xdotool", "windowactivate", "--sync", box.substr(0, box.find('\n')), "key", "Return"});
  const Recording recording = Finish(*player);
  ASSERT_GT(recording.pictures.size(), 30u) << recording.log;
  EXPECT_TRUE(recording.At(recording.pictures.size() - 1, kThumbWidth / 2, kThumbHeight / 2).red())
      << "the picked window, once let in";
}

// The viewer's mirell-ui reads the account from VRChat's log in its Proton prefix, follows a new
// log when VRChat starts again, and its watch's join claims the account to the host.
TEST_F(SharingAcrossProcesses, AViewersJoinClaimsTheVRChatAccountOfItsLog) {
  StartDisplay(1280, 720);
  const auto vrchat = home_.path() /
                      ".local/share/Steam/steamapps/compatdata/438100/pfx/drive_c/users/steamuser/AppData/"
                      "LocalLow/VRChat/VRChat";
  std::filesystem::create_directories(vrchat);
  const auto first_log = vrchat / "output_log_2026-11-24_10-00-00.txt";
  std::ofstream(first_log) << "2026.11.24 10:00:01 Log        -  User Authenticated: Ann (Fan) (" << kFriend << ")\n";
  auto window = OpenWindow({"--title", "Claims", "--size", "320x180"}, 0);
  const std::string link = StartHost({"--share-window", "Claims"});
  ASSERT_TRUE(HostLogged("hosting")) << HostLog();
  StartViewer();
  ASSERT_TRUE(ui_.WaitForLog(viewer_.rtsp_port, viewer_.pipe, "account name=Ann (Fan)")) << ViewerLog();
  Resolve(link);
  EXPECT_TRUE(HostLogged(std::string("waits to be let in; says it is ") + kFriend + " (Ann (Fan))")) << HostLog();

  // VRChat started again under another account: a newer log.
  const auto second_log = vrchat / "output_log_2026-11-24_11-00-00.txt";
  std::ofstream(second_log) << "2026.11.24 11:00:01 Log        -  User Authenticated: Bo (" << kStranger << ")\n";
  std::filesystem::last_write_time(second_log, std::filesystem::last_write_time(first_log) + 1s);
  EXPECT_TRUE(ui_.WaitForLog(viewer_.rtsp_port, viewer_.pipe, "account name=Bo", 10s)) << ViewerLog();
}

TEST_F(SharingAcrossProcesses, AShareThatCannotStartEndsTheProgramWithTheReason) {
  StartDisplay(1280, 720);
  const auto result = testsupport::RunProcess(
      {ui_.binary().string(), "--signal", SignalUrl(), "--pipe", host_.pipe, "--rtsp-port",
       std::to_string(host_.rtsp_port), "--no-stub", "--share-window", "No Such Window"},
      UiEnvironment());
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_NE(result.err.find("mirell-ui: could not share: no window's title contains \"No Such Window\""),
            std::string::npos)
      << result.err;
  const auto bad = testsupport::RunProcess({ui_.binary().string(), "--share-monitor", "first"}, UiEnvironment());
  EXPECT_EQ(bad.exit_code, 2);
  EXPECT_NE(bad.err.find("--share-monitor takes a monitor number"), std::string::npos) << bad.err;
}

// A share the signal server will not take (here it is full) cannot be joined by anyone: without
// a window to say so, the run ends with the server's reason rather than sharing to nobody.
TEST_F(SharingAcrossProcesses, AShareTheSignalServerRefusesEndsAHeadlessRunWithTheReason) {
  const FullSignalServer full;
  ASSERT_TRUE(full.filled) << full.error;
  signal_port_ = full.port;

  StartDisplay(640, 360);
  auto window = OpenWindow({"--title", "Refused", "--size", "200x150"}, 0);
  const std::string link = StartHost({"--share-window", "Refused"});
  EXPECT_FALSE(link.empty()) << "the link is printed before the server answers";
  const auto result = host_.process->Wait(20s);
  EXPECT_FALSE(result.timed_out) << HostLog();
  EXPECT_EQ(result.exit_code, 1) << HostLog() << result.err;
  EXPECT_NE(result.err.find("mirell-ui: the signal server refused the share: server full"), std::string::npos)
      << result.err;
}

}  // namespace
}  // namespace mirell::ui
