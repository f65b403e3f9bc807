#include "restore_mode.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string_view>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"

namespace mirell::ui {
namespace {

namespace fs = std::filesystem;

using testsupport::MakeTaggedFile;

char TagOf(const fs::path& path) { return testsupport::FirstByteOf(path); }

class RestoreModeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* tmpdir = std::getenv("TMPDIR"); tmpdir != nullptr) {
      saved_tmpdir_.emplace(std::string_view(tmpdir));
    }
    setenv("TMPDIR", temporary_.path().c_str(), 1);
    setenv("HOME", home_.path().c_str(), 1);
    SetLogLevel(LogLevel::kInfo);
    tools_ = home_.path() / ".local/share/Steam/steamapps/compatdata/438100/pfx/drive_c/users/"
                           "steamuser/AppData/LocalLow/VRChat/VRChat/Tools";
    fs::create_directories(tools_);
  }
  void TearDown() override {
    // The fixture's own temporary directories are made and removed under the original TMPDIR.
    if (saved_tmpdir_) {
      setenv("TMPDIR", saved_tmpdir_->c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
  }
  int Run(const std::optional<std::string>& tools_dir) { return RunRestoreMode(tools_dir); }
  std::string log() { return testsupport::ReadFileText(temporary_.path() / "mirell-restore.log"); }

  std::optional<std::string> saved_tmpdir_;
  testsupport::TempDir temporary_;
  testsupport::TempDir home_;
  fs::path tools_;
};

TEST_F(RestoreModeTest, NeverInstalledFindsNothingToDoAndRemovesNoOriginal) {
  MakeTaggedFile(tools_ / "yt-dlp.exe", 9 << 20, 'R');
  EXPECT_EQ(Run(tools_.string()), 0);
  EXPECT_EQ(TagOf(tools_ / "yt-dlp.exe"), 'R');
  EXPECT_NE(log().find("VRChat's resolver is back in place"), std::string::npos);
}

TEST_F(RestoreModeTest, LiveStillOursKeepsTheOriginalWithAWarning) {
  MakeTaggedFile(tools_ / "yt-dlp.exe", 40'000, 'S');
  MakeTaggedFile(tools_ / "yt-dlp-mirell-orig.exe", 2 << 20, 'P');  // Not usable: the stub goes.
  EXPECT_EQ(Run(tools_.string()), 0);
  EXPECT_FALSE(fs::exists(tools_ / "yt-dlp.exe"));
  EXPECT_TRUE(fs::exists(tools_ / "yt-dlp-mirell-orig.exe"));
  EXPECT_NE(log().find("keeping the preserved original, the live resolver is still ours"), std::string::npos);
}

TEST_F(RestoreModeTest, WithoutAToolsDirVRChatsOwnIsFound) {
  MakeTaggedFile(tools_ / "yt-dlp.exe", 40'000, 'S');
  MakeTaggedFile(tools_ / "yt-dlp-mirell-orig.exe", 6 << 20, 'R');
  MakeTaggedFile(tools_ / "mirell-stub.state", 3, 'm');
  EXPECT_EQ(Run(std::nullopt), 0);
  EXPECT_EQ(TagOf(tools_ / "yt-dlp.exe"), 'R');
  EXPECT_FALSE(fs::exists(tools_ / "mirell-stub.state"));
  EXPECT_FALSE(fs::exists(tools_ / "yt-dlp-mirell-orig.exe"));
}

TEST_F(RestoreModeTest, MissingDirectoryReturnsZeroWithoutTouchingAnything) {
  EXPECT_EQ(Run((temporary_.path() / "nowhere").string()), 0);
  EXPECT_FALSE(fs::exists(temporary_.path() / "nowhere"));
}

TEST_F(RestoreModeTest, NoVrchatAtAllIsAFailureWithTheReason) {
  fs::remove_all(home_.path() / ".local");
  EXPECT_EQ(Run(std::nullopt), 1);
  EXPECT_NE(log().find("could not determine VRChat's Tools directory"), std::string::npos);
}

}  // namespace
}  // namespace mirell::ui
