#include "mirell/vrchat/vrchat_paths.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "mirell/base/error.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/vrchat/stub_installer.h"

namespace mirell::vrchat {
namespace {

namespace fs = std::filesystem;

fs::path ToolsUnder(const fs::path& library) {
  return library / "steamapps/compatdata/438100/pfx/drive_c/users/steamuser/AppData/LocalLow/VRChat/VRChat/Tools";
}

class VrchatPathsTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("HOME", home_.path().c_str(), 1); }
  testsupport::TempDir home_;
};

TEST(LibraryFolders, ParsesEveryPathWithEscapes) {
  const std::string vdf = R"("libraryfolders"
{
	"0"
	{
		"path"		"/home/me/.local/share/Steam"
		"label"		""
		"apps"
		{
			"438100"		"123"
		}
	}
	"1"
	{
		"path"		"/mnt/games/Steam \"Library\""
	}
})";
  const auto paths = ParseLibraryFolders(vdf);
  ASSERT_EQ(paths.size(), 2u);
  EXPECT_EQ(paths[0], "/home/me/.local/share/Steam");
  EXPECT_EQ(paths[1], "/mnt/games/Steam \"Library\"");
  EXPECT_TRUE(ParseLibraryFolders("").empty());
}

TEST_F(VrchatPathsTest, NoSteamMeansNoToolsDirectoryAndTheInstallerRefuses) {
  EXPECT_TRUE(DefaultToolsDirectory().empty());
  try {
    StubInstaller installer(StubInstallerConfig{});
    FAIL() << "made an installer with no Tools directory";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("could not determine VRChat's Tools directory"), std::string::npos);
  }
}

TEST_F(VrchatPathsTest, FindsToolsInTheNativeSteamRoot) {
  const auto tools = ToolsUnder(home_.path() / ".local/share/Steam");
  fs::create_directories(tools);
  EXPECT_EQ(DefaultToolsDirectory(), tools);
}

TEST_F(VrchatPathsTest, FindsToolsInTheFlatpakSteam) {
  const auto tools = ToolsUnder(home_.path() / ".var/app/com.valvesoftware.Steam/.local/share/Steam");
  fs::create_directories(tools);
  EXPECT_EQ(DefaultToolsDirectory(), tools);
}

TEST_F(VrchatPathsTest, FindsToolsInALibraryListedByTheSteamRoot) {
  const auto root = home_.path() / ".steam/steam";
  fs::create_directories(root / "steamapps");
  const auto library = home_.path() / "games" / "Steam Library";
  std::ofstream(root / "steamapps/libraryfolders.vdf")
      << "\"libraryfolders\"\n{\n\t\"0\"\n\t{\n\t\t\"path\"\t\t\"" << root.string()
      << "\"\n\t}\n\t\"1\"\n\t{\n\t\t\"path\"\t\t\"" << library.string() << "\"\n\t}\n}\n";
  const auto tools = ToolsUnder(library);
  fs::create_directories(tools);
  EXPECT_EQ(DefaultToolsDirectory(), tools);
  const auto libraries = SteamLibraries();
  ASSERT_EQ(libraries.size(), 2u);
  EXPECT_EQ(libraries[0], root);
}

TEST_F(VrchatPathsTest, TheDotSteamLinkAndTheRootItPointsToCountOnce) {
  const auto root = home_.path() / ".local/share/Steam";
  fs::create_directories(root);
  fs::create_directories(home_.path() / ".steam");
  fs::create_directory_symlink(root, home_.path() / ".steam/steam");
  EXPECT_EQ(SteamLibraries().size(), 1u);
}

TEST_F(VrchatPathsTest, VRChatsFolderAndPreferencesAreFoundInTheSamePrefix) {
  EXPECT_TRUE(DefaultVRChatDirectory().empty());
  EXPECT_TRUE(DefaultVRChatPreferencesFile().empty());
  const auto library = home_.path() / ".local/share/Steam";
  const auto tools = ToolsUnder(library);
  fs::create_directories(tools);
  EXPECT_EQ(DefaultVRChatDirectory(), tools.parent_path());
  EXPECT_TRUE(DefaultVRChatPreferencesFile().empty()) << "no user.reg yet";
  const auto registry = library / "steamapps/compatdata/438100/pfx/user.reg";
  std::ofstream(registry) << "WINE REGISTRY Version 2\n";
  EXPECT_EQ(DefaultVRChatPreferencesFile(), registry);
}

}  // namespace
}  // namespace mirell::vrchat
