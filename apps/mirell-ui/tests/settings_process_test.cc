// The stored network settings and the update check in the real executable: what it reads at
// start, and a check against a real HTTPS server that never delays start-up.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "installed_ui.h"
#include "mirell/testsupport/https_test_server.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"

namespace mirell::ui {
namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;

// One headless run of mirell-ui with extra arguments and a settings file written beforehand.
class SettingsRun {
 public:
  SettingsRun(const std::string& settings, std::vector<std::string> extra,
              testsupport::ProcessOptions options = {})
      : rtsp_port_(testsupport::FreeLoopbackPort()),
        pipe_("127.0.0.1:" + std::to_string(testsupport::FreeLoopbackPort())) {
    std::filesystem::create_directories(home_.path() / ".config/Mirell");
    std::ofstream(home_.path() / ".config/Mirell/Mirell.conf") << settings;
    testsupport::ProcessOptions headless = Headless(home_.path());
    for (auto& [name, value] : options.environment) headless.environment[name] = value;
    std::vector<std::string> argv{ui_.binary().string(), "--signal", kNobodysSignalUrl, "--pipe", pipe_, "--rtsp-port",
                                  std::to_string(rtsp_port_)};
    argv.insert(argv.end(), extra.begin(), extra.end());
    started_ = std::chrono::steady_clock::now();
    process_ = std::make_unique<ChildProcess>(argv, headless);
  }
  ~SettingsRun() {
    process_->Signal(SIGTERM);
    const testsupport::ProcessResult result = process_->Wait(20s);
    EXPECT_EQ(result.exit_code, 0) << "signal " << result.signal << "\n" << result.err << Log();
  }
  bool WaitForLog(const std::string& text, std::chrono::milliseconds limit = 20s) const {
    return ui_.WaitForLog(rtsp_port_, pipe_, text, limit);
  }
  std::string Log() const { return ui_.Log(rtsp_port_, pipe_); }
  std::uint16_t pipe_port() const { return testsupport::EndpointPort(pipe_); }
  std::chrono::steady_clock::time_point started() const { return started_; }

 private:
  InstalledUi ui_;
  testsupport::TempDir home_;
  std::uint16_t rtsp_port_;
  std::string pipe_;
  std::chrono::steady_clock::time_point started_;
  std::unique_ptr<ChildProcess> process_;
};

TEST(UiNetworkSettings, TheStoredServersAreReadAtStart) {
  SettingsRun run("[network]\nstun=google\nturnUrl=turn:relay.example:3478\nturnUser=bob\n", {});
  ASSERT_TRUE(run.WaitForLog("listening")) << run.Log();
  EXPECT_NE(run.Log().find("STUN google, relay turn:relay.example:3478"), std::string::npos)
      << run.Log();
}

TEST(UiNetworkSettings, AnUnknownStunChoiceIsReplacedWithAWarning) {
  SettingsRun run("[network]\nstun=opendns\n", {});
  ASSERT_TRUE(run.WaitForLog("listening")) << run.Log();
  EXPECT_NE(run.Log().find("unknown STUN choice 'opendns', using the default"), std::string::npos)
      << run.Log();
  EXPECT_NE(run.Log().find("STUN cloudflare, relay none"), std::string::npos) << run.Log();
}

class UiUpdateCheck : public ::testing::Test {
 protected:
  // Trusts the tests' authority, as a system store would trust a real one.
  testsupport::ProcessOptions Trusting() const {
    testsupport::ProcessOptions options;
    options.environment["SSL_CERT_FILE"] = site_.certificates.Path("ca.pem");
    return options;
  }

  testsupport::HttpsTestSite& site_ = testsupport::SharedHttpsTestSite();
  testsupport::HttpsTestServer* server_ = &site_.server;
};

TEST_F(UiUpdateCheck, ANewerVersionIsFoundOnceAtStart) {
  server_->Put("latest", R"({"version":"0.2","url":"https://mirell.example/get"})");
  SettingsRun run("", {"--update-url", server_->Url("/files/latest")}, Trusting());
  ASSERT_TRUE(run.WaitForLog("0.2 is available")) << run.Log();
}

TEST_F(UiUpdateCheck, AnHttpEndpointIsRefused) {
  std::string url = server_->Url("/files/latest");
  url.replace(0, 5, "http");
  SettingsRun run("", {"--update-url", url}, Trusting());
  ASSERT_TRUE(run.WaitForLog("no answer")) << run.Log();
  EXPECT_NE(run.Log().find("https get refused"), std::string::npos) << run.Log();
  EXPECT_EQ(run.Log().find("is available"), std::string::npos) << run.Log();
}

TEST_F(UiUpdateCheck, AServerThatNeverAnswersDoesNotDelayStartUp) {
  SettingsRun run("", {"--update-url", server_->Url("/silent")}, Trusting());
  ASSERT_TRUE(run.WaitForLog("listening", 20s)) << run.Log();
  // The check waits up to five seconds for an answer; resolves are served meanwhile.
  EXPECT_EQ(testsupport::ExchangeOnce(run.pipe_port(), "RESOLVE https://example.com/v.mp4\n", 3s),
            "PASS\n");
  EXPECT_EQ(run.Log().find("no answer"), std::string::npos)
      << "the server is silent; the check is still waiting";
  ASSERT_TRUE(run.WaitForLog("no answer", 15s)) << run.Log();
}

// Nothing waits for the check: quitting while it waits (or while it loads the CA store, as a
// quick quit after start does) ends in order, with exit code 0 (checked when the run ends).
TEST_F(UiUpdateCheck, QuittingWhileTheCheckWaitsEndsCleanly) {
  for (const char* path : {"/silent", "/files/latest"}) {
    SettingsRun run("", {"--update-url", server_->Url(path)}, Trusting());
    ASSERT_TRUE(run.WaitForLog("listening", 20s)) << run.Log();
  }
}

TEST_F(UiUpdateCheck, AWsSignalServerSwitchesTheCheckOff) {
  SettingsRun run("", {"--signal", "ws://127.0.0.1:9/signal"});
  ASSERT_TRUE(run.WaitForLog("listening")) << run.Log();
  EXPECT_NE(run.Log().find("update check off"), std::string::npos) << run.Log();
}

}  // namespace
}  // namespace mirell::ui
