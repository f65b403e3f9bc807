// The stub under Wine, started by a Windows program standing in for VRChat with the kind of
// arguments a video player passes, against a real mirell-ui, an in-process resolve service, or
// nothing at all.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "mirell/resolve/resolve_service.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using mirell::testsupport::ProcessOptions;
using mirell::testsupport::RunProcess;
using mirell::testsupport::TempDir;

std::string WindowsPath(const fs::path& path) {
  std::string text = "Z:" + path.string();
  for (char& c : text) {
    if (c == '/') c = '\\';
  }
  return text;
}

using mirell::testsupport::Eventually;

// Every log file Mirell wrote in dir, one after another.
std::string LogsIn(const fs::path& dir) {
  std::string logs;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(dir, missing)) {
    if (entry.path().extension() == ".log") logs += mirell::testsupport::ReadFileText(entry.path());
  }
  return logs;
}

bool WaitForPort(std::uint16_t port) {
  return Eventually([port] {
    try {
      mirell::testsupport::TcpClient probe(port);
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }, 20s);
}

class StubUnderWine : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!mirell::testsupport::HaveProgram("wine")) return;
    prefix_ = new TempDir();
    const auto booted = RunProcess({"wineboot", "-i"}, WineOptions(120s));
    if (booted.exit_code != 0) {
      delete prefix_;
      prefix_ = nullptr;
    }
  }
  static void TearDownTestSuite() {
    if (prefix_ != nullptr) RunProcess({"wineserver", "-k"}, WineOptions(30s));
    delete prefix_;
    prefix_ = nullptr;
  }
  static ProcessOptions WineOptions(std::chrono::milliseconds timeout = 60s) {
    ProcessOptions options;
    options.timeout = timeout;
    if (prefix_ != nullptr) options.environment["WINEPREFIX"] = prefix_->path().string();
    options.environment["WINEDLLOVERRIDES"] = "mscoree,mshtml=";
    options.environment["WINEDEBUG"] = "-all";
    options.environment["DISPLAY"] = std::nullopt;
    return options;
  }

  void SetUp() override {
    if (prefix_ == nullptr) GTEST_SKIP() << "needs wine (scripts/install-deps installs it)";
    tools_ = dir_.path() / "Tools";
    fs::create_directories(tools_);
    fs::copy_file(MIRELL_STUB_EXE, tools_ / "yt-dlp.exe");
    fs::copy_file(fs::path(MIRELL_TEST_PE_DIR) / "fake_resolver.exe", tools_ / "yt-dlp-mirell-orig.exe");
    pipe_port_ = mirell::testsupport::FreeLoopbackPort();
    WriteConfig("127.0.0.1:" + std::to_string(pipe_port_));
  }

  void WriteConfig(const std::string& pipe) {
    std::ofstream(tools_ / "mirell-stub.cfg", std::ios::binary | std::ios::trunc)
        << "# Written by the mirell daemon. Removed when it shuts down.\r\npipe=" << pipe
        << "\r\noriginal=yt-dlp-mirell-orig.exe\r\nlog=1\r\n";
  }

  // What VRChat sees: "exit=<code>\n" and the program's stdout, byte for byte.
  std::string AsVrchat(const fs::path& program, const std::string& url) {
    const auto result = RunProcess(
        {"wine", (fs::path(MIRELL_TEST_PE_DIR) / "vrchat_parent.exe").string(), WindowsPath(program),
         "--no-check-certificate", "-f", "mp4/best[height<=?720][height>=?64]", "--get-url",
         "--user-agent", "UnityPlayer/2022 (\"quoted\" and spaced)", url},
        WineOptions());
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return result.out;
  }

  std::string StubLog() { return mirell::testsupport::ReadFileText(tools_ / "mirell-stub.log"); }

  static TempDir* prefix_;
  TempDir dir_;
  fs::path tools_;
  std::uint16_t pipe_port_ = 0;
};

TempDir* StubUnderWine::prefix_ = nullptr;

TEST_F(StubUnderWine, ShareLinkPrintsTheDaemonsAddressFromARunningMirell) {
  TempDir home;
  const std::uint16_t rtsp_port = mirell::testsupport::FreeLoopbackPort();
  ProcessOptions options;
  options.environment["QT_QPA_PLATFORM"] = "offscreen";
  options.environment["HOME"] = home.path().string();
  // A deployment with nobody behind it: its links resolve at once and their watches play the card.
  mirell::testsupport::ChildProcess ui({MIRELL_UI_BINARY, "--no-stub", "--signal", "wss://mirell.example/signal", "--pipe", "127.0.0.1:" + std::to_string(pipe_port_),
                                        "--rtsp-port", std::to_string(rtsp_port)},
                                       options);
  ASSERT_TRUE(WaitForPort(pipe_port_));
  EXPECT_EQ(AsVrchat(tools_ / "yt-dlp.exe", "https://mirell.example/s/ABCDEFGHJKMN"),
            "exit=0\nrtspt://127.0.0.1:" + std::to_string(rtsp_port) + "/s/ABCDEFGHJKMN\r\n");
  // Any other URL: exactly what the real resolver gives, byte for byte and exit code.
  const std::string url = "https://example.com/watch?v=1&t=2";
  EXPECT_EQ(AsVrchat(tools_ / "yt-dlp.exe", url), AsVrchat(tools_ / "yt-dlp-mirell-orig.exe", url));
  EXPECT_NE(StubLog().find("resolved to rtspt://"), std::string::npos);
  ui.Signal(SIGTERM);
  ui.Wait(20s);
}

// As VRChat would meet a share link: the stub asks a viewer's mirell-ui, which watches a share of a
// test host through our signal server; the address the stub prints plays the card, then, once the
// host lets the viewer in, the host's picture.
TEST_F(StubUnderWine, AShareLinkThroughTheStubPlaysTheCardThenTheHost) {
  if (!mirell::testsupport::HaveProgram("ffmpeg")) GTEST_SKIP() << "needs ffmpeg";
  TempDir home, host_dir;
  const std::uint16_t signal_port = mirell::testsupport::FreeLoopbackPort();
  const std::uint16_t rtsp_port = mirell::testsupport::FreeLoopbackPort();
  const std::string signal_url = "ws://127.0.0.1:" + std::to_string(signal_port) + "/signal";
  mirell::testsupport::ChildProcess signal(
      {MIRELL_SIGNAL_BINARY, "--listen", "127.0.0.1:" + std::to_string(signal_port)});
  ASSERT_TRUE(WaitForPort(signal_port));
  const std::string token = "WYNETRKEN234";
  mirell::testsupport::ChildProcess host({MIRELL_TEST_HOST_BINARY, "--signal", signal_url, "--token",
                                          token, "--secret", "WINESECRET234567890ABCDEFGHJKMNP",
                                          "--dir", host_dir.path().string()});
  const auto events = [&] { return mirell::testsupport::ReadFileText(host_dir.path() / "events"); };
  ASSERT_TRUE(Eventually([&] { return events().find("hosting") != std::string::npos; }, 30s));

  ProcessOptions options;
  options.environment["QT_QPA_PLATFORM"] = "offscreen";
  options.environment["HOME"] = home.path().string();
  options.environment["MIRELL_LOG"] = "debug";
  const fs::path ui_dir = home.path() / "ui";
  fs::create_directories(ui_dir);
  fs::copy_file(MIRELL_UI_BINARY, ui_dir / "mirell-ui");
  // Its log under ui_dir/mirell, where the test reads it.
  options.environment["XDG_STATE_HOME"] = ui_dir.string();
  mirell::testsupport::ChildProcess ui(
      {(ui_dir / "mirell-ui").string(), "--no-stub", "--signal", signal_url, "--pipe",
       "127.0.0.1:" + std::to_string(pipe_port_), "--rtsp-port", std::to_string(rtsp_port)},
      options);
  ASSERT_TRUE(WaitForPort(pipe_port_));
  // The card is built in the background at start-up.
  ASSERT_TRUE(Eventually([&] { return LogsIn(ui_dir / "mirell").find("card frames=") != std::string::npos; }, 60s));

  const std::string printed =
      AsVrchat(tools_ / "yt-dlp.exe", "https://127.0.0.1:" + std::to_string(signal_port) + "/s/" + token);
  const std::string address = "rtspt://127.0.0.1:" + std::to_string(rtsp_port) + "/s/" + token;
  ASSERT_EQ(printed, "exit=0\n" + address + "\r\n");

  ProcessOptions player_options;
  player_options.timeout = 90s;
  mirell::testsupport::ChildProcess player(
      {"ffmpeg", "-hide_banner", "-nostdin", "-rtsp_transport", "tcp", "-i",
       "rtsp" + address.substr(5), "-t", "9", "-vf", "showinfo", "-f", "null", "-"},
      player_options);
  std::string peer;
  ASSERT_TRUE(Eventually([&] {
    const std::string text = events();
    const auto at = text.find("pending ");
    if (at == std::string::npos) return false;
    peer = text.substr(at + 8, text.find(' ', at + 8) - at - 8);
    return true;
  }, 20s));
  std::this_thread::sleep_for(2s);
  std::ofstream(host_dir.path() / "commands", std::ios::app) << "approve " << peer << '\n';
  const auto played = player.Wait(60s);
  EXPECT_FALSE(played.timed_out);
  const auto first_host = played.err.find("s:640x360");
  const auto last_card = played.err.rfind("s:1280x720");
  ASSERT_NE(last_card, std::string::npos) << played.err;
  ASSERT_NE(first_host, std::string::npos) << played.err << "\n--- host events\n" << events()
                                            << "\n--- viewer log\n" << LogsIn(ui_dir / "mirell");
  EXPECT_LT(last_card, first_host) << "the card after the host's picture";
  ui.Signal(SIGTERM);
  ui.Wait(20s);
}

TEST_F(StubUnderWine, WithNoDaemonEveryUrlGoesToTheRealResolver) {
  const std::string expected = AsVrchat(tools_ / "yt-dlp-mirell-orig.exe", "https://mirell.example/s/ABCDEFGHJKMN");
  EXPECT_EQ(expected.rfind("exit=3\n", 0), 0u) << expected;
  EXPECT_NE(expected.find("arg=[UnityPlayer/2022 (\"quoted\" and spaced)]"), std::string::npos) << expected;
  EXPECT_EQ(AsVrchat(tools_ / "yt-dlp.exe", "https://mirell.example/s/ABCDEFGHJKMN"), expected);
  EXPECT_NE(StubLog().find("no answer from 127.0.0.1:" + std::to_string(pipe_port_)), std::string::npos);
}

TEST_F(StubUnderWine, AnErrAnswerGoesToTheRealResolver) {
  mirell::resolve::ResolveService service("127.0.0.1:" + std::to_string(pipe_port_), [](const std::string&) {
    return mirell::resolve::ResolveResult{mirell::resolve::ResolveStatus::kFailed, "", "host gone"};
  });
  service.Start();
  const std::string url = "https://mirell.example/s/ABCDEFGHJKMN";
  EXPECT_EQ(AsVrchat(tools_ / "yt-dlp.exe", url), AsVrchat(tools_ / "yt-dlp-mirell-orig.exe", url));
  EXPECT_EQ(service.requests(), 1u);
  EXPECT_NE(StubLog().find("answer ERR host gone; running the original"), std::string::npos);
}

// A daemon that accepts and never answers (hung, or something else holding the port): the stub
// gives up within its bound and VRChat gets the real resolver, never a hang.
TEST_F(StubUnderWine, AnEndpointThatNeverAnswersFallsThroughWithinTheBound) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(pipe_port_);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  // The kernel completes connections into the backlog; nobody ever reads or answers.
  ASSERT_EQ(listen(listener, 16), 0);

  const std::string url = "https://mirell.example/s/ABCDEFGHJKMN";
  const std::string expected = AsVrchat(tools_ / "yt-dlp-mirell-orig.exe", url);
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(AsVrchat(tools_ / "yt-dlp.exe", url), expected);
  const auto took = std::chrono::steady_clock::now() - started;
  close(listener);
  // Five seconds of waiting for the answer, plus Wine starting two programs.
  EXPECT_GE(took, 5s);
  EXPECT_LT(took, 20s);
  EXPECT_NE(StubLog().find("no answer from 127.0.0.1:" + std::to_string(pipe_port_) +
                           "; running the original"),
            std::string::npos)
      << StubLog();
}

TEST_F(StubUnderWine, MissingConfigurationUsesTheDefaultsWithLoggingOff) {
  fs::remove(tools_ / "mirell-stub.cfg");
  // The default endpoint is 127.0.0.1:8555; whatever answers there or not, a URL that is no share
  // link ends at the real resolver.
  const std::string url = "https://example.com/x";
  EXPECT_EQ(AsVrchat(tools_ / "yt-dlp.exe", url), AsVrchat(tools_ / "yt-dlp-mirell-orig.exe", url));
  EXPECT_FALSE(fs::exists(tools_ / "mirell-stub.log"));
}

TEST_F(StubUnderWine, StubsRunningAtOnceLoseNoLogLines) {
  constexpr int kStubs = 6;
  std::vector<std::future<std::string>> runs;
  for (int i = 0; i < kStubs; ++i) {
    runs.push_back(std::async(std::launch::async, [this, i] {
      return AsVrchat(tools_ / "yt-dlp.exe", "https://example.com/" + std::to_string(i));
    }));
  }
  for (auto& run : runs) EXPECT_EQ(run.get().rfind("exit=3\n", 0), 0u);
  // Three lines per stub: asked, no answer, the original's exit.
  const std::string log = StubLog();
  std::size_t lines = 0;
  for (char c : log) lines += c == '\n' ? 1u : 0u;
  EXPECT_EQ(lines, 3u * kStubs) << log;
}

TEST_F(StubUnderWine, TheStubIsFarBelowTheStubSizeLimit) {
  EXPECT_GT(fs::file_size(MIRELL_STUB_EXE), 0u);
  EXPECT_LT(fs::file_size(MIRELL_STUB_EXE), 1048576u / 2);
}

}  // namespace
