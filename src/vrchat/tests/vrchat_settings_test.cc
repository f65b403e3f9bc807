// VRChat's untrusted-URL preference: the decision from a key's values, Wine's registry text as it
// stands in a Proton prefix's user.reg, and the file itself in a temporary home, also while it is
// being rewritten.
#include "mirell/vrchat/vrchat_settings.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/testsupport/subprocess.h"
#include "wine_registry.h"

namespace mirell::vrchat {
namespace {

namespace fs = std::filesystem;

RegistryValue Dword(std::string name, std::uint32_t number) {
  RegistryValue value{std::move(name), RegistryValue::kDword, std::string(4, '\0')};
  for (int i = 0; i < 4; ++i) value.data[static_cast<std::size_t>(i)] = static_cast<char>((number >> (8 * i)) & 0xFF);
  return value;
}

RegistryValue Text(std::string name, std::string text) { return {std::move(name), 1, std::move(text)}; }

using Values = std::vector<RegistryValue>;
constexpr const char* kName = "VRC_ALLOW_UNTRUSTED_URL_h3795044449";

class UntrustedUrlsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    saved_level_ = GetLogLevel();
    SetLogLevel(LogLevel::kDebug);
  }
  void TearDown() override { SetLogLevel(saved_level_); }
  bool Logged(const std::string& text) const {
    return testsupport::ReadFileText(dir_.path() / "log").find(text) != std::string::npos;
  }

  testsupport::TempDir dir_;
  LogLevel saved_level_ = LogLevel::kWarn;
};

TEST_F(UntrustedUrlsTest, NoKeyIsUnknown) {
  EXPECT_EQ(UntrustedUrlsFromKey(std::nullopt), UntrustedUrls::kUnknown);
  EXPECT_TRUE(Logged("no preferences key, cannot read the untrusted-URL setting"));
}

TEST_F(UntrustedUrlsTest, TheExactNameDecides) {
  EXPECT_EQ(UntrustedUrlsFromKey(Values{Dword("Other", 0), Dword(kName, 1)}), UntrustedUrls::kAllowed);
  EXPECT_EQ(UntrustedUrlsFromKey(Values{Dword(kName, 0)}), UntrustedUrls::kBlocked);
  EXPECT_EQ(UntrustedUrlsFromKey(Values{Dword(kName, 7)}), UntrustedUrls::kAllowed);
  // The registry finds a name in any letter case.
  EXPECT_EQ(UntrustedUrlsFromKey(Values{Dword("vrc_allow_untrusted_url_H3795044449", 1)}), UntrustedUrls::kAllowed);
}

TEST_F(UntrustedUrlsTest, NeverWrittenIsOff) {
  EXPECT_EQ(UntrustedUrlsFromKey(Values{Dword("UnityGraphicsQuality_h1669003810", 3)}), UntrustedUrls::kBlocked);
  EXPECT_EQ(UntrustedUrlsFromKey(Values{}), UntrustedUrls::kBlocked);
  EXPECT_TRUE(Logged("the untrusted-URL setting has never been written; it is off"));
}

TEST_F(UntrustedUrlsTest, AnotherHashSuffixIsFound) {
  EXPECT_EQ(UntrustedUrlsFromKey(Values{Dword("VRC_ALLOW_UNTRUSTED_URL_h12345", 1)}), UntrustedUrls::kAllowed);
  EXPECT_EQ(UntrustedUrlsFromKey(Values{Dword("VRC_ALLOW_UNTRUSTED_URL_h12345", 0)}), UntrustedUrls::kBlocked);
  // Only the first name with the prefix is read.
  EXPECT_EQ(UntrustedUrlsFromKey(Values{Dword("VRC_ALLOW_UNTRUSTED_URL_h1", 0), Dword("VRC_ALLOW_UNTRUSTED_URL_h2", 1)}),
            UntrustedUrls::kBlocked);
}

TEST_F(UntrustedUrlsTest, TheWrongTypeUnderTheExactNameIsFoundAgainByTheSearchAndUnknown) {
  EXPECT_EQ(UntrustedUrlsFromKey(Values{Text(kName, "1")}), UntrustedUrls::kUnknown);
  EXPECT_TRUE(Logged("the untrusted-URL setting is not a number we understand"));
  // A number of the wrong size is no number either.
  EXPECT_EQ(UntrustedUrlsFromKey(Values{RegistryValue{kName, RegistryValue::kDword, "\x01"}}), UntrustedUrls::kUnknown);
}

TEST(UntrustedUrlsSettingPath, NamesTheMenus) {
  EXPECT_EQ(UntrustedUrlsSettingPath(), "Settings, then Comfort & Safety, then Allow Untrusted URLs");
}

// A user.reg as Wine writes it, with VRChat's key among others.
std::string UserReg(const std::string& vrchat_values) {
  return "WINE REGISTRY Version 2\n"
         ";; All keys relative to \\\\User\\\\S-1-5-21-0-0-0-1000\n"
         "\n"
         "#arch=win64\n"
         "\n"
         "[Software\\\\Valve\\\\Steam] 1700000000\n"
         "#time=1da1b2c3d4e5f60\n"
         "\"" + std::string(kName) + "\"=dword:00000001\n"
         "\n"
         "[Software\\\\VRChat\\\\VRChat] 1700000100\n"
         "#time=1da1b2c3d4e5f61\n"
         "\"UnityGraphicsQuality_h1669003810\"=dword:00000003\n"
         "\"VRC_LAST_WORLD_h123\"=hex:77,00,72,00,\\\n"
         "  6c,00,64,00\n" +
         vrchat_values +
         "\"Screenmanager Resolution Width_h182942802\"=dword:00000780\n"
         "\n"
         "[Software\\\\Wine] 1700000200\n"
         "\"Version\"=\"win10\"\n";
}

TEST(WineRegistry, ValuesOfOneKeyWithTheirTypes) {
  const auto values = ReadWineRegistryKey(
      UserReg("\"Quote \\\"and\\\\ slash\"=\"text \\\"quoted\\\"\"\n@=\"default\"\n\"Wide\"=str(2):\"%PATH%\"\n"
              "\"Q\"=hex(b):01,00,00,00,00,00,00,00\n\"Caf\\x00e9\"=dword:0000000a\n"),
      "Software\\VRChat\\VRChat");
  ASSERT_TRUE(values);
  ASSERT_EQ(values->size(), 8u);
  EXPECT_EQ((*values)[0].name, "UnityGraphicsQuality_h1669003810");
  EXPECT_EQ((*values)[0].type, RegistryValue::kDword);
  EXPECT_EQ((*values)[0].data, std::string("\x03\x00\x00\x00", 4));
  EXPECT_EQ((*values)[1].name, "VRC_LAST_WORLD_h123");
  EXPECT_EQ((*values)[1].type, 3u);
  EXPECT_EQ((*values)[1].data, std::string("w\0r\0l\0d\0", 8)) << "a value continued on the next line";
  EXPECT_EQ((*values)[2].name, "Quote \"and\\ slash");
  EXPECT_EQ((*values)[2].type, 1u);
  EXPECT_EQ((*values)[2].data, "text \"quoted\"");
  EXPECT_EQ((*values)[3].name, "");
  EXPECT_EQ((*values)[3].data, "default");
  EXPECT_EQ((*values)[4].type, 2u);
  EXPECT_EQ((*values)[4].data, "%PATH%");
  EXPECT_EQ((*values)[5].type, 11u);
  EXPECT_EQ((*values)[5].data.size(), 8u);
  EXPECT_EQ((*values)[6].name, "Caf\xc3\xa9");
  EXPECT_EQ((*values)[7].name, "Screenmanager Resolution Width_h182942802");
}

TEST(WineRegistry, NoSectionIsNoKeyAndAnEmptySectionHasNoValues) {
  EXPECT_FALSE(ReadWineRegistryKey("WINE REGISTRY Version 2\n[Software\\\\Wine] 1\n", "Software\\VRChat\\VRChat"));
  EXPECT_FALSE(ReadWineRegistryKey("", "Software\\VRChat\\VRChat"));
  const auto empty = ReadWineRegistryKey("[Software\\\\VRChat\\\\VRChat] 1\n#time=1\n\n", "Software\\VRChat\\VRChat");
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->empty());
  // Key names are compared without letter case, and a sub-key is another key.
  EXPECT_TRUE(ReadWineRegistryKey("[software\\\\vrchat\\\\vrchat] 1\n", "Software\\VRChat\\VRChat"));
  EXPECT_FALSE(ReadWineRegistryKey("[Software\\\\VRChat\\\\VRChat\\\\Sub] 1\n", "Software\\VRChat\\VRChat"));
}

TEST(WineRegistry, LinesItCannotReadAreLeftOut) {
  const auto values = ReadWineRegistryKey("[Software\\\\VRChat\\\\VRChat] 1\r\n"
                                          "\"Unterminated=dword:00000001\r\n"
                                          "\"Bad hex\"=hex:0g,01\r\n"
                                          "\"Strange\"=what:1\r\n"
                                          "garbage\r\n"
                                          "\"Bad number\"=dword:xyz\r\n"
                                          "\"Good\"=dword:00000001\r\n",
                                          "Software\\VRChat\\VRChat");
  ASSERT_TRUE(values);
  ASSERT_EQ(values->size(), 2u);
  EXPECT_EQ((*values)[0].name, "Bad number");
  EXPECT_EQ((*values)[0].type, RegistryValue::kDword);
  EXPECT_TRUE((*values)[0].data.empty()) << "kept as a number that is not one";
  EXPECT_EQ((*values)[1].name, "Good");
}

// The whole path: a Proton prefix in a temporary home.
class VRChatPreferencesFile : public UntrustedUrlsTest {
 protected:
  void SetUp() override {
    UntrustedUrlsTest::SetUp();
    saved_home_ = getenv("HOME") != nullptr ? getenv("HOME") : "";
    setenv("HOME", dir_.path().c_str(), 1);
    fs::create_directories(prefix_);
  }
  void TearDown() override {
    setenv("HOME", saved_home_.c_str(), 1);
    UntrustedUrlsTest::TearDown();
  }
  void Write(const std::string& text) const { std::ofstream(prefix_ / "user.reg", std::ios::trunc) << text; }

  fs::path prefix_ = dir_.path() / ".local/share/Steam/steamapps/compatdata/438100/pfx";
  std::string saved_home_;
};

TEST_F(VRChatPreferencesFile, OnOffNeverWrittenWrongTypeAndAnotherSuffix) {
  EXPECT_EQ(AllowUntrustedUrls(), UntrustedUrls::kUnknown) << "no user.reg";
  Write(UserReg("\"" + std::string(kName) + "\"=dword:00000001\n"));
  EXPECT_EQ(AllowUntrustedUrls(), UntrustedUrls::kAllowed);
  Write(UserReg("\"" + std::string(kName) + "\"=dword:00000000\n"));
  EXPECT_EQ(AllowUntrustedUrls(), UntrustedUrls::kBlocked);
  Write(UserReg(""));
  EXPECT_EQ(AllowUntrustedUrls(), UntrustedUrls::kBlocked) << "never written, though another key has the name";
  Write(UserReg("\"" + std::string(kName) + "\"=\"1\"\n"));
  EXPECT_EQ(AllowUntrustedUrls(), UntrustedUrls::kUnknown);
  Write(UserReg("\"VRC_ALLOW_UNTRUSTED_URL_h2048\"=dword:00000001\n"));
  EXPECT_EQ(AllowUntrustedUrls(), UntrustedUrls::kAllowed);
  Write("WINE REGISTRY Version 2\n[Software\\\\Wine] 1\n");
  EXPECT_EQ(AllowUntrustedUrls(), UntrustedUrls::kUnknown) << "no section";
}

// Wine saves by writing a new file and renaming it over the old: every read sees one whole file.
TEST_F(VRChatPreferencesFile, AFileRewrittenWhileReadGivesTheSameAnswerEveryTime) {
  Write(UserReg("\"" + std::string(kName) + "\"=dword:00000001\n"));
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; !done; ++i) {
      const auto temporary = prefix_ / "reg1a2b.tmp";
      std::string padding;
      for (int j = 0; j < i % 50; ++j) padding += "\"Padding" + std::to_string(j) + "\"=dword:00000000\n";
      std::ofstream(temporary, std::ios::trunc) << UserReg(padding + "\"" + std::string(kName) + "\"=dword:00000001\n");
      fs::rename(temporary, prefix_ / "user.reg");
    }
  });
  int allowed = 0;
  for (int i = 0; i < 300; ++i) allowed += AllowUntrustedUrls() == UntrustedUrls::kAllowed ? 1 : 0;
  done = true;
  writer.join();
  EXPECT_EQ(allowed, 300);
}

}  // namespace
}  // namespace mirell::vrchat
