// The stub installer on real files of the exact sizes (sparse) in a temporary Tools directory.
#include "mirell/vrchat/stub_installer.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::vrchat {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

using testsupport::MakeTaggedFile;

char TagOf(const fs::path& path) { return testsupport::FirstByteOf(path); }

class StubInstallerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    SetLogLevel(LogLevel::kDebug);
    tools_ = dir_.path() / "Tools";
    fs::create_directories(tools_);
    stub_ = dir_.path() / "mirell-stub.exe";
    MakeTaggedFile(stub_, 200'000, 'S');
  }
  void TearDown() override { SetLogLevel(LogLevel::kInfo); }

  StubInstallerConfig Config(std::string pipe = "127.0.0.1:8555") {
    StubInstallerConfig config;
    config.tools_directory = tools_;
    config.stub_source = stub_;
    config.watchdog_interval = 50ms;
    config.pipe_name = std::move(pipe);
    return config;
  }
  fs::path live() const { return tools_ / "yt-dlp.exe"; }
  fs::path backup() const { return tools_ / "yt-dlp-mirell-orig.exe"; }
  fs::path marker() const { return tools_ / "mirell-stub.state"; }
  fs::path config_file() const { return tools_ / "mirell-stub.cfg"; }
  std::string log() { return testsupport::ReadFileText(dir_.path() / "log"); }

  std::string InstallError() {
    StubInstaller installer(Config());
    try {
      installer.Install();
    } catch (const Error& error) {
      return error.what();
    }
    return {};
  }

  testsupport::TempDir dir_;
  fs::path tools_;
  fs::path stub_;
};

TEST_F(StubInstallerTest, SizeTestsAtTheirBoundaries) {
  const auto file = tools_ / "f";
  MakeTaggedFile(file, 1048576);
  EXPECT_TRUE(LooksLikeStub(file));
  EXPECT_FALSE(LooksLikeResolver(file));
  MakeTaggedFile(file, 1048577);
  EXPECT_FALSE(LooksLikeStub(file));
  EXPECT_FALSE(LooksLikeResolver(file));
  MakeTaggedFile(file, 5242879);
  EXPECT_FALSE(LooksLikeResolver(file));
  MakeTaggedFile(file, 5242880);
  EXPECT_TRUE(LooksLikeResolver(file));
  MakeTaggedFile(file, 0);
  EXPECT_FALSE(LooksLikeStub(file));
  EXPECT_FALSE(LooksLikeStub(tools_ / "missing"));
  EXPECT_FALSE(LooksLikeResolver(tools_ / "missing"));
}

TEST_F(StubInstallerTest, InstallPreservesTheResolverWritesMarkerAndConfigThenTheStub) {
  MakeTaggedFile(live(), 20 << 20, 'R');
  StubInstaller installer(Config());
  installer.Install();
  EXPECT_TRUE(installer.installed());
  EXPECT_EQ(fs::file_size(backup()), 20u << 20);
  EXPECT_EQ(TagOf(backup()), 'R');
  EXPECT_EQ(fs::file_size(live()), 200'000u);
  EXPECT_EQ(TagOf(live()), 'S');
  EXPECT_EQ(testsupport::ReadFileText(marker()),
            "mirell-stub-installed\n" + backup().string() + "\n");
  EXPECT_EQ(testsupport::ReadFileText(config_file()),
            "# Written by the mirell daemon. Removed when it shuts down.\n"
            "pipe=127.0.0.1:8555\noriginal=yt-dlp-mirell-orig.exe\nlog=1\n");
  EXPECT_NE(log().find("preserved VRChat's resolver (20 MB)"), std::string::npos);
  EXPECT_NE(log().find("installed the stub into " + tools_.string()), std::string::npos);

  installer.Restore();
  EXPECT_FALSE(installer.installed());
  EXPECT_EQ(fs::file_size(live()), 20u << 20);
  EXPECT_EQ(TagOf(live()), 'R');
  EXPECT_FALSE(fs::exists(marker()));
  EXPECT_FALSE(fs::exists(config_file()));
  EXPECT_TRUE(fs::exists(backup())) << "the preserved original stays";
}

TEST_F(StubInstallerTest, OneMebibyteLiveIsAStubOneByteMoreIsRefused) {
  MakeTaggedFile(live(), 1048577);
  EXPECT_NE(InstallError().find("yt-dlp.exe is 1048577 bytes, which is neither a stub nor a "
                                "plausible resolver. Refusing to guess."),
            std::string::npos);
  EXPECT_FALSE(fs::exists(marker()));
  EXPECT_EQ(fs::file_size(live()), 1048577u) << "nothing is touched";

  MakeTaggedFile(live(), 1048576, 'O');
  MakeTaggedFile(backup(), 6 << 20, 'R');
  StubInstaller installer(Config());
  installer.Install();
  EXPECT_EQ(TagOf(live()), 'S') << "the old stub is overwritten with the current one";
}

TEST_F(StubInstallerTest, ExactlyFiveMebibytesIsAResolver) {
  MakeTaggedFile(live(), 5242880, 'R');
  StubInstaller installer(Config());
  installer.Install();
  EXPECT_EQ(fs::file_size(backup()), 5242880u);
}

TEST_F(StubInstallerTest, EmptyLiveIsRefusedNamingZeroBytes) {
  MakeTaggedFile(live(), 0);
  EXPECT_NE(InstallError().find("yt-dlp.exe is 0 bytes"), std::string::npos);
}

TEST_F(StubInstallerTest, MissingLiveAsksToLaunchVrchatOnce) {
  EXPECT_NE(InstallError().find("check failed: std::filesystem::exists(live_, ignored) - "
                                "yt-dlp.exe is not present in " + tools_.string() +
                                " - launch VRChat once so it downloads the resolver"),
            std::string::npos);
}

TEST_F(StubInstallerTest, MissingToolsDirectoryAndStubAreRefused) {
  fs::remove_all(tools_);
  EXPECT_NE(InstallError().find("VRChat's Tools directory does not exist at " + tools_.string()),
            std::string::npos);
  fs::create_directories(tools_);
  MakeTaggedFile(live(), 6 << 20);
  fs::remove(stub_);
  EXPECT_NE(InstallError().find("the stub binary was not found at " + stub_.string()), std::string::npos);
}

TEST_F(StubInstallerTest, StubInPlaceWithUsableBackupKeepsTheBackup) {
  MakeTaggedFile(live(), 300'000, 'O');
  MakeTaggedFile(backup(), 7 << 20, 'B');
  StubInstaller installer(Config());
  installer.Install();
  EXPECT_EQ(TagOf(backup()), 'B');
  EXPECT_EQ(fs::file_size(backup()), 7u << 20);
  EXPECT_TRUE(fs::exists(marker()));
  EXPECT_TRUE(fs::exists(config_file()));
  EXPECT_EQ(TagOf(live()), 'S');
  EXPECT_NE(log().find("stub already in place; keeping the existing preserved original"), std::string::npos);
}

TEST_F(StubInstallerTest, StubInPlaceWithoutBackupIsRefused) {
  MakeTaggedFile(live(), 300'000);
  EXPECT_NE(InstallError().find("looks like our stub but there is no preserved original beside it. "
                                "Delete it and let VRChat download a fresh resolver."),
            std::string::npos);
}

TEST_F(StubInstallerTest, StubInPlaceWithOneMebibyteBackupIsRefused) {
  MakeTaggedFile(live(), 300'000);
  MakeTaggedFile(backup(), 1 << 20);
  EXPECT_NE(InstallError().find("check failed: LooksLikeResolver(backup_) - the preserved original "
                                "is 1048576 bytes, which is not a real resolver"),
            std::string::npos);
  EXPECT_FALSE(fs::exists(marker()));
}

TEST_F(StubInstallerTest, RestoreLeavesAResolverAloneAndStillCleansUp) {
  MakeTaggedFile(live(), 9 << 20, 'N');
  MakeTaggedFile(marker(), 10);
  MakeTaggedFile(config_file(), 10);
  StubInstaller installer(Config());
  installer.Restore();
  EXPECT_EQ(TagOf(live()), 'N');
  EXPECT_EQ(fs::file_size(live()), 9u << 20);
  EXPECT_FALSE(fs::exists(marker()));
  EXPECT_FALSE(fs::exists(config_file()));
  EXPECT_NE(log().find("yt-dlp.exe is not our stub; VRChat has already replaced it"), std::string::npos);
}

TEST_F(StubInstallerTest, RestoreWithStubAndNoBackupRemovesTheStub) {
  MakeTaggedFile(live(), 300'000);
  StubInstaller installer(Config());
  installer.Restore();
  EXPECT_FALSE(fs::exists(live()));
  EXPECT_NE(log().find("removed the stub but found no usable original"), std::string::npos);
}

TEST_F(StubInstallerTest, RecoverWithoutMarkerReturnsFalseAndTouchesNothing) {
  MakeTaggedFile(live(), 300'000, 'O');
  MakeTaggedFile(config_file(), 5);
  StubInstaller installer(Config());
  EXPECT_FALSE(installer.RecoverFromPreviousRun());
  EXPECT_EQ(TagOf(live()), 'O');
  EXPECT_TRUE(fs::exists(config_file()));
}

TEST_F(StubInstallerTest, RecoverWithMarkerRestores) {
  MakeTaggedFile(live(), 300'000, 'O');
  MakeTaggedFile(backup(), 6 << 20, 'R');
  MakeTaggedFile(marker(), 5);
  StubInstaller installer(Config());
  EXPECT_TRUE(installer.RecoverFromPreviousRun());
  EXPECT_EQ(TagOf(live()), 'R');
  EXPECT_FALSE(fs::exists(marker()));
  EXPECT_NE(log().find("a previous run left the stub installed"), std::string::npos);
}

TEST_F(StubInstallerTest, EmptyPipeLeavesOutThePipeLine) {
  MakeTaggedFile(live(), 6 << 20);
  auto config = Config("");
  config.stub_logging = false;
  StubInstaller installer(config);
  installer.Install();
  EXPECT_EQ(testsupport::ReadFileText(config_file()),
            "# Written by the mirell daemon. Removed when it shuts down.\n"
            "original=yt-dlp-mirell-orig.exe\nlog=0\n");
}

TEST_F(StubInstallerTest, WatchdogBeforeInstallRaises) {
  StubInstaller installer(Config());
  try {
    installer.StartWatchdog();
    FAIL() << "started a watchdog with nothing to watch";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find(
                  "check failed: installed_ - the watchdog has nothing to watch until the stub is installed"),
              std::string::npos);
  }
}

TEST_F(StubInstallerTest, WatchdogPutsTheStubBackAndPreservesAFreshResolver) {
  MakeTaggedFile(live(), 6 << 20, 'R');
  StubInstaller installer(Config());
  installer.Install();
  installer.StartWatchdog();
  // VRChat puts a fresh resolver in the stub's place. Whole at once: written in place, the
  // watchdog (every 50 ms) may meet it half written, which is the download-in-progress case below.
  const fs::path downloaded = tools_ / "download.part";
  MakeTaggedFile(downloaded, 8 << 20, 'F');
  fs::rename(downloaded, live());
  const auto deadline = std::chrono::steady_clock::now() + 2s;
  while (installer.reapplied() == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(installer.reapplied(), 1u);
  EXPECT_EQ(TagOf(live()), 'S');
  EXPECT_EQ(TagOf(backup()), 'F');
  EXPECT_EQ(fs::file_size(backup()), 8u << 20);
  EXPECT_NE(log().find("VRChat replaced the stub; re-applied (#1)"), std::string::npos);
  installer.StopWatchdog();
  installer.Restore();
  EXPECT_EQ(TagOf(live()), 'F') << "the fresh resolver is what comes back";
}

TEST_F(StubInstallerTest, WatchdogFindingLiveMissingWritesTheStubWithoutTouchingTheBackup) {
  MakeTaggedFile(live(), 6 << 20, 'R');
  StubInstaller installer(Config());
  installer.Install();
  installer.StartWatchdog();
  fs::remove(live());
  fs::remove(config_file());
  const auto deadline = std::chrono::steady_clock::now() + 2s;
  while (installer.reapplied() == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  installer.StopWatchdog();
  EXPECT_EQ(TagOf(live()), 'S');
  EXPECT_EQ(TagOf(backup()), 'R');
  EXPECT_TRUE(fs::exists(config_file())) << "the configuration is written again";
}

TEST_F(StubInstallerTest, WatchdogLeavesADownloadInProgressUnpreserved) {
  MakeTaggedFile(live(), 6 << 20, 'R');
  StubInstaller installer(Config());
  installer.Install();
  installer.StartWatchdog();
  MakeTaggedFile(live(), 2 << 20, 'P');  // Neither a stub nor a resolver: half downloaded.
  const auto deadline = std::chrono::steady_clock::now() + 2s;
  while (installer.reapplied() == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  installer.StopWatchdog();
  EXPECT_EQ(TagOf(backup()), 'R');
  EXPECT_EQ(TagOf(live()), 'S');
}

TEST_F(StubInstallerTest, DestructorRestoresWhatItInstalled) {
  MakeTaggedFile(live(), 6 << 20, 'R');
  {
    StubInstaller installer(Config());
    installer.Install();
    installer.StartWatchdog();
  }
  EXPECT_EQ(TagOf(live()), 'R');
  EXPECT_FALSE(fs::exists(marker()));
}

}  // namespace
}  // namespace mirell::vrchat
