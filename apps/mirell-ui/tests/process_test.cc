// The real mirell-ui executable: started headless, asked over its resolve endpoint, stopped with
// signals, and failing to start with its message box driven on a private X server.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "installed_ui.h"
#include "instance_key.h"
#include "mirell/base/version.h"
#include "mirell/testsupport/build_speed.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/testsupport/xvfb.h"

namespace mirell::ui {
namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::Eventually;
using testsupport::ExchangeOnce;
using testsupport::MakeTaggedFile;
using testsupport::ReadFileText;

char TagOf(const std::filesystem::path& path) { return testsupport::FirstByteOf(path); }

// VRChat under Proton in a Steam library of `home`, with its resolver; returns the Tools folder.
std::filesystem::path MakeVrchatTools(const std::filesystem::path& home) {
  const auto tools = home / ".local/share/Steam/steamapps/compatdata/438100/pfx/drive_c/users/"
                            "steamuser/AppData/LocalLow/VRChat/VRChat/Tools";
  std::filesystem::create_directories(tools);
  MakeTaggedFile(tools / "yt-dlp.exe", 12 << 20, 'R');
  return tools;
}

class UiProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    pipe_port_ = testsupport::FreeLoopbackPort();
    rtsp_port_ = testsupport::FreeLoopbackPort();
    pipe_ = "127.0.0.1:" + std::to_string(pipe_port_);
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{ui_.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe_, "--rtsp-port",
                                 std::to_string(rtsp_port_)},
        Headless(home_.path()));
    ASSERT_TRUE(ui_.WaitForLog(rtsp_port_, pipe_, "listening " + pipe_))
        << ui_.Log(rtsp_port_, pipe_);
  }

  testsupport::TempDir home_;
  InstalledUi ui_;
  std::uint16_t pipe_port_ = 0;
  std::uint16_t rtsp_port_ = 0;
  std::string pipe_;
  std::unique_ptr<ChildProcess> process_;
};

TEST_F(UiProcess, AnswersResolveRequestsAndStopsOnSigterm) {
  EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://example.com/watch?v=1\n"), "PASS\n");
  EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://mirell.example/s/ABCDEFGHJKMN\n"),
            "OK rtspt://127.0.0.1:" + std::to_string(rtsp_port_) + "/s/ABCDEFGHJKMN\n");

  {  // A malformed request gets nothing, and the next client is served.
    testsupport::TcpClient client(pipe_port_);
    client.Send("RESOLVE no newline");
    client.ShutdownWrite();
    EXPECT_EQ(client.ReadToEnd(), "");
  }
  EXPECT_EQ(ExchangeOnce(pipe_port_, "GET / HTTP/1.0\n"), "ERR unknown verb\n");
  EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://example.com/\n"), "PASS\n");

  // The RTSP server runs on its port: a stream nobody resolved is not found.
  EXPECT_EQ(ExchangeOnce(rtsp_port_, "DESCRIBE rtsp://127.0.0.1/s/ZZZZZZZZZZZZ RTSP/1.0\r\nCSeq: 1\r\n\r\n", 1s),
            "RTSP/1.0 404 Not Found\r\nCSeq: 1\r\nServer: mirell/0.1\r\n\r\n");

  process_->Signal(SIGTERM);
  const auto result = process_->Wait(20s);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_THROW(testsupport::TcpClient client(pipe_port_), std::runtime_error);
  EXPECT_THROW(testsupport::TcpClient client(rtsp_port_), std::runtime_error);

  const std::string log = ui_.Log(rtsp_port_, pipe_);
  EXPECT_NE(log.find("malformed request bytes=18"), std::string::npos) << log;
  EXPECT_NE(log.find("stopping on signal 15"), std::string::npos) << log;
  EXPECT_NE(log.find("mirell-ui stopped (0)"), std::string::npos) << log;
}

TEST_F(UiProcess, KeepsToSmallPages) {
  // The kernel says whether a process may have transparent huge pages; older ones do not say.
  const std::string status =
      testsupport::ReadFileText("/proc/" + std::to_string(process_->pid()) + "/status");
  if (status.find("THP_enabled:") == std::string::npos) GTEST_SKIP() << "the kernel does not tell";
  EXPECT_NE(status.find("THP_enabled:\t0"), std::string::npos) << status;
}

TEST_F(UiProcess, StopsOnSigintToo) {
  process_->Signal(SIGINT);
  const auto result = process_->Wait(20s);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_THROW(testsupport::TcpClient client(pipe_port_), std::runtime_error);
}

TEST_F(UiProcess, LogsBesideTheExecutableUnderTheInstanceKey) {
  const std::string log = ui_.Log(rtsp_port_, pipe_);
  EXPECT_NE(log.find("instance " + InstanceKey(rtsp_port_, pipe_)), std::string::npos) << log;
  EXPECT_NE(log.find("quality 1280x720@30 v=6000kbps a=128kbps/stereo"), std::string::npos);
}

// Any program of the user can open the resolve port and say nothing: neither the next stub nor a
// SIGTERM may wait for it.
TEST_F(UiProcess, SilentClientHoldsNeitherResolvesNorShutdown) {
  testsupport::TcpClient silent(pipe_port_);
  EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://example.com/\n", 10s), "PASS\n");
  testsupport::TcpClient second_silent(pipe_port_);
  // The service is now reading from the second silent client.
  std::this_thread::sleep_for(100ms);
  const auto signalled = std::chrono::steady_clock::now();
  process_->Signal(SIGTERM);
  const auto result = process_->Wait(20s);
  if (!testsupport::kSanitizedBuild) {
    EXPECT_LT(std::chrono::steady_clock::now() - signalled, 1s);
  }
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.exit_code, 0) << result.err;
}

// Served connections leave TIME_WAIT entries on the resolve port; whether the last run ended
// cleanly or was killed, the next one starts on the same ports at once.
TEST_F(UiProcess, StartsAgainAtOnceOnTheSamePortsAfterStopOrKill) {
  for (const int how : {SIGTERM, SIGKILL}) {
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://mirell.example/s/ABCDEFGHJKMN\n"),
                "OK rtspt://127.0.0.1:" + std::to_string(rtsp_port_) + "/s/ABCDEFGHJKMN\n");
    }
    process_->Signal(how);
    process_->Wait(20s);
    ui_.ForgetLog(rtsp_port_, pipe_);
    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{ui_.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe_, "--rtsp-port",
                                 std::to_string(rtsp_port_)},
        Headless(home_.path()));
    ASSERT_TRUE(ui_.WaitForLog(rtsp_port_, pipe_, "listening " + pipe_))
        << "after signal " << how << ":\n" << ui_.Log(rtsp_port_, pipe_);
    EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://example.com/\n"), "PASS\n");
  }
}

// "--signal" points the whole program at a self-hosted deployment, share links included.
TEST(UiSignalOption, LinksOfTheConfiguredHostResolveAndTheBuiltInOnesPass) {
  testsupport::TempDir home;
  InstalledUi ui;
  const std::uint16_t pipe_port = testsupport::FreeLoopbackPort();
  const std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(pipe_port);
  ChildProcess process({ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port", std::to_string(rtsp_port),
                        "--signal", "ws://127.0.0.1:8080/signal"},
                       Headless(home.path()));
  ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "listening " + pipe)) << ui.Log(rtsp_port, pipe);
  EXPECT_EQ(ExchangeOnce(pipe_port, "RESOLVE http://127.0.0.1:8080/s/ABCDEFGHJKMN\n"),
            "OK rtspt://127.0.0.1:" + std::to_string(rtsp_port) + "/s/ABCDEFGHJKMN\n");
  EXPECT_EQ(ExchangeOnce(pipe_port, "RESOLVE https://mirell.example/s/ABCDEFGHJKMN\n"), "PASS\n");
  process.Signal(SIGTERM);
  EXPECT_EQ(process.Wait(20s).exit_code, 0);
}

// A signal URL no connection could use is refused at start, not left to fail at every share
// and every link played.
TEST(UiSignalOption, AUrlThatIsNotASignalServersEndsTheRunWithTheReason) {
  testsupport::TempDir home;
  InstalledUi ui;
  const std::uint16_t pipe_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(pipe_port);
  auto options = Headless(home.path());
  options.timeout = 20s;
  const auto result = testsupport::RunProcess(
      {ui.binary().string(), "--pipe", pipe, "--rtsp-port", "0", "--signal", "https://mirell.example/signal"},
      options);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_NE(result.err.find("--signal takes the ws:// or wss:// URL of a signal server"), std::string::npos)
      << result.err;
  EXPECT_NE(result.err.find("\"https://mirell.example/signal\""), std::string::npos) << result.err;
  EXPECT_EQ(ui.Log(0, pipe).find("listening"), std::string::npos) << "it started its services";
}

std::size_t CountOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// What another program of this user might send to the instance's socket: one line, whatever
// it is, answered; a flood without an end closed unanswered; the instance goes on either way.
std::string SendToInstance(const std::filesystem::path& socket_path, const std::string& bytes) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socket_path.c_str());
  std::string received;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    [[maybe_unused]] const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    char buffer[512];
    pollfd entry{fd, POLLIN, 0};
    while (::poll(&entry, 1, 5000) > 0) {
      const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
      if (got <= 0) break;
      received.append(buffer, static_cast<std::size_t>(got));
    }
  }
  ::close(fd);
  return received;
}

TEST_F(UiProcess, TheInstanceSocketAnswersNonsenseAndClosesAFloodAndGoesOn) {
  const std::filesystem::path socket_path =
      home_.path() / ".run" / ("mirell-" + InstanceKey(rtsp_port_, pipe_) + ".show");
  ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(socket_path); }, 10s));
  EXPECT_EQ(SendToInstance(socket_path, "{\"do\":\"explode\"}\n"),
            "{\"ok\":false,\"text\":\"the request was not understood\"}\n");
  EXPECT_EQ(SendToInstance(socket_path, std::string(100'000, 'x')), "") << "closed unanswered";
  EXPECT_EQ(SendToInstance(socket_path, "{\"do\":\"admit\",\"peer\":\"c1\"}\n"),
            "{\"ok\":false,\"text\":\"no viewer c1 is waiting to be let in\"}\n");
  EXPECT_TRUE(process_->Running());
  EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://example.com/\n"), "PASS\n");
}

TEST_F(UiProcess, ASecondStartWithTheSameOptionsExitsAtOnceAndLeavesTheLogAlone) {
  const std::string log_before = ui_.Log(rtsp_port_, pipe_);
  const auto second = testsupport::RunProcess(
      {ui_.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe_, "--rtsp-port", std::to_string(rtsp_port_)},
      [&] {
        auto options = Headless(home_.path());
        options.timeout = 10s;
        return options;
      }());
  EXPECT_FALSE(second.timed_out);
  EXPECT_EQ(second.exit_code, 0) << second.err;
  const std::string log_after = ui_.Log(rtsp_port_, pipe_);
  EXPECT_EQ(CountOf(log_after, "starting, instance"), 1u) << log_after;
  EXPECT_EQ(log_after.substr(0, log_before.size()), log_before);
  EXPECT_TRUE(process_->Running());
  EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://example.com/\n"), "PASS\n");
}

// A second start's share is the running instance's to make: its answer is the second start's,
// here the reason it could not (no display, no monitor), with exit code 1. A command line that
// cannot be followed is named as it would be without the running instance.
TEST_F(UiProcess, AShareAskedOfASecondStartIsTheRunningInstancesAndItsReasonIsTold) {
  auto options = Headless(home_.path());
  options.timeout = 40s;
  const auto second = testsupport::RunProcess({ui_.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe_, "--rtsp-port",
                                               std::to_string(rtsp_port_), "--share-monitor", "0"},
                                              options);
  EXPECT_FALSE(second.timed_out);
  EXPECT_EQ(second.exit_code, 1) << second.err;
  EXPECT_EQ(second.err, "mirell-ui: there is no monitor 0: this display has 0 (0 is the first)\n");
  EXPECT_EQ(second.out, "");
  EXPECT_TRUE(ui_.WaitForLog(rtsp_port_, pipe_, "a later start's share failed: there is no monitor 0"))
      << ui_.Log(rtsp_port_, pipe_);
  // Nobody waits for this instance's share: a decision about a viewer is answered so.
  const auto admit = testsupport::RunProcess({ui_.binary().string(), "--pipe", pipe_, "--rtsp-port",
                                              std::to_string(rtsp_port_), "--admit", "c42"},
                                             options);
  EXPECT_EQ(admit.exit_code, 1) << admit.err;
  EXPECT_EQ(admit.err, "mirell-ui: no viewer c42 is waiting to be let in\n");
  const auto allow = testsupport::RunProcess({ui_.binary().string(), "--pipe", pipe_, "--rtsp-port",
                                              std::to_string(rtsp_port_), "--share-monitor", "0", "--allow",
                                              "usr_00000000-0000-0000-0000-000000000000"},
                                             options);
  EXPECT_EQ(allow.exit_code, 2) << allow.err;
  const auto bad = testsupport::RunProcess({ui_.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe_, "--rtsp-port",
                                            std::to_string(rtsp_port_), "--share-monitor", "first"},
                                           options);
  EXPECT_EQ(bad.exit_code, 2) << bad.err;
  EXPECT_NE(bad.err.find("--share-monitor takes a monitor number"), std::string::npos) << bad.err;
  EXPECT_TRUE(process_->Running());
  EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://example.com/\n"), "PASS\n");
}

TEST_F(UiProcess, AnotherPortOrEndpointRunsBesideIt) {
  const std::uint16_t other_rtsp = testsupport::FreeLoopbackPort();
  const std::uint16_t other_pipe_port = testsupport::FreeLoopbackPort();
  const std::string other_pipe = "127.0.0.1:" + std::to_string(other_pipe_port);
  ChildProcess other({ui_.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", other_pipe, "--rtsp-port",
                      std::to_string(other_rtsp)},
                     Headless(home_.path()));
  ASSERT_TRUE(ui_.WaitForLog(other_rtsp, other_pipe, "listening " + other_pipe))
      << ui_.Log(other_rtsp, other_pipe);
  EXPECT_EQ(ExchangeOnce(other_pipe_port, "RESOLVE https://example.com/\n"), "PASS\n");
  EXPECT_EQ(ExchangeOnce(pipe_port_, "RESOLVE https://example.com/\n"), "PASS\n");
  other.Signal(SIGTERM);
  EXPECT_EQ(other.Wait(20s).exit_code, 0);
}

TEST_F(UiProcess, AKilledInstanceLeavesNoLockBehind) {
  process_->Signal(SIGKILL);
  process_->Wait(10s);
  ui_.ForgetLog(rtsp_port_, pipe_);
  ChildProcess again({ui_.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe_, "--rtsp-port",
                      std::to_string(rtsp_port_)},
                     Headless(home_.path()));
  EXPECT_TRUE(ui_.WaitForLog(rtsp_port_, pipe_, "listening " + pipe_)) << ui_.Log(rtsp_port_, pipe_);
  again.Signal(SIGTERM);
  EXPECT_EQ(again.Wait(20s).exit_code, 0);
}

// The quality stored by the dialog is what a share starts with; a value out of range is replaced
// and the log says so.
TEST(UiQualitySettings, StoredValuesAreReadAtStartAndSanitised) {
  InstalledUi ui;
  testsupport::TempDir home;
  std::filesystem::create_directories(home.path() / ".config/Mirell");
  std::ofstream(home.path() / ".config/Mirell/Mirell.conf")
      << "[quality]\nwidth=1920\nheight=1080\nfps=5\nvideoKbps=10000\naudioKbps=112\nmono=true\n";
  const std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(testsupport::FreeLoopbackPort());
  ChildProcess process({ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port", std::to_string(rtsp_port)},
                       Headless(home.path()));
  ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "listening " + pipe)) << ui.Log(rtsp_port, pipe);
  const std::string log = ui.Log(rtsp_port, pipe);
  EXPECT_NE(log.find("fps of 5 is outside 10-60, using 30"), std::string::npos) << log;
  EXPECT_NE(log.find("quality 1920x1080@30 v=10000kbps a=96kbps/mono"), std::string::npos) << log;
  process.Signal(SIGTERM);
  EXPECT_EQ(process.Wait(20s).exit_code, 0);
}

// Without a display and without a meeting place, the one line a person sees says both things a
// share from here needs.
TEST(UiNoDisplay, WithoutAMeetingPlaceTheLineSaysHowToGiveOne) {
  InstalledUi ui;
  testsupport::TempDir home;
  const std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(testsupport::FreeLoopbackPort());
  testsupport::ProcessOptions options = Headless(home.path());
  options.environment["QT_QPA_PLATFORM"] = std::nullopt;
  options.environment["DISPLAY"] = std::nullopt;
  options.environment["WAYLAND_DISPLAY"] = std::nullopt;
  ChildProcess process({ui.binary().string(), "--pipe", pipe, "--rtsp-port", std::to_string(rtsp_port)}, options);
  ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "listening " + pipe)) << ui.Log(rtsp_port, pipe);
  process.Signal(SIGTERM);
  const auto result = process.Wait(20s);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.err.find("; to share from here, start it with --signal URL or --signal local (where friends "
                            "meet you) and --share-window TEXT or --share-monitor N\n"),
            std::string::npos)
      << result.err;
}

// Started where there is no display at all (a server): no window, and everything else as usual.
TEST(UiNoDisplay, StartsWithoutAWindowAndServesResolves) {
  InstalledUi ui;
  testsupport::TempDir home;
  const std::uint16_t pipe_port = testsupport::FreeLoopbackPort();
  const std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(pipe_port);
  testsupport::ProcessOptions options = Headless(home.path());
  options.environment["QT_QPA_PLATFORM"] = std::nullopt;
  options.environment["DISPLAY"] = std::nullopt;
  options.environment["WAYLAND_DISPLAY"] = std::nullopt;
  ChildProcess process({ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port",
                        std::to_string(rtsp_port)},
                       options);
  ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "listening " + pipe)) << ui.Log(rtsp_port, pipe);
  EXPECT_NE(ui.Log(rtsp_port, pipe).find("no display: running without a window"), std::string::npos)
      << ui.Log(rtsp_port, pipe);
  EXPECT_EQ(ExchangeOnce(pipe_port, "RESOLVE https://example.com/\n"), "PASS\n");
  // The holding card's encoder is made by now.
  ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "card frames=", 60s)) << ui.Log(rtsp_port, pipe);
  process.Signal(SIGTERM);
  const auto result = process.Wait(20s);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  // What a person sees at the default level: where it listens and how to share, and no more
  // than one line about the encoder (no refusal of each hardware encoder).
  EXPECT_NE(result.err.find("mirell-ui: running without a window (no display): it plays share links for "
                            "VRChat, resolving on " + pipe + " with its RTSP server on port " +
                            std::to_string(rtsp_port) + "; to share from here, start it with "
                            "--share-window TEXT or --share-monitor N\n"),
            std::string::npos)
      << result.err;
  std::istringstream lines(result.err);
  int encoder_warnings = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find(" warn ") == std::string::npos) continue;
    EXPECT_EQ(line.find("rejected our configuration"), std::string::npos) << line;
    if (line.find("encoder") != std::string::npos) ++encoder_warnings;
  }
  EXPECT_LE(encoder_warnings, 1) << result.err;
}

// The visible window of an X session. Empty when none is shown.
std::string VisibleWindowNamed(const std::string& display, const std::string& title) {
  testsupport::ProcessOptions options;
  options.environment["DISPLAY"] = display;
  options.timeout = 5s;
  return testsupport::RunProcess({"xdotool", "search", "--onlyvisible", "--name", title}, options)
      .out;
}

bool WaitForVisibility(const std::string& display, const std::string& title, bool visible) {
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (std::chrono::steady_clock::now() < deadline) {
    if (VisibleWindowNamed(display, title).empty() != visible) return true;
    std::this_thread::sleep_for(100ms);
  }
  return false;
}

TEST(UiSingleInstance, ASecondStartShowsTheHiddenWindowOfTheFirst) {
  testsupport::XvfbOptions xvfb;
  xvfb.window_manager = true;
  testsupport::XvfbDisplay display(xvfb);
  if (!display.available() || !testsupport::HaveProgram("xdotool")) {
    GTEST_SKIP() << "needs Xvfb, openbox and xdotool (scripts/install-deps installs them)";
  }
  InstalledUi ui;
  testsupport::TempDir home;
  const std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(testsupport::FreeLoopbackPort());
  testsupport::ProcessOptions options = Headless(home.path());
  options.environment["QT_QPA_PLATFORM"] = "xcb";
  options.environment["DISPLAY"] = display.name();
  const std::vector<std::string> command{ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port",
                                         std::to_string(rtsp_port), "--no-stub"};
  ChildProcess first(command, options);
  ASSERT_TRUE(WaitForVisibility(display.name(), "^Mirell$", true)) << ui.Log(rtsp_port, pipe);

  // Closed by the window manager, as a person would: with no tray to come back from, the
  // window goes and the process lives on.
  const std::string window = VisibleWindowNamed(display.name(), "^Mirell$");
  testsupport::ProcessOptions x = options;
  x.timeout = 5s;
  testsupport::RunProcess({"xdotool", "windowactivate", "--sync", window.substr(0, window.find('\n')),
                           "key", "--clearmodifiers", "alt+F4"},
                          x);
  ASSERT_TRUE(WaitForVisibility(display.name(), "^Mirell$", false));
  EXPECT_TRUE(first.Running());

  options.timeout = 10s;
  const auto second = testsupport::RunProcess(command, options);
  EXPECT_EQ(second.exit_code, 0) << second.err;
  EXPECT_TRUE(WaitForVisibility(display.name(), "^Mirell$", true))
      << "the second start brings the first one's window back";
  first.Signal(SIGTERM);
  EXPECT_EQ(first.Wait(20s).exit_code, 0);
}

// "--rtsp-port 0" binds any free port; the resolver answers the port bound, not 0.
TEST(UiRtspPort, PortZeroIsAnsweredWithThePortBound) {
  testsupport::TempDir home;
  InstalledUi ui;
  const std::uint16_t pipe_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(pipe_port);
  ChildProcess process({ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port", "0"},
                       Headless(home.path()));
  ASSERT_TRUE(ui.WaitForLog(0, pipe, "listening " + pipe)) << ui.Log(0, pipe);
  const std::string answer =
      ExchangeOnce(pipe_port, "RESOLVE https://mirell.example/s/ABCDEFGHJKMN\n");
  const std::string prefix = "OK rtspt://127.0.0.1:";
  ASSERT_EQ(answer.rfind(prefix, 0), 0u) << answer;
  const auto port_end = answer.find('/', prefix.size());
  ASSERT_NE(port_end, std::string::npos) << answer;
  const int port = std::stoi(answer.substr(prefix.size(), port_end - prefix.size()));
  EXPECT_GT(port, 0) << answer;
  EXPECT_EQ(answer.substr(port_end), "/s/ABCDEFGHJKMN\n");
  // And a player reaches the RTSP server there.
  EXPECT_EQ(ExchangeOnce(static_cast<std::uint16_t>(port),
                         "OPTIONS rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 1\r\n\r\n", 2s)
                .rfind("RTSP/1.0 200 OK\r\n", 0),
            0u);
  process.Signal(SIGTERM);
  EXPECT_EQ(process.Wait(20s).exit_code, 0);
}

// With no screen (Qt's offscreen platform) nobody could answer the message box: the failure is
// logged and the process exits with 1 at once.
TEST(UiStartFailure, WithoutAScreenTheFailureIsLoggedAndTheProcessExits) {
  InstalledUi ui;
  testsupport::TempDir home;
  const int taken = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(taken, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(taken, 1), 0);
  socklen_t size = sizeof(address);
  ASSERT_EQ(getsockname(taken, reinterpret_cast<sockaddr*>(&address), &size), 0);
  const std::string pipe = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  const std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  for (const char* platform : {"offscreen", "minimal"}) {
    auto options = Headless(home.path());
    options.environment["QT_QPA_PLATFORM"] = platform;
    options.timeout = 20s;
    const auto result = testsupport::RunProcess(
        {ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port", std::to_string(rtsp_port)}, options);
    EXPECT_FALSE(result.timed_out) << platform;
    EXPECT_EQ(result.exit_code, 1) << platform << "\n" << result.err;
    const std::string log = ui.Log(rtsp_port, pipe);
    EXPECT_NE(log.find("could not start: "), std::string::npos) << platform << "\n" << log;
    EXPECT_NE(log.find("could not listen on " + pipe), std::string::npos) << platform;
  }
  close(taken);
}

// A port held by another program: the start fails with the message box, which the test finds on
// a private X server by its title and answers with the Return key.
TEST(UiStartFailure, TakenEndpointShowsTheBoxAndExitsWithOne) {
  testsupport::XvfbDisplay display;
  if (!display.available() || !testsupport::HaveProgram("xdotool")) {
    GTEST_SKIP() << "needs Xvfb and xdotool (scripts/install-deps installs them)";
  }
  InstalledUi ui;
  // The other program: a listener on the endpoint we are about to ask for.
  const std::uint16_t taken_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(taken_port);
  ChildProcess other({"python3", "-c",
                      "import socket,time\n"
                      "s=socket.socket()\n"
                      "s.bind(('127.0.0.1'," + std::to_string(taken_port) + "))\n"
                      "s.listen()\n"
                      "print('bound',flush=True)\n"
                      "time.sleep(120)\n"});
  const auto bound_deadline = std::chrono::steady_clock::now() + 10s;
  bool bound = false;
  while (!bound && std::chrono::steady_clock::now() < bound_deadline) {
    try {
      testsupport::TcpClient probe(taken_port);
      bound = true;
    } catch (const std::runtime_error&) {
      std::this_thread::sleep_for(20ms);
    }
  }
  ASSERT_TRUE(bound);

  const std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  testsupport::TempDir home;
  testsupport::ProcessOptions options;
  options.environment["HOME"] = home.path().string();
  options.environment["DISPLAY"] = display.name();
  options.environment["QT_QPA_PLATFORM"] = "xcb";
  options.environment["MIRELL_LOG"] = "debug";
  ChildProcess process({ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port",
                        std::to_string(rtsp_port)},
                       options);

  testsupport::ProcessOptions xdotool_options;
  xdotool_options.environment["DISPLAY"] = display.name();
  xdotool_options.timeout = 30s;
  const auto found = testsupport::RunProcess(
      {"xdotool", "search", "--sync", "--name", "^Mirell couldn't start$"}, xdotool_options);
  if (found.exit_code != 0) {
    const auto ended = process.Wait(std::chrono::seconds(1));
    FAIL() << "no message box; mirell-ui " << (ended.timed_out ? "still ran" : "ended with " + std::to_string(ended.exit_code))
           << "\n" << ended.err << "\n" << ui.Log(rtsp_port, pipe);
  }
  const std::string window = found.out.substr(0, found.out.find('\n'));
  EXPECT_TRUE(process.Running()) << "the box must wait for the user";

  // Only the press: the box closes on it, so a release would go to a window that is gone.
  const auto pressed = testsupport::RunProcess({"xdotool", "keydown", "--window", window, "Return"},
                                               xdotool_options);
  ASSERT_EQ(pressed.exit_code, 0) << pressed.err;
  const auto result = process.Wait(20s);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.exit_code, 1) << result.err;
  const std::string log = ui.Log(rtsp_port, pipe);
  EXPECT_NE(log.find("could not start: "), std::string::npos) << log;
  EXPECT_NE(log.find("could not listen on " + pipe), std::string::npos) << log;
}

// With VRChat present, the stub goes in at start with the endpoint actually bound, and VRChat's
// resolver comes back at a clean exit.
// A VRChat Tools folder in a temporary home, an installed mirell-ui with a stub beside it, and
// free ports for its resolve endpoint and RTSP server.
class UiStub : public ::testing::Test {
 protected:
  testsupport::TempDir home;
  const std::filesystem::path tools = MakeVrchatTools(home.path());
  InstalledUi ui;
  const std::uint16_t pipe_port = testsupport::FreeLoopbackPort();
  const std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(pipe_port);

  UiStub() { MakeTaggedFile(ui.binary().parent_path() / "mirell-stub.exe", 40'000, 'S'); }
};

TEST_F(UiStub, InstalledAtStartAndRestoredAtExit) {
  ChildProcess process({ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port", std::to_string(rtsp_port)},
                       Headless(home.path()));
  ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "installed the stub into " + tools.string()))
      << ui.Log(rtsp_port, pipe);
  EXPECT_EQ(TagOf(tools / "yt-dlp.exe"), 'S');
  EXPECT_EQ(std::filesystem::file_size(tools / "yt-dlp-mirell-orig.exe"), 12u << 20);
  EXPECT_NE(testsupport::ReadFileText(tools / "mirell-stub.cfg").find("pipe=" + pipe + "\n"), std::string::npos);
  EXPECT_TRUE(std::filesystem::exists(tools / "mirell-stub.state"));

  process.Signal(SIGTERM);
  const auto result = process.Wait(20s);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(TagOf(tools / "yt-dlp.exe"), 'R');
  EXPECT_EQ(std::filesystem::file_size(tools / "yt-dlp.exe"), 12u << 20);
  EXPECT_FALSE(std::filesystem::exists(tools / "mirell-stub.state"));
  EXPECT_FALSE(std::filesystem::exists(tools / "mirell-stub.cfg"));
}

// VRChat's resolver cannot be put back at exit (here the copy's temporary file is blocked by a
// directory, which even root cannot write over): the failure is logged, the process still ends
// normally, the marker stays, and the next start restores.
TEST_F(UiStub, ARestoreThatFailsAtExitIsLoggedAndTheNextStartRecovers) {
  const std::vector<std::string> argv{ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port",
                                      std::to_string(rtsp_port)};
  {
    ChildProcess process(argv, Headless(home.path()));
    ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "installed the stub into " + tools.string()))
        << ui.Log(rtsp_port, pipe);
    const auto blocker = tools / "yt-dlp.exe.mirell-tmp";
    std::filesystem::create_directories(blocker / "in-the-way");
    process.Signal(SIGTERM);
    const auto result = process.Wait(20s);
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.signal, 0) << "ended by a signal: " << result.signal;
    EXPECT_EQ(result.exit_code, 0) << result.err;
    const std::string log = ui.Log(rtsp_port, pipe);
    EXPECT_NE(log.find("could not put VRChat's resolver back: "), std::string::npos) << log;
    EXPECT_NE(log.find("mirell-ui stopped (0)"), std::string::npos) << log;
    EXPECT_EQ(TagOf(tools / "yt-dlp.exe"), 'S');
    EXPECT_TRUE(std::filesystem::exists(tools / "mirell-stub.state"));
    std::filesystem::remove_all(blocker);
  }
  ui.ForgetLog(rtsp_port, pipe);
  ChildProcess again(argv, Headless(home.path()));
  ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "a previous run left the stub installed"))
      << ui.Log(rtsp_port, pipe);
  ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "installed the stub into " + tools.string()));
  again.Signal(SIGTERM);
  EXPECT_EQ(again.Wait(20s).exit_code, 0);
  EXPECT_EQ(TagOf(tools / "yt-dlp.exe"), 'R');
  EXPECT_FALSE(std::filesystem::exists(tools / "mirell-stub.state"));
}

TEST_F(UiStub, NoStubLeavesVrchatAloneAndStillServes) {
  ChildProcess process({ui.binary().string(), "--no-stub", "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port",
                        std::to_string(rtsp_port)},
                       Headless(home.path()));
  ASSERT_TRUE(ui.WaitForLog(rtsp_port, pipe, "listening " + pipe));
  EXPECT_EQ(ExchangeOnce(pipe_port, "RESOLVE https://example.com/\n"), "PASS\n");
  EXPECT_EQ(TagOf(tools / "yt-dlp.exe"), 'R');
  EXPECT_FALSE(std::filesystem::exists(tools / "mirell-stub.state"));
  process.Signal(SIGTERM);
  EXPECT_EQ(process.Wait(20s).exit_code, 0);
}

// A crash left the stub in place: the restore mode puts VRChat's resolver back and tidies up,
// with no Qt (there is no display here) and exit code 0.
TEST(UiRestoreMode, PutsTheResolverBackAndTidiesUp) {
  testsupport::TempDir home;
  testsupport::TempDir temporary;
  const auto tools = MakeVrchatTools(home.path());
  std::filesystem::rename(tools / "yt-dlp.exe", tools / "yt-dlp-mirell-orig.exe");
  MakeTaggedFile(tools / "yt-dlp.exe", 40'000, 'S');
  for (const char* name : {"mirell-stub.state", "mirell-stub.cfg", "mirell-stub.log"}) MakeTaggedFile(tools / name, 10, 'x');
  InstalledUi ui;
  testsupport::ProcessOptions options;
  options.environment["TMPDIR"] = temporary.path().string();
  options.environment["HOME"] = home.path().string();
  options.environment["DISPLAY"] = std::nullopt;
  options.environment["QT_QPA_PLATFORM"] = std::nullopt;
  options.environment["MIRELL_LOG"] = "info";
  const auto result = testsupport::RunProcess({ui.binary().string(), "--restore-vrchat", "--tools-dir", tools.string()}, options);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(TagOf(tools / "yt-dlp.exe"), 'R');
  for (const char* name : {"mirell-stub.state", "mirell-stub.cfg", "mirell-stub.log", "yt-dlp-mirell-orig.exe"}) {
    EXPECT_FALSE(std::filesystem::exists(tools / name)) << name;
  }
  EXPECT_NE(testsupport::ReadFileText(temporary.path() / "mirell-restore.log").find("VRChat's resolver is back in place"),
            std::string::npos);
}

// A person who asks for help gets the options on stdout, and nothing starts: no instance lock,
// no log file, no change to VRChat's Tools folder, even with a share and a running instance's
// endpoint on the same command line.
TEST(UiHelp, PrintsEveryOptionAndStartsNothing) {
  testsupport::TempDir home;
  const auto tools = MakeVrchatTools(home.path());
  InstalledUi ui;
  for (const char* asked : {"--help", "-h"}) {
    const auto result = testsupport::RunProcess(
        {ui.binary().string(), "--share-monitor", "0", asked, "--rtsp-port", "0"}, Headless(home.path()));
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_TRUE(result.out.starts_with("mirell-ui: ")) << result.out;
    for (const char* option :
         {"--share-window", "--share-monitor", "--quality", "--share-minutes", "--allow", "--admit-everyone",
          "--public", "--signal", "--rtsp-port", "--pipe", "--no-stub", "--update-url", "--log-file", "--debug-log",
          "--restore-vrchat", "--tools-dir", "--version"}) {
      EXPECT_NE(result.out.find(std::string("  ") + option + " "), std::string::npos) << option;
    }
    EXPECT_FALSE(std::filesystem::exists(ui.LogDirectory())) << "a log was written";
    EXPECT_FALSE(std::filesystem::exists(tools / "mirell-stub.state"));
    EXPECT_EQ(TagOf(tools / "yt-dlp.exe"), 'R');
  }
}

// A command line it cannot follow starts nothing: one sentence on stderr and exit code 2, no
// log, no change to VRChat's Tools folder.
TEST(UiOptions, AMistakeStartsNothingAndEndsWithExitCode2) {
  testsupport::TempDir home;
  const auto tools = MakeVrchatTools(home.path());
  InstalledUi ui;
  const std::vector<std::vector<std::string>> mistakes = {
      {"--share-windw", "Demo"}, {"--share-window", "--no-stub"}, {"--rtsp-port", "70000"},
      {"--rtsp-port", "abc"}, {"--rtsp-port"}, {"Demo"}};
  for (const auto& mistake : mistakes) {
    std::vector<std::string> argv{ui.binary().string()};
    argv.insert(argv.end(), mistake.begin(), mistake.end());
    const auto result = testsupport::RunProcess(argv, Headless(home.path()));
    EXPECT_EQ(result.exit_code, 2) << mistake[0] << "\n" << result.err;
    EXPECT_TRUE(result.err.starts_with("mirell-ui: ")) << result.err;
    EXPECT_NE(result.err.find("(mirell-ui --help lists the options)\n"), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out, "");
  }
  EXPECT_FALSE(std::filesystem::exists(ui.LogDirectory())) << "a log was written";
  EXPECT_FALSE(std::filesystem::exists(tools / "mirell-stub.state"));
}

// A decision about a viewer is the running instance's: with none running, nothing starts.
TEST(UiOptions, AdmitWithoutARunningInstanceEndsWithExitCode2) {
  testsupport::TempDir home;
  InstalledUi ui;
  const std::string pipe = "127.0.0.1:" + std::to_string(testsupport::FreeLoopbackPort());
  auto options = Headless(home.path());
  options.timeout = 20s;
  const auto result = testsupport::RunProcess(
      {ui.binary().string(), "--pipe", pipe, "--rtsp-port", "0", "--admit", "c1"}, options);
  EXPECT_EQ(result.exit_code, 2) << result.err;
  EXPECT_TRUE(result.err.starts_with("mirell-ui: no mirell-ui is running with this RTSP port and resolve endpoint: "
                                     "--admit and --deny decide"))
      << result.err;
  EXPECT_FALSE(std::filesystem::exists(ui.LogDirectory())) << "a log was written";
}

// No meeting place, and no screen to ask on: a share asked for on the command line could reach
// nobody, so nothing starts and the sentence says how to give one.
TEST(UiOptions, AShareWithoutAMeetingPlaceEndsWithExitCode2AndTheWayToGiveOne) {
  testsupport::TempDir home;
  InstalledUi ui;
  const std::string pipe = "127.0.0.1:" + std::to_string(testsupport::FreeLoopbackPort());
  auto options = Headless(home.path());
  options.timeout = 30s;
  const auto result = testsupport::RunProcess(
      {ui.binary().string(), "--pipe", pipe, "--rtsp-port", "0", "--no-stub", "--share-monitor", "0"}, options);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.exit_code, 2) << result.err;
  EXPECT_TRUE(result.err.ends_with(
      "\nmirell-ui: could not share: no meeting place is chosen; give --signal URL (a signal server) "
      "or --signal local (this computer)\n"))
      << result.err;
  EXPECT_EQ(ui.Log(0, pipe).find("listening"), std::string::npos) << "it started its services";
  EXPECT_EQ(result.out, "") << "no link";
}

// The log is where the desktop keeps state (~/.local/state/mirell without XDG_STATE_HOME), never
// beside the program, and the run before stays beside it: a crash's log survives the restart.
TEST(UiLog, TheLogIsKeptWithTheStateAndTheRunBeforeStaysBesideIt) {
  testsupport::TempDir home;
  InstalledUi ui;
  const std::uint16_t rtsp_port = testsupport::FreeLoopbackPort();
  const std::string pipe = "127.0.0.1:" + std::to_string(testsupport::FreeLoopbackPort());
  testsupport::ProcessOptions options = Headless(home.path());
  options.environment["XDG_STATE_HOME"] = std::nullopt;
  const std::filesystem::path directory = home.path() / ".local/state/mirell";
  const std::filesystem::path log = directory / LogFileName(InstanceKey(rtsp_port, pipe), "unused");
  // Runs until its log at `path` says it listens (a finished run's log, which ends with its stop,
  // does not count), then stops it.
  const auto run = [&](const std::vector<std::string>& extra, const std::filesystem::path& path) {
    std::vector<std::string> argv{ui.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe, "--rtsp-port", std::to_string(rtsp_port)};
    argv.insert(argv.end(), extra.begin(), extra.end());
    ChildProcess process(argv, options);
    EXPECT_TRUE(Eventually([&] {
      const std::string text = ReadFileText(path);
      return text.find("listening " + pipe) != std::string::npos && text.find("mirell-ui stopped (") == std::string::npos;
    }, 20s)) << ReadFileText(path);
    process.Signal(SIGTERM);
    EXPECT_EQ(process.Wait(20s).exit_code, 0);
  };
  run({}, log);
  const std::string first = ReadFileText(log);
  ASSERT_NE(first.find("starting, instance"), std::string::npos) << first;
  run({}, log);
  EXPECT_EQ(ReadFileText(log.string() + ".1"), first) << "the run before, whole";
  EXPECT_EQ(CountOf(ReadFileText(log), "starting, instance"), 1u);
  for (const auto& entry : std::filesystem::directory_iterator(ui.binary().parent_path())) {
    EXPECT_NE(entry.path().extension(), ".log") << "a log beside the program: " << entry.path();
  }

  // --log-file puts it elsewhere.
  const std::filesystem::path elsewhere = home.path() / "logs/this-run.log";
  run({"--log-file", elsewhere.string()}, elsewhere);
  EXPECT_NE(ReadFileText(elsewhere).find("listening " + pipe), std::string::npos);
}

TEST(UiHelp, VersionIsOneLine) {
  testsupport::TempDir home;
  InstalledUi ui;
  const auto result = testsupport::RunProcess({ui.binary().string(), "--version"}, Headless(home.path()));
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out, "mirell-ui " + std::string(kVersion) + "\n");
}

}  // namespace
}  // namespace mirell::ui
