#include "command_line_share.h"

#include <gtest/gtest.h>

#include <vector>

namespace mirell::ui {
namespace {

std::vector<capture::CapturableWindow> Windows() {
  return {{0x100, "Terminal", "xterm", 11, 800, 600}, {0x200, "Mirell Demo - moving bars", "demo", 22, 640, 360}};
}

std::vector<capture::CapturableMonitor> Monitors() {
  return {{0, "Primary", "DP-1", 0, 0, 1920, 1080, true}, {1, "Side", "HDMI-1", 1920, 0, 1280, 1024, false}};
}

TEST(ResolveShareTarget, AWindowIsFoundByPartOfItsTitleAndBringsItsProcess) {
  ShareOptions options;
  options.window_title = "mirell demo";
  const auto target = ResolveShareTarget(options, Windows(), Monitors());
  EXPECT_EQ(target.capture.kind, capture::CaptureKind::kWindow);
  EXPECT_EQ(target.capture.window, 0x200u);
  EXPECT_EQ(target.label, "Mirell Demo - moving bars");
  EXPECT_EQ(target.process_id, 22u);
  EXPECT_FALSE(target.whole_mix);
}

TEST(ResolveShareTarget, AMonitorIsSharedWithTheWholeMix) {
  ShareOptions options;
  options.monitor = 1;
  const auto target = ResolveShareTarget(options, Windows(), Monitors());
  EXPECT_EQ(target.capture.kind, capture::CaptureKind::kMonitor);
  EXPECT_EQ(target.capture.monitor, 1u);
  EXPECT_EQ(target.label, "Monitor 2 (Side)");
  EXPECT_TRUE(target.whole_mix);
}

TEST(ResolveShareTarget, NoMatchingWindowSaysWhatCouldBeShared) {
  ShareOptions options;
  options.window_title = "Browser";
  try {
    ResolveShareTarget(options, Windows(), Monitors());
    FAIL() << "a missing window must not become another share";
  } catch (const std::exception& error) {
    EXPECT_NE(std::string(error.what()).find(
                  "no window's title contains \"Browser\"; the windows that can be shared: \"Terminal\", "
                  "\"Mirell Demo - moving bars\""),
              std::string::npos)
        << error.what();
  }
  EXPECT_ANY_THROW(ResolveShareTarget(options, {}, Monitors()));
}

TEST(ResolveShareTarget, AMonitorThatIsNotThereIsAnError) {
  ShareOptions options;
  options.monitor = 2;
  try {
    ResolveShareTarget(options, Windows(), Monitors());
    FAIL() << "monitor 2 does not exist";
  } catch (const std::exception& error) {
    EXPECT_NE(std::string(error.what()).find("there is no monitor 2: this display has 2 (0 is the first)"),
              std::string::npos)
        << error.what();
  }
}

}  // namespace
}  // namespace mirell::ui
