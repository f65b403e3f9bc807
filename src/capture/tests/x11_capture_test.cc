// The capture targets and the capturer on a private X server with a window manager, against
// windows of known colours painted by a process of their own (mirell_test_window).
#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>

#include "mirell/base/clock.h"
#include "mirell/base/error.h"
#include "mirell/base/logging.h"
#include "mirell/capture/capture_targets.h"
#include "mirell/capture/capturer.h"
#include "mirell/capture/thumbnails.h"
#include "mirell/testsupport/eventually.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/xvfb.h"
#include "test_window.h"

namespace mirell::capture {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kRed = 0xFF0000;
constexpr std::uint32_t kGreen = 0x00FF00;

using testsupport::Eventually;

// What a capturer delivered, kept under a lock: the callback runs on the capture thread.
class FrameLog {
 public:
  ICapturer::FrameCallback Callback() {
    return [this](const CapturedFrame& frame) {
      std::lock_guard lock(mutex_);
      ++count_;
      width_ = frame.picture.width;
      height_ = frame.picture.height;
      timestamps_.push_back(frame.timestamp);
      pixels_.clear();
      for (std::uint32_t y = 0; y < frame.picture.height; ++y) {
        const std::uint8_t* row = frame.picture.pixels + y * frame.picture.stride;
        pixels_.insert(pixels_.end(), row, row + frame.picture.width * 4);
      }
    };
  }
  int count() const {
    std::lock_guard lock(mutex_);
    return count_;
  }
  std::pair<std::uint32_t, std::uint32_t> size() const {
    std::lock_guard lock(mutex_);
    return {width_, height_};
  }
  // 0xRRGGBB of the last frame's pixel.
  std::uint32_t RgbAt(std::uint32_t x, std::uint32_t y) const {
    std::lock_guard lock(mutex_);
    const std::uint8_t* p = &pixels_.at((static_cast<std::size_t>(y) * width_ + x) * 4);
    return (std::uint32_t{p[2]} << 16) | (std::uint32_t{p[1]} << 8) | p[0];
  }
  // Pixels of the last frame that are not `rgb`.
  std::size_t CountOtherThan(std::uint32_t rgb) const {
    std::lock_guard lock(mutex_);
    std::size_t other = 0;
    for (std::size_t i = 0; i + 3 < pixels_.size(); i += 4) {
      const std::uint32_t value = (std::uint32_t{pixels_[i + 2]} << 16) | (std::uint32_t{pixels_[i + 1]} << 8) | pixels_[i];
      if (value != rgb) ++other;
    }
    return other;
  }
  std::vector<std::int64_t> timestamps() const {
    std::lock_guard lock(mutex_);
    return timestamps_;
  }

 private:
  mutable std::mutex mutex_;
  int count_ = 0;
  std::uint32_t width_ = 0, height_ = 0;
  std::vector<std::uint8_t> pixels_;
  std::vector<std::int64_t> timestamps_;
};

class X11CaptureTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    testsupport::XvfbOptions options;
    options.width = 2560;
    options.height = 720;
    options.window_manager = true;
    display_ = new testsupport::XvfbDisplay(options);
  }
  static void TearDownTestSuite() {
    delete display_;
    display_ = nullptr;
  }

  void SetUp() override {
    if (!display_->available()) GTEST_SKIP() << "Xvfb or openbox is missing";
    setenv("DISPLAY", display_->name().c_str(), 1);
    unsetenv("WAYLAND_DISPLAY");
    ASSERT_TRUE(SetLogFile(dir_.path() / "log"));
    saved_level_ = GetLogLevel();
    SetLogLevel(LogLevel::kInfo);
  }
  void TearDown() override { SetLogLevel(saved_level_); }

  TestWindow StartWindow(const std::vector<std::string>& arguments) {
    TestWindow window(display_->name(), arguments);
    EXPECT_NE(window.id(), 0u) << "the test window never painted";
    // The window manager lists a window a moment after it is mapped.
    Eventually([&] { return Listed(window.id()); }, 2s);
    return window;
  }

  // Captures a window, without the pointer unless asked, into `frames`.
  static std::unique_ptr<ICapturer> CaptureWindow(std::uint32_t window, FrameLog& frames, bool show_cursor = false) {
    CaptureTarget target;
    target.window = window;
    target.show_cursor = show_cursor;
    auto capturer = CreateCapturer(target);
    capturer->Start(frames.Callback());
    return capturer;
  }

  static bool Listed(std::uint32_t id) {
    for (const auto& window : EnumerateWindows()) {
      if (window.window == id) return true;
    }
    return false;
  }

  void Xdotool(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{"xdotool"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    testsupport::ProcessOptions options;
    options.environment["DISPLAY"] = display_->name();
    const auto result = testsupport::RunProcess(argv, options);
    EXPECT_EQ(result.exit_code, 0) << result.err;
  }

  std::string Log() const { return testsupport::ReadFileText(dir_.path() / "log"); }

  static testsupport::XvfbDisplay* display_;
  testsupport::TempDir dir_;
  LogLevel saved_level_ = LogLevel::kWarn;
};

testsupport::XvfbDisplay* X11CaptureTest::display_ = nullptr;

// --- Capture targets ---

TEST_F(X11CaptureTest, TwoMonitorsWithTheSecondPrimaryListThePrimaryFirst) {
  testsupport::ProcessOptions options;
  options.environment["DISPLAY"] = display_->name();
  ASSERT_EQ(testsupport::RunProcess({"xrandr", "--setmonitor", "left", "1280/338x720/190+0+0", "screen"}, options).exit_code, 0);
  ASSERT_EQ(testsupport::RunProcess({"xrandr", "--setmonitor", "*right", "1280/338x720/190+1280+0", "none"}, options).exit_code, 0);
  const auto monitors = EnumerateMonitors();
  ASSERT_EQ(monitors.size(), 2u);
  EXPECT_EQ(monitors[0].device, "right");
  EXPECT_TRUE(monitors[0].primary);
  EXPECT_EQ(monitors[0].x, 1280);
  EXPECT_EQ(monitors[0].width, 1280u);
  EXPECT_EQ(monitors[0].height, 720u);
  EXPECT_EQ(monitors[0].monitor, 0u);
  EXPECT_EQ(monitors[1].device, "left");
  EXPECT_FALSE(monitors[1].primary);
  EXPECT_EQ(monitors[1].monitor, 1u);
  // Xvfb's outputs carry no EDID: the name is the device's.
  EXPECT_EQ(monitors[1].name, "left");
}

TEST_F(X11CaptureTest, WindowsAreListedTopmostFirstWithTitleSizeAndProcess) {
  const auto lower = StartWindow({"--title", "Lower Window", "--size", "300x200", "--position", "50,50"});
  const auto upper = StartWindow({"--title", "Upper Window", "--size", "320x240", "--position", "500,50"});
  const auto windows = EnumerateWindows();
  ASSERT_GE(windows.size(), 2u);
  EXPECT_EQ(windows[0].window, upper.id());
  EXPECT_EQ(windows[0].title, "Upper Window");
  EXPECT_EQ(windows[0].width, 320u);
  EXPECT_EQ(windows[0].height, 240u);
  EXPECT_EQ(windows[0].pid, static_cast<std::uint32_t>(upper.pid()));
  EXPECT_EQ(windows[0].process, "mirell_test_window");
  EXPECT_EQ(windows[1].window, lower.id());
}

TEST_F(X11CaptureTest, AWindowWithoutItsPidIsFoundThroughTheServer) {
  const auto window = StartWindow({"--title", "No Pid", "--no-pid"});
  for (const auto& listed : EnumerateWindows()) {
    if (listed.window != window.id()) continue;
    EXPECT_EQ(listed.pid, static_cast<std::uint32_t>(window.pid()));
    EXPECT_EQ(listed.process, "mirell_test_window");
    return;
  }
  FAIL() << "not listed";
}

TEST_F(X11CaptureTest, AWindowWhoseProcessCannotBeReadIsListedWithAnEmptyName) {
  const auto window = StartWindow({"--title", "Ghost Pid", "--fake-pid", "2147483000"});
  for (const auto& listed : EnumerateWindows()) {
    if (listed.window != window.id()) continue;
    EXPECT_EQ(listed.process, "");
    return;
  }
  FAIL() << "not listed";
}

TEST_F(X11CaptureTest, ThirtyOnePixelsIsTooSmallAndThirtyTwoIsEnough) {
  const auto narrow = StartWindow({"--title", "Narrow", "--size", "31x200"});
  const auto flat = StartWindow({"--title", "Flat", "--size", "200x31"});
  const auto enough = StartWindow({"--title", "Enough", "--size", "32x32"});
  EXPECT_FALSE(Listed(narrow.id()));
  EXPECT_FALSE(Listed(flat.id()));
  EXPECT_TRUE(Listed(enough.id()));
}

TEST_F(X11CaptureTest, HelperUntitledAndChildWindowsAreNotListed) {
  const auto utility = StartWindow({"--title", "Utility", "--type", "UTILITY"});
  const auto toolbar = StartWindow({"--title", "Toolbar", "--type", "TOOLBAR"});
  const auto dock = StartWindow({"--title", "Dock", "--type", "DOCK"});
  const auto untitled = StartWindow({"--title", ""});
  const auto parent = StartWindow({"--title", "Parent", "--child-title", "Child Inside"});
  const auto dialog = StartWindow({"--title", "Dialog", "--type", "DIALOG"});
  EXPECT_FALSE(Listed(utility.id()));
  EXPECT_FALSE(Listed(toolbar.id()));
  EXPECT_FALSE(Listed(dock.id()));
  EXPECT_FALSE(Listed(untitled.id()));
  EXPECT_TRUE(Listed(parent.id()));
  EXPECT_TRUE(Listed(dialog.id()));
  EXPECT_EQ(FindWindowByTitle("Child Inside"), 0u);
}

TEST_F(X11CaptureTest, AMinimisedWindowIsHiddenUntilRestored) {
  const auto window = StartWindow({"--title", "Minimise Me"});
  ASSERT_TRUE(Listed(window.id()));
  Xdotool({"windowminimize", "--sync", std::to_string(window.id())});
  EXPECT_TRUE(Eventually([&] { return !Listed(window.id()); }));
  Xdotool({"windowmap", "--sync", std::to_string(window.id())});
  EXPECT_TRUE(Eventually([&] { return Listed(window.id()); }));
}

TEST_F(X11CaptureTest, AWindowOnAnotherDesktopIsNotListedUntilItComesBack) {
  const auto window = StartWindow({"--title", "Elsewhere"});
  ASSERT_TRUE(Listed(window.id()));
  Xdotool({"set_desktop_for_window", std::to_string(window.id()), "1"});
  EXPECT_TRUE(Eventually([&] { return !Listed(window.id()); }));
  Xdotool({"set_desktop_for_window", std::to_string(window.id()), "0"});
  EXPECT_TRUE(Eventually([&] { return Listed(window.id()); }));
}

TEST_F(X11CaptureTest, TheProgramsOwnWindowsAreNotListed) {
  xcb_connection_t* c = xcb_connect(display_->name().c_str(), nullptr);
  ASSERT_EQ(xcb_connection_has_error(c), 0);
  xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
  const xcb_window_t own = xcb_generate_id(c);
  xcb_create_window(c, XCB_COPY_FROM_PARENT, own, screen->root, 0, 0, 200, 200, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                    screen->root_visual, 0, nullptr);
  const std::string title = "Our Own Window";
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, own, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                      static_cast<std::uint32_t>(title.size()), title.data());
  xcb_map_window(c, own);
  xcb_flush(c);
  // A window of another process mapped after ours: once it is listed, ours has been managed too.
  const auto other = StartWindow({"--title", "Someone Else"});
  EXPECT_TRUE(Listed(other.id()));
  EXPECT_FALSE(Listed(own));
  EXPECT_EQ(FindWindowByTitle("Our Own Window"), 0u);
  xcb_disconnect(c);
}

TEST_F(X11CaptureTest, FindWindowByTitleIgnoresAsciiCaseAndAnEmptyTextFindsNothing) {
  const auto window = StartWindow({"--title", "Mixed Case Title"});
  EXPECT_EQ(FindWindowByTitle("mixed CASE"), window.id());
  EXPECT_EQ(FindWindowByTitle(""), 0u);
  EXPECT_EQ(FindWindowByTitle("no window has this title"), 0u);
}

// --- Capture ---

TEST_F(X11CaptureTest, ACoveredWindowIsCapturedWithItsOwnColours) {
  const auto covered = StartWindow({"--title", "Covered", "--size", "400x300", "--position", "100,100", "--color", HexColour(kRed)});
  const auto cover = StartWindow({"--title", "Cover", "--size", "600x500", "--position", "50,50", "--color", HexColour(kGreen)});
  (void)cover;
  FrameLog frames;
  auto capturer = CaptureWindow(covered.id(), frames);
  EXPECT_EQ(capturer->name(), "Covered");
  EXPECT_EQ(capturer->width(), 400u);
  EXPECT_EQ(capturer->height(), 300u);
  ASSERT_TRUE(Eventually([&] { return frames.count() >= 1; }));
  // The first frames after redirecting may be black until the window repaints.
  ASSERT_TRUE(Eventually([&] { return frames.RgbAt(200, 150) == kRed; })) << HexColour(frames.RgbAt(200, 150));
  EXPECT_EQ(frames.size(), std::make_pair(400u, 300u));
  EXPECT_EQ(frames.CountOtherThan(kRed), 0u) << "the whole window is red";
  capturer->Stop();
}

TEST_F(X11CaptureTest, AStillWindowGivesNoFurtherFramesAndAChangingOneGivesMany) {
  const auto still = StartWindow({"--title", "Still", "--color", HexColour(kRed)});
  FrameLog frames;
  auto capturer = CaptureWindow(still.id(), frames);
  ASSERT_TRUE(Eventually([&] { return frames.count() >= 1 && frames.RgbAt(10, 10) == kRed; }));
  const int settled = frames.count();
  std::this_thread::sleep_for(300ms);  // Watching for frames that must not come.
  EXPECT_LE(frames.count(), settled + 1) << "a still window repaints nothing";
  capturer->Stop();

  const auto changing = StartWindow({"--title", "Changing", "--color", HexColour(kRed), "--color2", HexColour(kGreen), "--alternate-ms", "10"});
  FrameLog changing_frames;
  auto second = CaptureWindow(changing.id(), changing_frames);
  EXPECT_TRUE(Eventually([&] { return changing_frames.count() >= 20; }));
  second->Stop();
  // Grabs start at least 4 ms apart; the time stamps, read after each grab, may jitter by the
  // time one grab takes, which the margin allows for.
  const auto times = changing_frames.timestamps();
  const auto grabs = static_cast<std::int64_t>(times.size());
  EXPECT_GE(times.back() - times.front(), (grabs - 1) * 40'000 - 100'000) << grabs << " grabs";
}

TEST_F(X11CaptureTest, GivenTheConsumersTicksAChangingWindowIsReadOncePerTickJustBeforeIt) {
  const auto changing = StartWindow({"--title", "Paced", "--color", HexColour(kRed), "--color2", HexColour(kGreen), "--alternate-ms", "5"});
  FrameLog frames;
  auto capturer = CaptureWindow(changing.id(), frames);
  ASSERT_TRUE(Eventually([&] { return frames.count() >= 1; }));
  constexpr std::int64_t kInterval = 1'000'000'000 / 30;
  const std::int64_t first_tick = SteadyNowNs() + 50'000'000;
  capturer->SetTickSchedule(first_tick, 30);
  std::this_thread::sleep_for(1200ms);  // About 35 ticks of a window that changes 200 times a second.
  capturer->Stop();
  const std::int64_t ended = SteadyNowNs();

  std::vector<std::int64_t> paced;
  for (const std::int64_t t : frames.timestamps()) {
    if (t * 100 >= first_tick - kInterval / 2) paced.push_back(t * 100);
  }
  const std::int64_t ticks = (ended - first_tick) / kInterval + 1;
  ASSERT_GE(paced.size(), 10u);
  EXPECT_LE(static_cast<std::int64_t>(paced.size()), ticks + 1) << "at most one read per tick";
  // A read is stamped once its picture is in; the pacer aims it within half an interval before
  // a tick. A preempted read may land after its tick, but most must land in their window.
  std::size_t in_window = 0;
  for (const std::int64_t t : paced) {
    const std::int64_t since_first = t - first_tick;
    const std::int64_t to_next_tick = since_first < 0 ? -since_first : (kInterval - since_first % kInterval) % kInterval;
    if (to_next_tick <= kInterval / 2) ++in_window;
  }
  EXPECT_GE(in_window * 10, paced.size() * 8) << in_window << " of " << paced.size() << " reads just before a tick";
}

TEST_F(X11CaptureTest, AResizeLogsOnceAndLaterFramesHaveTheNewSize) {
  const auto window = StartWindow({"--title", "Resizable", "--size", "400x300", "--color", HexColour(kRed)});
  FrameLog frames;
  auto capturer = CaptureWindow(window.id(), frames);
  ASSERT_TRUE(Eventually([&] { return frames.count() >= 1; }));
  EXPECT_EQ(frames.size(), std::make_pair(400u, 300u));
  Xdotool({"windowsize", "--sync", std::to_string(window.id()), "500", "400"});
  ASSERT_TRUE(Eventually([&] { return frames.size() == std::make_pair(500u, 400u); }));
  EXPECT_TRUE(Eventually([&] { return frames.RgbAt(450, 350) == kRed; }));
  EXPECT_EQ(capturer->width(), 500u);
  EXPECT_EQ(capturer->height(), 400u);
  capturer->Stop();
  const std::string log = Log();
  const std::string line = "Resizable resized 400x300 -> 500x400";
  const auto first = log.find(line);
  ASSERT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find("resized", first + line.size()), std::string::npos) << log;
}

TEST_F(X11CaptureTest, AMinimisedWindowGivesNoFramesAndStaysAlive) {
  const auto window = StartWindow({"--title", "Minimised Capture", "--color", HexColour(kRed), "--color2", HexColour(kGreen),
                                   "--alternate-ms", "20"});
  FrameLog frames;
  auto capturer = CaptureWindow(window.id(), frames);
  ASSERT_TRUE(Eventually([&] { return frames.count() >= 3; }));
  Xdotool({"windowminimize", "--sync", std::to_string(window.id())});
  std::this_thread::sleep_for(100ms);
  const int hidden = frames.count();
  std::this_thread::sleep_for(300ms);  // Watching for frames that must not come.
  EXPECT_EQ(frames.count(), hidden);
  EXPECT_TRUE(capturer->alive());
  Xdotool({"windowmap", "--sync", std::to_string(window.id())});
  EXPECT_TRUE(Eventually([&] { return frames.count() > hidden; })) << "frames come back with the window";
  capturer->Stop();
}

TEST_F(X11CaptureTest, ClosingTheWindowTurnsAliveFalse) {
  auto window = StartWindow({"--title", "Closing", "--color", HexColour(kRed)});
  FrameLog frames;
  auto capturer = CaptureWindow(window.id(), frames, true);
  ASSERT_TRUE(Eventually([&] { return frames.count() >= 1; }));
  EXPECT_TRUE(capturer->alive());
  window.process().Signal(SIGTERM);
  window.process().Wait(5s);
  EXPECT_TRUE(Eventually([&] { return !capturer->alive(); }));
  capturer->Stop();
  EXPECT_NE(Log().find("Closing closed"), std::string::npos) << Log();
}

TEST_F(X11CaptureTest, AMonitorIsCapturedAtItsRectangle) {
  testsupport::ProcessOptions options;
  options.environment["DISPLAY"] = display_->name();
  testsupport::RunProcess({"xrandr", "--setmonitor", "left", "1280/338x720/190+0+0", "screen"}, options);
  testsupport::RunProcess({"xrandr", "--setmonitor", "*right", "1280/338x720/190+1280+0", "none"}, options);
  const auto window = StartWindow({"--title", "On The Right", "--size", "200x200", "--position", "1380,100", "--color", HexColour(kGreen)});
  ASSERT_EQ(EnumerateMonitors().at(0).device, "right");
  CaptureTarget target;
  target.kind = CaptureKind::kMonitor;
  target.monitor = 0;
  target.show_cursor = false;
  auto capturer = CreateCapturer(target);
  EXPECT_EQ(capturer->name(), "monitor");
  FrameLog frames;
  capturer->Start(frames.Callback());
  ASSERT_TRUE(Eventually([&] { return frames.count() >= 1; }));
  EXPECT_EQ(frames.size(), std::make_pair(1280u, 720u));
  // The window's client area starts at 1380,100 on the screen, 100,100 on the monitor; the
  // window manager's frame may sit around it.
  EXPECT_TRUE(Eventually([&] { return frames.RgbAt(200, 200) == kGreen; })) << HexColour(frames.RgbAt(200, 200));
  capturer->Stop();
}

TEST_F(X11CaptureTest, ThePointerIsDrawnOnlyWhenAskedFor) {
  const auto window = StartWindow({"--title", "Pointer", "--size", "300x300", "--position", "100,100", "--color", HexColour(kRed)});
  Xdotool({"mousemove", "--sync", "250", "250"});
  for (const bool show : {false, true}) {
    FrameLog frames;
    auto capturer = CaptureWindow(window.id(), frames, show);
    ASSERT_TRUE(Eventually([&] { return frames.count() >= 1 && frames.RgbAt(10, 10) == kRed; }));
    if (show) {
      EXPECT_TRUE(Eventually([&] { return frames.CountOtherThan(kRed) > 20; })) << "the pointer's pixels";
    } else {
      EXPECT_EQ(frames.CountOtherThan(kRed), 0u);
    }
    capturer->Stop();
  }
}

TEST_F(X11CaptureTest, StopBeforeStartDoesNothingAndASecondStartKeepsTheFirstCallback) {
  const auto window = StartWindow({"--title", "Twice", "--color", HexColour(kRed)});
  CaptureTarget target;
  target.window = window.id();
  auto capturer = CreateCapturer(target);
  capturer->Stop();
  FrameLog first, second;
  capturer->Start(first.Callback());
  capturer->Start(second.Callback());
  ASSERT_TRUE(Eventually([&] { return first.count() >= 1; }));
  EXPECT_EQ(second.count(), 0);
  capturer->Stop();
  capturer->Stop();
}

TEST_F(X11CaptureTest, ImpossibleTargetsAreFailedChecksWithTheirOwnMessages) {
  const auto expect_check = [](const CaptureTarget& target, const std::string& text) {
    try {
      CreateCapturer(target);
      ADD_FAILURE() << "no check failed for " << text;
    } catch (const Error& error) {
      EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
    }
  };
  CaptureTarget none;
  expect_check(none, "no window to capture");
  auto window = StartWindow({"--title", "Short Lived"});
  const std::uint32_t id = window.id();
  window.process().Signal(SIGTERM);
  window.process().Wait(5s);
  ASSERT_TRUE(Eventually([&] { return !Listed(id); }));
  CaptureTarget gone;
  gone.window = id;
  expect_check(gone, "that window no longer exists");
  CaptureTarget monitor;
  monitor.kind = CaptureKind::kMonitor;
  monitor.monitor = 99;
  expect_check(monitor, "no monitor 99");
}

TEST_F(X11CaptureTest, AWaylandSessionWithoutXIsReportedClearly) {
  unsetenv("DISPLAY");
  setenv("WAYLAND_DISPLAY", "wayland-0", 1);
  EXPECT_FALSE(IsCaptureSupported());
  CaptureTarget target;
  target.window = 1;
  try {
    CreateCapturer(target);
    ADD_FAILURE() << "capture started without an X display";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("need an X11 session or XWayland"), std::string::npos) << error.what();
  }
  unsetenv("WAYLAND_DISPLAY");
  setenv("DISPLAY", display_->name().c_str(), 1);
  EXPECT_TRUE(IsCaptureSupported());
}

// --- Thumbnails ---

TEST_F(X11CaptureTest, AThumbnailOfACoveredWindowShowsItsOwnContentScaledDown) {
  const auto covered = StartWindow({"--title", "Thumb", "--size", "640x360", "--position", "100,100", "--color", HexColour(kRed)});
  const auto cover = StartWindow({"--title", "Thumb Cover", "--size", "800x600", "--position", "50,50", "--color", HexColour(kGreen)});
  (void)cover;
  const auto source = CreateThumbnailSource();
  CaptureTarget target;
  target.window = covered.id();
  std::optional<Thumbnail> thumbnail;
  // The first one may be black: the window repaints once it is redirected.
  ASSERT_TRUE(Eventually([&] {
    thumbnail = source->Take(target, 160, 160);
    return thumbnail && thumbnail->bgra.size() > 4 && thumbnail->bgra[2] == 255 && thumbnail->bgra[1] == 0;
  }));
  EXPECT_EQ(thumbnail->width, 160u);
  EXPECT_EQ(thumbnail->height, 90u);
}

TEST_F(X11CaptureTest, AMonitorThumbnailHasTheMonitorsProportions) {
  const auto source = CreateThumbnailSource();
  CaptureTarget target;
  target.kind = CaptureKind::kMonitor;
  const auto thumbnail = source->Take(target, 256, 256);
  ASSERT_TRUE(thumbnail.has_value());
  const auto monitor = EnumerateMonitors().at(0);
  EXPECT_EQ(thumbnail->width, 256u);
  EXPECT_EQ(thumbnail->height, 256u * monitor.height / monitor.width);
  target.monitor = 99;
  EXPECT_FALSE(source->Take(target, 256, 256).has_value());
}

TEST_F(X11CaptureTest, NoThumbnailOfAMinimisedOrClosedWindowOrWithoutADisplay) {
  auto window = StartWindow({"--title", "Thumb Gone"});
  const auto source = CreateThumbnailSource();
  CaptureTarget target;
  target.window = window.id();
  ASSERT_TRUE(source->Take(target, 100, 100).has_value());
  Xdotool({"windowminimize", "--sync", std::to_string(window.id())});
  EXPECT_TRUE(Eventually([&] { return !source->Take(target, 100, 100).has_value(); }));
  window.process().Signal(SIGTERM);
  window.process().Wait(5s);
  EXPECT_TRUE(Eventually([&] { return !source->Take(target, 100, 100).has_value(); }));
  target.window = 0;
  EXPECT_FALSE(source->Take(target, 100, 100).has_value());

  unsetenv("DISPLAY");
  const auto without_display = CreateThumbnailSource();
  target.kind = CaptureKind::kMonitor;
  target.monitor = 0;
  EXPECT_FALSE(without_display->Take(target, 100, 100).has_value());
  setenv("DISPLAY", display_->name().c_str(), 1);
}

}  // namespace
}  // namespace mirell::capture
