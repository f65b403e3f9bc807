// The picker and the main window against real windows: Xvfb with openbox and mirell_test_window
// for the capture layer, Qt's offscreen platform for our own widgets.
#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTest>
#include <QTimer>
#include <chrono>
#include <cstdlib>
#include <csignal>
#include <functional>
#include <memory>

#include "daemon_host.h"
#include "main_window.h"
#include "mirell/capture/capture_targets.h"
#include "mirell/testsupport/subprocess.h"
#include "mirell/testsupport/xvfb.h"
#include "picker_dialog.h"
#include "qt_test_application.h"
#include "test_window.h"

namespace mirell::ui {
namespace {

using namespace std::chrono_literals;

constexpr int kLabelRole = Qt::UserRole + 4;
constexpr int kIsMonitorRole = Qt::UserRole + 1;

QListWidgetItem* ItemLabelled(const QListWidget& list, const QString& label) {
  for (int row = 0; row < list.count(); ++row) {
    if (list.item(row)->data(kLabelRole).toString() == label) return list.item(row);
  }
  return nullptr;
}

// Lets the event loop run (timers, repaints) until `done` holds or the limit passes.
bool ProcessEventsUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (done()) return true;
    QTest::qWait(20);
  }
  return done();
}

// The share of an icon's pixels near a colour (each channel within 60).
double ShareOfColour(const QIcon& icon, QRgb colour) {
  const QImage image = icon.pixmap(QSize(256, 144)).toImage();
  if (image.isNull()) return 0;
  std::int64_t near = 0;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      const QRgb pixel = image.pixel(x, y);
      near += std::abs(qRed(pixel) - qRed(colour)) < 60 && std::abs(qGreen(pixel) - qGreen(colour)) < 60 &&
              std::abs(qBlue(pixel) - qBlue(colour)) < 60;
    }
  }
  return static_cast<double>(near) / (image.width() * image.height());
}

class WindowOnX11 : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    testsupport::XvfbOptions options;
    options.window_manager = true;
    display_ = new testsupport::XvfbDisplay(options);
  }
  static void TearDownTestSuite() {
    delete display_;
    display_ = nullptr;
  }
  void SetUp() override {
    if (!display_->available()) GTEST_SKIP() << "needs Xvfb and openbox (scripts/install-deps)";
    TestApplication();
    previous_display_ = qgetenv("DISPLAY");
    previous_home_ = qgetenv("HOME");
    // Our widgets stay on the offscreen platform; the capture layer reads this display.
    qputenv("DISPLAY", QByteArray::fromStdString(display_->name()));
    qputenv("HOME", QByteArray::fromStdString(home_.path().string()));
  }
  void TearDown() override {
    qputenv("DISPLAY", previous_display_);
    qputenv("HOME", previous_home_);
  }

  static testsupport::XvfbDisplay* display_;
  testsupport::TempDir home_;
  QByteArray previous_display_;
  QByteArray previous_home_;
};

testsupport::XvfbDisplay* WindowOnX11::display_ = nullptr;

TEST_F(WindowOnX11, ThePickerListsMonitorsFirstWithThumbnailsAndPlaceholders) {
  capture::TestWindow bars(display_->name(), {"--title", "Picker bars", "--size", "400x240",
                                              "--position", "40,40", "--color", "0000ff",
                                              "--color2", "ffff00", "--bars"});
  capture::TestWindow plain(display_->name(), {"--title", "Picker plain", "--size", "300x200",
                                               "--position", "600,300", "--color", "ff0000"});
  ASSERT_NE(bars.id(), 0u);
  ASSERT_NE(plain.id(), 0u);

  PickerDialog picker;
  picker.show();
  QListWidget& list = *picker.list();
  ASSERT_GE(list.count(), 3);
  EXPECT_TRUE(list.item(0)->data(kIsMonitorRole).toBool()) << "monitors come first";
  const auto monitors = capture::EnumerateMonitors();
  ASSERT_FALSE(monitors.empty());
  EXPECT_EQ(list.item(0)->text().toStdString(),
            monitors[0].name + (monitors[0].primary ? "\nWhole screen - primary" : "\nWhole screen"));
  EXPECT_TRUE(list.selectedItems().isEmpty()) << "nothing is preselected";
  QListWidgetItem* bars_item = ItemLabelled(list, "Picker bars");
  QListWidgetItem* plain_item = ItemLabelled(list, "Picker plain");
  ASSERT_NE(bars_item, nullptr);
  ASSERT_NE(plain_item, nullptr);
  EXPECT_EQ(bars_item->text(), "Picker bars\nmirell_test_window");

  // A window of one colour has nothing to show: the placeholder and its tool tip. The window
  // with bars shows its own picture: mostly blue, with yellow bars.
  ASSERT_TRUE(ProcessEventsUntil([&] {
    return !plain_item->toolTip().isEmpty() && bars_item->toolTip().isEmpty() &&
           ShareOfColour(bars_item->icon(), qRgb(0, 0, 255)) > 0.5 &&
           ShareOfColour(bars_item->icon(), qRgb(255, 255, 0)) > 0.1;
  })) << "blue " << ShareOfColour(bars_item->icon(), qRgb(0, 0, 255)) << ", yellow "
      << ShareOfColour(bars_item->icon(), qRgb(255, 255, 0));
  EXPECT_EQ(plain_item->toolTip(), "No preview, but sharing it should still work");
  SaveScreenshot(picker, "picker");

  // The list is read again every two seconds: a window that goes is taken out.
  plain.process().Signal(SIGTERM);
  EXPECT_TRUE(ProcessEventsUntil([&] { return ItemLabelled(list, "Picker plain") == nullptr; }));
  EXPECT_NE(ItemLabelled(list, "Picker bars"), nullptr);
}

TEST_F(WindowOnX11, AWindowThatStartsToDrawReplacesItsPlaceholderWithItsPicture) {
  capture::TestWindow late(display_->name(), {"--title", "Late drawer", "--size", "400x240",
                                              "--position", "40,40", "--color", "0000ff",
                                              "--color2", "ffff00", "--bars-after", "2500"});
  ASSERT_NE(late.id(), 0u);
  PickerDialog picker;
  picker.show();
  QListWidgetItem* item = ItemLabelled(*picker.list(), "Late drawer");
  ASSERT_NE(item, nullptr);
  // Plain blue: nothing to show yet.
  ASSERT_TRUE(ProcessEventsUntil([&] { return !item->toolTip().isEmpty(); }));
  EXPECT_EQ(item->toolTip(), "No preview, but sharing it should still work");
  EXPECT_LT(ShareOfColour(item->icon(), qRgb(0, 0, 255)), 0.1) << "the placeholder, not the window";
  // Bars appear: the picture takes the placeholder's place and the tool tip goes.
  EXPECT_TRUE(ProcessEventsUntil([&] {
    return item->toolTip().isEmpty() && ShareOfColour(item->icon(), qRgb(0, 0, 255)) > 0.5 &&
           ShareOfColour(item->icon(), qRgb(255, 255, 0)) > 0.1;
  })) << "blue " << ShareOfColour(item->icon(), qRgb(0, 0, 255));
}

TEST_F(WindowOnX11, ADoubleClickOnAWindowAcceptsItAsTheTarget) {
  capture::TestWindow window(display_->name(), {"--title", "Double click me", "--size", "320x200",
                                                "--color", "00ff00"});
  ASSERT_NE(window.id(), 0u);
  PickerDialog picker;
  picker.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&picker));
  QListWidgetItem* item = ItemLabelled(*picker.list(), "Double click me");
  ASSERT_NE(item, nullptr);
  picker.list()->scrollToItem(item);
  QTest::qWait(50);  // The list lays its items out from the event loop.
  const QPoint centre = picker.list()->visualItemRect(item).center();
  // As a person's double click reaches the list: press, release, then the second press that
  // the platform reports as the double click.
  QTest::mousePress(picker.list()->viewport(), Qt::LeftButton, {}, centre);
  QTest::mouseRelease(picker.list()->viewport(), Qt::LeftButton, {}, centre);
  QTest::mousePress(picker.list()->viewport(), Qt::LeftButton, {}, centre);
  QTest::mouseDClick(picker.list()->viewport(), Qt::LeftButton, {}, centre);
  ASSERT_TRUE(ProcessEventsUntil([&] { return picker.result().has_value(); }, 2s));
  EXPECT_EQ(picker.result()->capture.kind, capture::CaptureKind::kWindow);
  EXPECT_EQ(picker.result()->capture.window, window.id());
  EXPECT_EQ(picker.result()->process_id, static_cast<std::uint32_t>(window.pid()));
  EXPECT_EQ(picker.result()->label, "Double click me");
  EXPECT_FALSE(picker.result()->whole_mix);
  EXPECT_TRUE(picker.result()->capture.show_cursor);
  EXPECT_TRUE(picker.result()->capture.show_border);
}

// A window's sound is its own; "All sound" is a choice the person makes, and says what it means.
TEST_F(WindowOnX11, AWindowGoesOutWithItsOwnSoundUnlessAllSoundIsTicked) {
  capture::TestWindow window(display_->name(), {"--title", "Loud window", "--size", "320x200",
                                                "--color", "ff00ff"});
  ASSERT_NE(window.id(), 0u);
  PickerDialog picker;
  picker.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&picker));
  QListWidgetItem* item = ItemLabelled(*picker.list(), "Loud window");
  ASSERT_NE(item, nullptr);
  QCheckBox* all_sound = picker.findChild<QCheckBox*>();
  ASSERT_NE(all_sound, nullptr);
  EXPECT_FALSE(all_sound->isVisible()) << "nothing chosen yet";
  item->setSelected(true);
  QLabel* hint = nullptr;
  for (QLabel* label : picker.findChildren<QLabel*>()) hint = label;
  ASSERT_NE(hint, nullptr);
  EXPECT_EQ(hint->text(), "Only this window goes out, and only its sound (silence until it plays).");
  EXPECT_TRUE(all_sound->isVisible());
  EXPECT_FALSE(all_sound->isChecked());
  all_sound->setChecked(true);
  EXPECT_EQ(hint->text(),
            "Only this window goes out, with everything the computer plays, voice chat included.");
  SaveScreenshot(picker, "picker_all_sound");
  QPushButton* share = nullptr;
  for (QPushButton* button : picker.findChildren<QPushButton*>()) {
    if (button->text() == "Share") share = button;
  }
  ASSERT_NE(share, nullptr);
  share->click();
  ASSERT_TRUE(picker.result().has_value());
  EXPECT_EQ(picker.result()->process_id, static_cast<std::uint32_t>(window.pid()));
  EXPECT_TRUE(picker.result()->whole_mix);
}

TEST_F(WindowOnX11, AMonitorIsSharedWithTheWholeMixAndItsHint) {
  PickerDialog picker;
  picker.show();
  ASSERT_GE(picker.list()->count(), 1);
  QLabel* hint = nullptr;
  for (QLabel* label : picker.findChildren<QLabel*>()) hint = label;
  ASSERT_NE(hint, nullptr);
  EXPECT_TRUE(hint->text().isEmpty()) << "no hint until the selection first changes";
  picker.list()->item(0)->setSelected(true);
  EXPECT_EQ(hint->text(),
            "Everything on this screen goes out, including notifications that pop up later. "
            "Sound is everything the computer plays, voice chat included.");
  QPushButton* share = nullptr;
  for (QPushButton* button : picker.findChildren<QPushButton*>()) {
    if (button->text() == "Share") share = button;
  }
  ASSERT_NE(share, nullptr);
  ASSERT_TRUE(share->isEnabled());
  share->click();
  ASSERT_TRUE(picker.result().has_value());
  EXPECT_EQ(picker.result()->capture.kind, capture::CaptureKind::kMonitor);
  EXPECT_EQ(picker.result()->capture.monitor, 0u);
  EXPECT_TRUE(picker.result()->whole_mix);
  EXPECT_FALSE(picker.findChild<QCheckBox*>()->isVisible()) << "a monitor's sound is all sound";
  picker.list()->clearSelection();
  EXPECT_EQ(hint->text(), "Choose a screen or a window to share.");
  EXPECT_FALSE(share->isEnabled());
}



TEST_F(WindowOnX11, PickingAWindowInTheMainWindowStartsAShareAndStopEndsIt) {
  capture::TestWindow window(display_->name(), {"--title", "Shared from the window", "--size",
                                                "480x270", "--color", "0000ff", "--color2",
                                                "ffff00", "--bars"});
  ASSERT_NE(window.id(), 0u);
  DaemonConfig config;
  // Played from this machine only: links of a deployment, but no signal server here.
  config.share_prefix = "mirell.example/s/";
  config.install_stub = false;
  DaemonHost host(config);
  MainWindow main_window(&host);
  main_window.show();
  EXPECT_EQ(main_window.tray()->toolTip(),
            "Mirell\nNo meeting place is chosen, so nobody can join a share: choose one in Network... "
            "(it applies from the next start).");

  // The picker opens modally from "Share something..."; a person picks the window and shares.
  QTimer::singleShot(0, [&] {
    ASSERT_TRUE(ProcessEventsUntil([] { return QApplication::activeModalWidget() != nullptr; }));
    auto* picker = dynamic_cast<PickerDialog*>(QApplication::activeModalWidget());
    ASSERT_NE(picker, nullptr);
    QListWidgetItem* item = ItemLabelled(*picker->list(), "Shared from the window");
    ASSERT_NE(item, nullptr);
    item->setSelected(true);
    ButtonNamed(*picker, "Share")->click();
  });
  ButtonNamed(main_window, "Share something...")->click();

  ASSERT_TRUE(host.sharing().active());
  EXPECT_FALSE(host.sharing().is_public()) << "a share is not public unless ticked";
  EXPECT_EQ(LabelStartingWith(main_window, "Sharing "),
            "Sharing Shared from the window. 0 watching, - going out.");
  const QString link = main_window.findChild<QLineEdit*>()->text();
  EXPECT_TRUE(link.startsWith("https://")) << link.toStdString();
  EXPECT_EQ(link.toStdString(), host.sharing().link());
  const QString time_left = LabelStartingWith(main_window, "Stops by itself in ");
  EXPECT_TRUE(time_left == "Stops by itself in 5h 59m." || time_left == "Stops by itself in 6h 00m.")
      << time_left.toStdString();
  EXPECT_NE(ButtonNamed(main_window, "Share something else..."), nullptr);
  for (const char* enabled : {"Stop sharing", "Copy", "New link", "Give it longer"}) {
    EXPECT_TRUE(ButtonNamed(main_window, enabled)->isEnabled()) << enabled;
  }
  EXPECT_EQ(main_window.tray()->toolTip(),
            "Mirell - sharing Shared from the window\n"
            "No signal server is set: the share plays on this computer only.");
  SaveScreenshot(main_window, "main_window_sharing");

  ButtonNamed(main_window, "Stop sharing")->click();
  EXPECT_FALSE(host.sharing().active());
  EXPECT_TRUE(main_window.findChild<QLineEdit*>()->text().isEmpty());
  EXPECT_FALSE(ButtonNamed(main_window, "Stop sharing")->isEnabled());
  EXPECT_TRUE(main_window.tray()->toolTip().startsWith("Mirell\nNo meeting place is chosen"))
      << main_window.tray()->toolTip().toStdString();
}

// A share made public in the picker says so under its link; a second pick (a swap of what the
// share shows) offers no such choice, and the next share is private again.
TEST_F(WindowOnX11, APublicShareIsChosenInThePickerAndTheWindowSaysWhoGetsIn) {
  capture::TestWindow window(display_->name(), {"--title", "Public window", "--size", "480x270",
                                                "--color", "0000ff", "--color2", "ffff00", "--bars"});
  ASSERT_NE(window.id(), 0u);
  DaemonConfig config;
  config.share_prefix = "mirell.example/s/";
  config.install_stub = false;
  DaemonHost host(config);
  MainWindow main_window(&host);
  main_window.show();
  const auto checkbox_named = [](QWidget& parent, const QString& text) -> QCheckBox* {
    for (QCheckBox* box : parent.findChildren<QCheckBox*>()) {
      if (box->text() == text) return box;
    }
    return nullptr;
  };
  const auto pick = [&](bool make_public, bool* offered) {
    QTimer::singleShot(0, [&, make_public, offered] {
      ASSERT_TRUE(ProcessEventsUntil([] { return QApplication::activeModalWidget() != nullptr; }));
      auto* picker = dynamic_cast<PickerDialog*>(QApplication::activeModalWidget());
      ASSERT_NE(picker, nullptr);
      QCheckBox* box = checkbox_named(*picker, "Anyone with the link can watch");
      *offered = box != nullptr;
      if (box != nullptr) {
        EXPECT_FALSE(box->isChecked()) << "off by default";
        box->setChecked(make_public);
        SaveScreenshot(*picker, "picker_public_choice");
      }
      QListWidgetItem* item = ItemLabelled(*picker->list(), "Public window");
      ASSERT_NE(item, nullptr);
      item->setSelected(true);
      ButtonNamed(*picker, "Share")->click();
    });
  };
  bool offered = false;
  pick(true, &offered);
  ButtonNamed(main_window, "Share something...")->click();
  EXPECT_TRUE(offered);
  ASSERT_TRUE(host.sharing().active());
  EXPECT_TRUE(host.sharing().is_public());
  EXPECT_FALSE(LabelStartingWith(main_window, "Anyone with the link can watch, with or without Mirell").isEmpty());
  SaveScreenshot(main_window, "main_window_public_share");

  pick(false, &offered);
  ButtonNamed(main_window, "Share something else...")->click();
  EXPECT_FALSE(offered) << "swapping what is shown keeps the share as it is";
  EXPECT_TRUE(host.sharing().is_public());

  ButtonNamed(main_window, "Stop sharing")->click();
  EXPECT_FALSE(host.sharing().is_public());
  EXPECT_FALSE(LabelStartingWith(main_window, "Paste this into a video player").isEmpty());
  pick(false, &offered);
  ButtonNamed(main_window, "Share something...")->click();
  EXPECT_TRUE(offered);
  EXPECT_FALSE(host.sharing().is_public());
  host.sharing().Stop();
}

TEST_F(WindowOnX11, AShareWithoutATimeLimitOffersNoExtensionAndNoCountdown) {
  capture::TestWindow window(display_->name(), {"--title", "Without a limit", "--size", "320x200",
                                                "--color", "0000ff", "--color2", "ffff00", "--bars"});
  ASSERT_NE(window.id(), 0u);
  DaemonConfig config;
  config.share_prefix = "mirell.example/s/";  // No signal server here.
  config.install_stub = false;
  config.share_lifetime_minutes = 0;
  DaemonHost host(config);
  MainWindow main_window(&host);
  main_window.show();
  session::ShareTarget target;
  target.capture.kind = capture::CaptureKind::kWindow;
  target.capture.window = window.id();
  target.label = "Without a limit";
  host.sharing().Start(target);
  ASSERT_TRUE(ProcessEventsUntil(
      [&] { return !LabelStartingWith(main_window, "Sharing Without a limit.").isEmpty(); }));
  EXPECT_LT(host.sharing().seconds_left(), 1);
  EXPECT_TRUE(LabelStartingWith(main_window, "Stops by itself").isEmpty());
  EXPECT_FALSE(ButtonNamed(main_window, "Give it longer")->isEnabled());
  EXPECT_TRUE(ButtonNamed(main_window, "Stop sharing")->isEnabled());
  host.sharing().Stop();
}

}  // namespace
}  // namespace mirell::ui
