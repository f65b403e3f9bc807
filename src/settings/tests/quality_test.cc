// The quality store: values read back through QSettings from a file in a temporary
// configuration directory, with the ranges, the defaults and the presets of the settings.
#include <gtest/gtest.h>


#include "mirell/base/logging.h"
#include "mirell/settings/quality.h"
#include "mirell/testsupport/subprocess.h"
#include "temporary_settings.h"

namespace mirell::settings {
namespace {

class QualityStore : public TemporarySettings {
 protected:
  void SetUp() override {
    TemporarySettings::SetUp();
    ASSERT_TRUE(SetLogFile(log_dir_.path() / "log"));
  }
  std::string Log() const { return testsupport::ReadFileText(log_dir_.path() / "log"); }

  testsupport::TempDir log_dir_;
};

TEST_F(QualityStore, NothingStoredGivesTheDefaults) {
  const encode::ShareQuality loaded = LoadQualitySettings();
  EXPECT_EQ(loaded.width, 1280u);
  EXPECT_EQ(loaded.height, 720u);
  EXPECT_EQ(loaded.fps, 30u);
  EXPECT_EQ(loaded.video_kbps, 6000u);
  EXPECT_EQ(loaded.audio_kbps, 128u);
  EXPECT_FALSE(loaded.mono);
}

TEST_F(QualityStore, WhatIsSavedIsLoadedInTheConfigurationFileOfMirell) {
  SaveQualitySettings({1920, 1080, 60, 16000, 192, true});
  const encode::ShareQuality loaded = LoadQualitySettings();
  EXPECT_EQ(loaded.width, 1920u);
  EXPECT_EQ(loaded.height, 1080u);
  EXPECT_EQ(loaded.fps, 60u);
  EXPECT_EQ(loaded.video_kbps, 16000u);
  EXPECT_EQ(loaded.audio_kbps, 192u);
  EXPECT_TRUE(loaded.mono);
  const std::string file = testsupport::ReadFileText(ConfigDirectory() / "Mirell" / "Mirell.conf");
  EXPECT_NE(file.find("[quality]"), std::string::npos) << file;
  EXPECT_NE(file.find("videoKbps=16000"), std::string::npos) << file;
}

TEST_F(QualityStore, AnOddWidthIsRoundedDownToEven) {
  Store("quality/width", 1281);
  Store("quality/height", 721);
  EXPECT_EQ(LoadQualitySettings().width, 1280u);
  EXPECT_EQ(LoadQualitySettings().height, 720u);
}

TEST_F(QualityStore, AnFpsOutOfRangeIsTheDefaultAndSaysSo) {
  Store("quality/fps", 5);
  EXPECT_EQ(LoadQualitySettings().fps, 30u);
  EXPECT_NE(Log().find("fps of 5 is outside 10-60, using 30"), std::string::npos) << Log();
}

TEST_F(QualityStore, TooLargeIsTheDefaultNotTheNearestBound) {
  Store("quality/width", 5000);
  Store("quality/videoKbps", 100);
  const encode::ShareQuality loaded = LoadQualitySettings();
  EXPECT_EQ(loaded.width, 1280u);
  EXPECT_EQ(loaded.video_kbps, 6000u);
  EXPECT_NE(Log().find("width of 5000 is outside 160-3840, using 1280"), std::string::npos) << Log();
  EXPECT_NE(Log().find("video bitrate of 100 is outside 200-25000, using 6000"), std::string::npos);
}

TEST_F(QualityStore, SoundSnapsToTheNearestPresetTheLowerOnATie) {
  Store("quality/audioKbps", 112);  // As far from 96 as from 128.
  EXPECT_EQ(LoadQualitySettings().audio_kbps, 96u);
  Store("quality/audioKbps", 150);
  EXPECT_EQ(LoadQualitySettings().audio_kbps, 160u);
  Store("quality/audioKbps", 1000);
  EXPECT_EQ(LoadQualitySettings().audio_kbps, 192u);
  EXPECT_EQ(Log().find("outside"), std::string::npos) << "snapping is silent";
}

TEST_F(QualityStore, AVideoRateThatIsNoPresetLoadsUnchanged) {
  Store("quality/videoKbps", 7000);
  EXPECT_EQ(LoadQualitySettings().video_kbps, 7000u);
}

TEST_F(QualityStore, ACorruptValueReadsAsZeroAndIsReplaced) {
  Store("quality/height", "tall");
  EXPECT_EQ(LoadQualitySettings().height, 720u);
}

TEST(QualityPresets, TheDialogsChoices) {
  ASSERT_EQ(SizePresets().size(), 5u);
  EXPECT_EQ(SizePresets()[3].text, "1920 x 1080");
  EXPECT_EQ(FpsPresets(), (std::vector<std::uint32_t>{24, 30, 60}));
  EXPECT_EQ(VideoKbpsPresets(), (std::vector<std::uint32_t>{1500, 3000, 6000, 10000, 16000, 25000}));
  EXPECT_EQ(AudioKbpsPresets(), (std::vector<std::uint32_t>{96, 128, 160, 192}));
}

}  // namespace
}  // namespace mirell::settings
