// The real mirell-ui on an X desktop with a window manager and a tray host (openbox and trayer
// on Xvfb), driven with xdotool as a person would: the tray icon, its menu, closing to the tray.
// Screenshots of the real process are kept as test artifacts.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <sstream>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "full_signal_server.h"
#include "installed_ui.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/tcp_client.h"
#include "mirell/testsupport/xvfb.h"

namespace mirell::ui {
namespace {

using namespace std::chrono_literals;
using testsupport::ChildProcess;

class UiOnADesktop : public ::testing::Test {
 protected:
  void SetUp() override {
    testsupport::XvfbOptions xvfb;
    xvfb.window_manager = true;
    display_ = std::make_unique<testsupport::XvfbDisplay>(xvfb);
    if (!display_->available() || !testsupport::HaveProgram("xdotool") ||
        !testsupport::HaveProgram("trayer")) {
      GTEST_SKIP() << "needs Xvfb, openbox, trayer and xdotool (scripts/install-deps)";
    }
    x_.environment["DISPLAY"] = display_->name();
    x_.timeout = 10s;
    tray_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"trayer", "--edge", "top", "--align", "right", "--widthtype",
                                 "request", "--height", "24"},
        x_);
    ASSERT_TRUE(WaitFor([&] { return !Run({"xdotool", "search", "--class", "trayer"}).empty(); }));

    options_ = Headless(home_.path());
    options_.environment["QT_QPA_PLATFORM"] = "xcb";
    options_.environment["DISPLAY"] = display_->name();
    // Qt's tray speaks XEmbed to trayer; no desktop bus is asked.
    options_.environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/nonexistent";
    rtsp_port_ = testsupport::FreeLoopbackPort();
    pipe_ = "127.0.0.1:" + std::to_string(testsupport::FreeLoopbackPort());
    StartUi();
    if (!StartsWithTheWindow()) return;
    ASSERT_TRUE(WaitFor([&] { return WindowVisible(); })) << ui_.Log(rtsp_port_, pipe_);
    // The window and the tray icon's own.
    ASSERT_TRUE(WaitFor([&] { return VisibleMenus() >= 2; })) << "no tray icon";
  }

  void StartUi() {
    std::vector<std::string> argv{ui_.binary().string(), "--pipe", pipe_, "--rtsp-port",
                                  std::to_string(rtsp_port_), "--no-stub"};
    for (const std::string& extra : MeetingArguments()) argv.push_back(extra);
    for (const std::string& extra : ExtraArguments()) argv.push_back(extra);
    ui_process_ = std::make_unique<ChildProcess>(argv, options_);
  }

  virtual std::vector<std::string> MeetingArguments() const { return {"--signal", kNobodysSignalUrl}; }
  virtual bool StartsWithTheWindow() const { return true; }
  virtual std::vector<std::string> ExtraArguments() const { return {}; }
  std::string Log() const { return ui_.Log(rtsp_port_, pipe_); }
  bool WindowNamedVisible(const std::string& name) {
    return !Run({"xdotool", "search", "--onlyvisible", "--name", "^" + name + "$"}).empty();
  }

  std::string Run(const std::vector<std::string>& argv) {
    return testsupport::RunProcess(argv, x_).out;
  }
  bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = 20s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      if (done()) return true;
      std::this_thread::sleep_for(100ms);
    }
    return false;
  }
  bool WindowVisible() {
    return !Run({"xdotool", "search", "--onlyvisible", "--name", "^Mirell$"}).empty();
  }
  // The tray icon's menu, opened with a right click on the icon; true once a menu shows.
  bool OpenTrayMenu() {
    const std::size_t before = VisibleMenus();
    const auto icon = testsupport::TrayIconPoint(x_);
    if (!icon) return false;
    Run({"xdotool", "mousemove", std::to_string(icon->x), std::to_string(icon->y), "click", "3"});
    return WaitFor([&] { return VisibleMenus() > before; }, 5s);
  }
  // The program's shown windows: the main window, the tray icon's and a menu's.
  std::size_t VisibleMenus() {
    const std::string found =
        Run({"xdotool", "search", "--onlyvisible", "--pid", std::to_string(ui_process_->pid())});
    return static_cast<std::size_t>(std::count(found.begin(), found.end(), '\n'));
  }
  void Screenshot(const std::string& name) {
    const std::filesystem::path directory = MIRELL_TEST_ARTIFACT_DIR;
    std::filesystem::create_directories(directory);
    testsupport::ProcessOptions options = x_;
    options.timeout = 20s;
    testsupport::RunProcess({"ffmpeg", "-loglevel", "error", "-y", "-f", "x11grab", "-video_size",
                             "1280x720", "-i", display_->name(), "-frames:v", "1",
                             (directory / (name + ".png")).string()},
                            options);
  }

  std::unique_ptr<testsupport::XvfbDisplay> display_;
  testsupport::ProcessOptions x_;
  std::unique_ptr<ChildProcess> tray_;
  testsupport::TempDir home_;
  InstalledUi ui_;
  testsupport::ProcessOptions options_;
  std::uint16_t rtsp_port_ = 0;
  std::string pipe_;
  std::unique_ptr<ChildProcess> ui_process_;
};

TEST_F(UiOnADesktop, ClosingTheWindowLeavesItInTheTrayAndShowBringsItBack) {
  Screenshot("desktop_main_window");
  const std::string window = Run({"xdotool", "search", "--onlyvisible", "--name", "^Mirell$"});
  Run({"xdotool", "windowactivate", "--sync", window.substr(0, window.find('\n')), "key",
       "--clearmodifiers", "alt+F4"});
  ASSERT_TRUE(WaitFor([&] { return !WindowVisible(); }));
  EXPECT_TRUE(ui_process_->Running()) << "closing the window only hides it";
  // The first close says so once, in a balloon beside the tray icon (a window of its own here).
  EXPECT_TRUE(WaitFor([&] { return VisibleMenus() == 2; }, 5s)) << "no balloon";
  Screenshot("close_balloon");
  ASSERT_TRUE(WaitFor([&] { return VisibleMenus() == 1; }, 10s)) << "the balloon stays";

  ASSERT_TRUE(OpenTrayMenu()) << ui_.Log(rtsp_port_, pipe_);
  Screenshot("tray_menu");
  Run({"xdotool", "key", "Down", "Return"});  // "Show", the first entry.
  EXPECT_TRUE(WaitFor([&] { return WindowVisible(); }));
  ui_process_->Signal(SIGTERM);
  EXPECT_EQ(ui_process_->Wait(20s).exit_code, 0);
}

// Closed to the tray, the window comes back when the person starts Mirell again: the second
// start asks the first to show it and ends.
TEST_F(UiOnADesktop, ASecondStartBringsBackTheWindowClosedToTheTray) {
  const std::string window = Run({"xdotool", "search", "--onlyvisible", "--name", "^Mirell$"});
  Run({"xdotool", "windowactivate", "--sync", window.substr(0, window.find('\n')), "key",
       "--clearmodifiers", "alt+F4"});
  ASSERT_TRUE(WaitFor([&] { return !WindowVisible(); }));
  std::vector<std::string> argv{ui_.binary().string(), "--pipe", pipe_, "--rtsp-port",
                                std::to_string(rtsp_port_), "--no-stub"};
  for (const std::string& extra : MeetingArguments()) argv.push_back(extra);
  testsupport::ProcessOptions options = options_;
  options.timeout = 20s;
  const auto second = testsupport::RunProcess(argv, options);
  EXPECT_EQ(second.exit_code, 0) << second.err;
  EXPECT_TRUE(WaitFor([&] { return WindowVisible(); })) << Log();
  Screenshot("desktop_window_back_after_second_start");
  EXPECT_TRUE(ui_process_->Running());
}

TEST_F(UiOnADesktop, QuitFromTheTrayMenuEndsTheProgramInOrder) {
  ASSERT_TRUE(OpenTrayMenu()) << ui_.Log(rtsp_port_, pipe_);
  // "Quit Mirell" is the menu's last entry: a click near the menu's bottom edge.
  const std::string shown = Run({"xdotool", "search", "--onlyvisible", "--pid", std::to_string(ui_process_->pid())});
  std::string popup;
  std::istringstream ids(shown);
  for (std::string id; std::getline(ids, id);) {
    const std::string geometry = Run({"xdotool", "getwindowgeometry", "--shell", id});
    int x = 0, y = 0, width = 0, height = 0;
    std::istringstream fields(geometry);
    for (std::string field; std::getline(fields, field);) {
      std::sscanf(field.c_str(), "X=%d", &x);
      std::sscanf(field.c_str(), "Y=%d", &y);
      std::sscanf(field.c_str(), "WIDTH=%d", &width);
      std::sscanf(field.c_str(), "HEIGHT=%d", &height);
    }
    // The menu is the one shown window that hangs from the top edge at the tray.
    if (y < 40 && x > 900 && height > 40) {
      Run({"xdotool", "mousemove", std::to_string(x + width / 2), std::to_string(y + height - 10), "click", "1"});
      popup = id;
    }
  }
  ASSERT_FALSE(popup.empty()) << shown;
  const auto result = ui_process_->Wait(20s);
  EXPECT_FALSE(result.timed_out);
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(ui_.Log(rtsp_port_, pipe_).find("mirell-ui stopped (0)"), std::string::npos)
      << ui_.Log(rtsp_port_, pipe_);
}

TEST_F(UiOnADesktop, NetworkFromTheTrayMenuOpensTheNetworkDialog) {
  ASSERT_TRUE(OpenTrayMenu()) << Log();
  // From the bottom: "Quit Mirell", then (over the separator) "Network...".
  Run({"xdotool", "key", "Up", "Up", "Return"});
  ASSERT_TRUE(WaitFor([&] { return WindowNamedVisible("Network"); }, 10s)) << Log();
  Screenshot("desktop_network_dialog");
  const std::string dialog = Run({"xdotool", "search", "--onlyvisible", "--name", "^Network$"});
  Run({"xdotool", "windowactivate", "--sync", dialog.substr(0, dialog.find('\n')), "key", "Escape"});
  EXPECT_TRUE(WaitFor([&] { return !WindowNamedVisible("Network"); }, 10s));
  EXPECT_TRUE(ui_process_->Running());
}

// A first start: no meeting place stored, none on the command line.
class UiFirstStartOnADesktop : public UiOnADesktop {
 protected:
  std::vector<std::string> MeetingArguments() const override { return {}; }
  bool StartsWithTheWindow() const override { return false; }
};

TEST_F(UiFirstStartOnADesktop, TheFirstStartAsksWhereToMeetBeforeTheWindowAndKeepsTheAnswer) {
  const std::string title = "Where do your friends meet you\\?";  // A pattern: the ? stands for itself.
  ASSERT_TRUE(WaitFor([&] { return WindowNamedVisible(title); })) << Log();
  EXPECT_FALSE(WindowVisible()) << "asked before the window";
  Screenshot("desktop_first_start_meeting_place");
  const std::string dialog = Run({"xdotool", "search", "--onlyvisible", "--name", "^Where do your friends"});
  ASSERT_FALSE(dialog.empty());
  // As a person with a server of their own: into the address field, type, and Continue.
  Run({"xdotool", "windowactivate", "--sync", dialog.substr(0, dialog.find('\n')), "key", "Tab"});
  Run({"xdotool", "type", "--delay", "20", "ws://127.0.0.1:9/signal"});
  Run({"xdotool", "key", "Return"});
  ASSERT_TRUE(WaitFor([&] { return WindowVisible(); })) << Log();
  EXPECT_FALSE(WindowNamedVisible(title));
  EXPECT_NE(Log().find("meeting place ws://127.0.0.1:9/signal"), std::string::npos) << Log();
  const std::string stored = testsupport::ReadFileText(home_.path() / ".config/Mirell/Mirell.conf");
  EXPECT_NE(stored.find("meeting=ws://127.0.0.1:9/signal"), std::string::npos) << stored;
  Screenshot("desktop_first_start_window");
  ui_process_->Signal(SIGTERM);
  ASSERT_EQ(ui_process_->Wait(20s).exit_code, 0);

  // Asked once: the next start goes straight to the window, meeting where it was told.
  ui_.ForgetLog(rtsp_port_, pipe_);
  StartUi();
  ASSERT_TRUE(WaitFor([&] { return WindowVisible(); })) << Log();
  EXPECT_FALSE(WindowNamedVisible(title));
  EXPECT_TRUE(WaitFor([&] { return Log().find("meeting place ws://127.0.0.1:9/signal") != std::string::npos; }))
      << Log();
  ui_process_->Signal(SIGTERM);
  EXPECT_EQ(ui_process_->Wait(20s).exit_code, 0);
}

// A share of the whole screen with a one-minute limit, started from the command line.
class UiSharingOnADesktop : public UiOnADesktop {
 protected:
  std::vector<std::string> ExtraArguments() const override {
    return {"--share-monitor", "0", "--share-minutes", "1", "--admit-everyone", "--signal",
            "ws://127.0.0.1:9/signal"};
  }
};

// A real minute passes: the limit is the share's own, read by the window's poll.
TEST_F(UiSharingOnADesktop, AShareThatHitsItsTimeLimitStopsAndSaysSoBesideTheTray) {
  ASSERT_TRUE(WaitFor([&] { return Log().find("token=") != std::string::npos; })) << Log();
  EXPECT_NE(Log().find("share time limit from the command line: 1 min"), std::string::npos) << Log();
  const std::size_t before = VisibleMenus();
  ASSERT_TRUE(WaitFor([&] { return Log().find("lifetime expired, stopped") != std::string::npos; },
                      80s))
      << Log();
  // The balloon: one more window of the program's, for a few seconds.
  EXPECT_TRUE(WaitFor([&] { return VisibleMenus() > before; }, 5s)) << "no balloon";
  Screenshot("time_limit_balloon");
  EXPECT_TRUE(WaitFor([&] { return VisibleMenus() == before; }, 12s)) << "the balloon stays";
  // Once: the share stays expired through the next ticks, and no second balloon comes.
  std::this_thread::sleep_for(3s);
  EXPECT_EQ(VisibleMenus(), before);
  EXPECT_TRUE(ui_process_->Running()) << "the program goes on without the share";
}

// A share the signal server refuses, with the window on screen: the program goes on, and the
// tray says once that nobody can join.
class UiRefusedOnADesktop : public UiOnADesktop {
 protected:
  std::vector<std::string> ExtraArguments() const override {
    return {"--share-monitor", "0", "--signal", server_.url()};
  }
  FullSignalServer server_;
};

TEST_F(UiRefusedOnADesktop, ARefusedShareIsToldBesideTheTrayOnceAndTheProgramGoesOn) {
  ASSERT_TRUE(server_.filled) << server_.error;
  ASSERT_TRUE(WaitFor([&] { return Log().find("signal refused: server full") != std::string::npos; })) << Log();
  const std::size_t before = VisibleMenus();
  EXPECT_TRUE(WaitFor([&] { return VisibleMenus() > before; }, 5s)) << "no balloon";
  Screenshot("refused_share_balloon");
  EXPECT_TRUE(WaitFor([&] { return VisibleMenus() == before; }, 15s)) << "the balloon stays";
  // Once: the next ticks of the window's refresh bring no second balloon.
  std::this_thread::sleep_for(2s);
  EXPECT_EQ(VisibleMenus(), before);
  EXPECT_TRUE(ui_process_->Running()) << "with a window the program goes on";
}

}  // namespace
}  // namespace mirell::ui
