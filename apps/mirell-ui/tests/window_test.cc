// The main window's pieces in-process: texts, the viewers table, the admission prompt, the
// window without a share, and the picker with nothing to pick.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QAction>
#include <QMenu>
#include <QSettings>
#include <QSystemTrayIcon>
#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QTableWidget>
#include <QTimer>
#include <chrono>
#include <fstream>
#include <functional>

#include "admission_prompt.h"
#include "allowlist_dialog.h"
#include "session_allowlist.h"
#include "daemon_host.h"
#include "main_window.h"
#include "mirell/testsupport/subprocess.h"
#include "picker_dialog.h"
#include "quality_dialog.h"
#include "qt_test_application.h"
#include "viewers_table.h"
#include "window_texts.h"

namespace mirell::ui {
namespace {

session::ViewerInfo Viewer(std::string id, std::string identity = {}, std::string name = {}) {
  session::ViewerInfo viewer;
  viewer.connection_id = std::move(id);
  viewer.identity = std::move(identity);
  viewer.display_name = std::move(name);
  return viewer;
}




TEST(WindowTexts, DurationsRollOverAtAMinuteAndAnHour) {
  TestApplication();
  EXPECT_EQ(DurationText(0), "0s");
  EXPECT_EQ(DurationText(59), "59s");
  EXPECT_EQ(DurationText(60), "1m 0s");
  EXPECT_EQ(DurationText(3599), "59m 59s");
  EXPECT_EQ(DurationText(3600), "1h 00m");
  EXPECT_EQ(DurationText(3600 * 5 + 7 * 60 + 59), "5h 07m");
}

TEST(WindowTexts, RatesInKbpsThenMbpsWithOneDecimal) {
  TestApplication();
  EXPECT_EQ(RateText(0), "-");
  EXPECT_EQ(RateText(1), "1 kbps");
  EXPECT_EQ(RateText(999), "999 kbps");
  EXPECT_EQ(RateText(1000), "1.0 Mbps");
  EXPECT_EQ(RateText(6250), "6.3 Mbps");
}

TEST(WindowTexts, PeerStatesInWords) {
  TestApplication();
  EXPECT_EQ(PeerStateText(transport::PeerState::kConnecting), "connecting");
  EXPECT_EQ(PeerStateText(transport::PeerState::kConnected), "watching");
  EXPECT_EQ(PeerStateText(transport::PeerState::kFailed), "failed");
  EXPECT_EQ(PeerStateText(transport::PeerState::kClosed), "closed");
  EXPECT_EQ(PeerStateText(static_cast<transport::PeerState>(9)), "unknown");
}

TEST(WindowTexts, AViewerWhoseComputerProvedItsKeyIsShownCheckedAndQuotesTheUserIdNotTheName) {
  TestApplication();
  session::ViewerInfo viewer = Viewer("c1", "usr_0123", "Ann");
  viewer.key_fingerprint = "SHA256:abc";
  viewer.allowlisted = true;
  const ViewerCell cell = ViewerCellFor(viewer);
  EXPECT_EQ(cell.text, "Ann (checked)");
  EXPECT_EQ(cell.tool_tip,
            "Says they're usr_0123 in VRChat, from a computer that proved its key (SHA256:abc).\n"
            "Connection id: c1\nOn your list with this computer, so let in automatically.");
  viewer.allowlisted = false;
  EXPECT_EQ(ViewerCellFor(viewer).tool_tip,
            "Says they're usr_0123 in VRChat, from a computer that proved its key (SHA256:abc).\n"
            "Connection id: c1");
}

TEST(WindowTexts, AViewerThatProvedNothingIsShownNotChecked) {
  TestApplication();
  session::ViewerInfo viewer = Viewer("c1", "usr_0123", "Ann");
  viewer.allowlisted = true;  // A command-line entry: by the claim alone.
  const ViewerCell cell = ViewerCellFor(viewer);
  EXPECT_EQ(cell.text, "Ann (not checked)");
  EXPECT_EQ(cell.tool_tip,
            "Says they're usr_0123 in VRChat. Mirell can't check that: their computer proved no "
            "key.\nConnection id: c1\nOn the list for this run by claimed id only, so let in "
            "without a check.");
}

TEST(WindowTexts, AViewerWithOnlyAnIdOrNothingAtAll) {
  TestApplication();
  const ViewerCell id_only = ViewerCellFor(Viewer("c2", "usr_9"));
  EXPECT_EQ(id_only.text, "usr_9 (not checked)");
  EXPECT_EQ(id_only.tool_tip,
            "Says they're usr_9 in VRChat. Mirell can't check that: their computer proved no "
            "key.\nConnection id: c2");
  const ViewerCell nobody = ViewerCellFor(Viewer("c3"));
  EXPECT_EQ(nobody.text, "c3");
  EXPECT_EQ(nobody.tool_tip,
            "They didn't say who they are. This is the id the signal server gave them.");
}

TEST(WindowTexts, TheRelayIsNamedForWhatItDoes) {
  TestApplication();
  session::ViewerInfo relay = Viewer("r1");
  relay.relay = true;
  const ViewerCell cell = ViewerCellFor(relay);
  EXPECT_EQ(cell.text, "Relay for players without Mirell");
  EXPECT_TRUE(cell.tool_tip.endsWith("Connection id: r1")) << cell.tool_tip.toStdString();
}

TEST(ViewersTable, RowsAreKeyedByConnectionAndUpdatedInPlace) {
  TestApplication();
  QTableWidget table;
  SetUpViewersTable(table);
  ASSERT_EQ(table.columnCount(), 4);
  EXPECT_EQ(table.horizontalHeaderItem(1)->text(), "Watching for");
  EXPECT_EQ(table.horizontalHeaderItem(2)->toolTip(),
            "Video sent to this viewer, averaged over a few seconds. Your actual usage is about "
            "3% higher.");

  session::ViewerInfo a = Viewer("a", "usr_a", "Ann");
  session::ViewerInfo b = Viewer("b");
  a.seconds = 61;
  a.uplink_kbps = 2500;
  a.state = transport::PeerState::kConnected;
  UpdateViewersTable(table, {a, b});
  ASSERT_EQ(table.rowCount(), 2);
  table.selectRow(1);
  ASSERT_EQ(SelectedConnectionId(table), "b");

  a.seconds = 62;
  UpdateViewersTable(table, {b, a});  // Another order: rows stay where they are.
  ASSERT_EQ(table.rowCount(), 2);
  EXPECT_EQ(table.item(0, 0)->text(), "Ann (not checked)");
  EXPECT_EQ(table.item(0, 1)->text(), "1m 2s");
  EXPECT_EQ(table.item(0, 2)->text(), "2.5 Mbps");
  EXPECT_EQ(table.item(0, 3)->text(), "watching");
  EXPECT_EQ(table.item(1, 2)->text(), "-");
  EXPECT_EQ(SelectedConnectionId(table), "b") << "the selection survives a refresh";
}

TEST(ViewersTable, AViewerThatLeavesWhileSelectedTakesTheSelectionWithIt) {
  TestApplication();
  QTableWidget table;
  SetUpViewersTable(table);
  UpdateViewersTable(table, {Viewer("a"), Viewer("b"), Viewer("c")});
  table.selectRow(1);
  ASSERT_EQ(SelectedConnectionId(table), "b");
  UpdateViewersTable(table, {Viewer("a"), Viewer("c")});
  ASSERT_EQ(table.rowCount(), 2);
  EXPECT_EQ(table.item(0, 0)->data(Qt::UserRole).toString(), "a");
  EXPECT_EQ(table.item(1, 0)->data(Qt::UserRole).toString(), "c");
  EXPECT_TRUE(SelectedConnectionId(table).isEmpty());
}

TEST(AdmissionPrompt, ClosingTheBoxIsANo) {
  TestApplication();
  QString text;
  QString informative;
  WhenModalOpens([&](QWidget& modal) {
    auto& box = dynamic_cast<QMessageBox&>(modal);
    text = box.text();
    informative = box.informativeText();
    box.close();
  });
  EXPECT_FALSE(AskAdmission(nullptr, "Game", "conn-7", "usr_1", "Ann").admit);
  EXPECT_EQ(text, "Someone is asking to watch Game.");
  EXPECT_EQ(informative,
            "Says they're Ann in VRChat (usr_1). Mirell can't check that: their computer proved no key.");
}

TEST(AdmissionPrompt, LetThemWatchIsAYesAndNoIsANo) {
  TestApplication();
  QString informative;
  WhenModalOpens([&](QWidget& modal) {
    informative = dynamic_cast<QMessageBox&>(modal).informativeText();
    ButtonNamed(modal, "Let them watch")->click();
  });
  EXPECT_TRUE(AskAdmission(nullptr, "Game", "conn-7", "", "").admit);
  EXPECT_EQ(informative, "They didn't say who they are. Mirell only knows them as conn-7.");

  WhenModalOpens([&](QWidget& modal) {
    informative = dynamic_cast<QMessageBox&>(modal).informativeText();
    ButtonNamed(modal, "No")->click();
  });
  EXPECT_FALSE(AskAdmission(nullptr, "Game", "conn-7", "usr_2", "").admit);
  EXPECT_EQ(informative, "Says they're usr_2. Mirell can't check that: their computer proved no key.");

  WhenModalOpens([&](QWidget& modal) {
    informative = dynamic_cast<QMessageBox&>(modal).informativeText();
    SaveScreenshot(dynamic_cast<QMessageBox&>(modal), "admission_prompt_key_proved");
    ButtonNamed(modal, "No")->click();
  });
  EXPECT_FALSE(AskAdmission(nullptr, "Game", "conn-7", "usr_2", "Bob", "SHA256:k").admit);
  EXPECT_EQ(informative,
            "Says they're Bob in VRChat (usr_2). Mirell can't check a VRChat id, but it knows this "
            "computer by its key: let them in from now on, and only this computer gets in unasked.");
}

class MainWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TestApplication();
    // Nothing of a real VRChat installation is read.
    previous_home_ = qgetenv("HOME");
    qputenv("HOME", QByteArray::fromStdString(home_.path().string()));
    config_.share_prefix = "mirell.example/s/";  // Links, but no signal server here.
    config_.install_stub = false;
    host_ = std::make_unique<DaemonHost>(config_);
  }
  void TearDown() override { qputenv("HOME", previous_home_); }

  testsupport::TempDir home_;
  QByteArray previous_home_;
  DaemonConfig config_;
  std::unique_ptr<DaemonHost> host_;

  // Runs the event loop until every admission box of the window has been answered.
  static bool AnsweredWithin(const MainWindow& window) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (window.open_prompts() != 0) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      QApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
  }
};

TEST_F(MainWindowTest, WithoutAShareOnlyTheShareButtonWorks) {
  MainWindow window(host_.get());
  window.show();
  EXPECT_EQ(window.windowTitle(), "Mirell");
  EXPECT_EQ(window.size(), QSize(660, 620));
  EXPECT_EQ(LabelStartingWith(window, "Not sharing."),
            "Not sharing. Started with --no-stub: VRChat's own resolver stays in place, so share "
            "links pasted in VRChat won't play.")
      << "asked for, not a failure";
  DaemonConfig failed = config_;
  failed.install_stub = true;  // Asked for, and not in place (the host is not even started).
  DaemonHost failed_host(failed);
  MainWindow failed_window(&failed_host);
  failed_window.show();
  EXPECT_EQ(LabelStartingWith(failed_window, "Not sharing."),
            "Not sharing. Mirell couldn't replace VRChat's resolver, so share links won't play. "
            "Check the log.");
  EXPECT_EQ(LabelStartingWith(window, "VRChat account:"),
            "VRChat account: not detected. Start VRChat and sign in.");
  EXPECT_EQ(LabelStartingWith(window, "Not watching"), "Not watching anybody.");
  ASSERT_NE(ButtonNamed(window, "Share something..."), nullptr);
  EXPECT_TRUE(ButtonNamed(window, "Share something...")->isEnabled());
  for (const char* disabled : {"Stop sharing", "Copy", "New link", "Give it longer",
                               "Remove this viewer"}) {
    ASSERT_NE(ButtonNamed(window, disabled), nullptr) << disabled;
    EXPECT_FALSE(ButtonNamed(window, disabled)->isEnabled()) << disabled;
  }
  const auto* link = window.findChild<QLineEdit*>();
  ASSERT_NE(link, nullptr);
  EXPECT_TRUE(link->text().isEmpty());
  EXPECT_EQ(link->placeholderText(), "Start sharing to get a link");
  SaveScreenshot(window, "main_window_idle");
}

TEST_F(MainWindowTest, TheUntrustedUrlBannerShowsOnlyWhenVRChatSaysItIsOff) {
  const QString banner_start = "VRChat has Allow Untrusted URLs switched off";
  {
    MainWindow window(host_.get());
    window.show();
    EXPECT_TRUE(LabelStartingWith(window, banner_start).isEmpty())
        << "no VRChat here: no claim is made without knowledge";
  }
  // VRChat's preferences in its Proton prefix, as Wine keeps them, with the setting off.
  const std::filesystem::path prefix =
      home_.path() / ".local/share/Steam/steamapps/compatdata/438100/pfx";
  std::filesystem::create_directories(prefix);
  std::ofstream(prefix / "user.reg") << ("WINE REGISTRY Version 2\n\n[Software\\\\VRChat\\\\VRChat] 1700000100\n"
                             "\"VRC_ALLOW_UNTRUSTED_URL_h3795044449\"=dword:00000000\n");
  MainWindow window(host_.get());
  window.show();
  const QString banner = LabelStartingWith(window, banner_start);
  EXPECT_EQ(banner,
            "VRChat has Allow Untrusted URLs switched off, so share links will load and then "
            "show nothing.\n\nTurn it on in Settings, then Comfort & Safety, then Allow Untrusted "
            "URLs. VRChat saves its settings when it exits, so this can take a moment to catch up.");
  SaveScreenshot(window, "main_window_untrusted_urls_off");
}

TEST(AdmissionPrompt, AViewerWithAnIdCanBeRememberedOnlyWhenLetIn) {
  TestApplication();
  QString box_text;
  QString tip;
  WhenModalOpens([&](QWidget& modal) {
    QCheckBox* always = dynamic_cast<QMessageBox&>(modal).checkBox();
    ASSERT_NE(always, nullptr);
    box_text = always->text();
    tip = always->toolTip();
    always->setChecked(true);
    ButtonNamed(modal, "Let them watch")->click();
  });
  const AdmissionAnswer answer = AskAdmission(nullptr, "Game", "conn-7", "usr_1", "Ann", "SHA256:k");
  EXPECT_TRUE(answer.admit);
  EXPECT_TRUE(answer.remember);
  EXPECT_EQ(box_text, "Always let Ann in without asking");
  EXPECT_EQ(tip, "Adds them to Who can watch with this computer's key (SHA256:k), so they skip "
                 "this next time. From another computer they are asked again.");

  WhenModalOpens([&](QWidget& modal) {
    QCheckBox* always = dynamic_cast<QMessageBox&>(modal).checkBox();
    ASSERT_NE(always, nullptr);
    box_text = always->text();
    always->setChecked(true);
    modal.close();
  });
  const AdmissionAnswer closed = AskAdmission(nullptr, "Game", "conn-8", "usr_2", "", "SHA256:k");
  EXPECT_FALSE(closed.admit);
  EXPECT_FALSE(closed.remember) << "a no remembers nobody";
  EXPECT_EQ(box_text, "Let them in from now on without asking");

  bool had_check_box = true;
  WhenModalOpens([&](QWidget& modal) {
    had_check_box = dynamic_cast<QMessageBox&>(modal).checkBox() != nullptr;
    ButtonNamed(modal, "Let them watch")->click();
  });
  EXPECT_FALSE(AskAdmission(nullptr, "Game", "conn-9", "", "").remember);
  EXPECT_FALSE(had_check_box) << "without an id there is nothing to remember them by";
  had_check_box = true;
  WhenModalOpens([&](QWidget& modal) {
    had_check_box = dynamic_cast<QMessageBox&>(modal).checkBox() != nullptr;
    ButtonNamed(modal, "Let them watch")->click();
  });
  EXPECT_FALSE(AskAdmission(nullptr, "Game", "conn-9", "usr_2", "Bob").remember);
  EXPECT_FALSE(had_check_box) << "an id without a proved key is what anyone can claim";
}

TEST(AdmissionPrompt, AListedIdFromAnotherComputerIsAWarning) {
  TestApplication();
  QString informative;
  QMessageBox::Icon icon = QMessageBox::NoIcon;
  WhenModalOpens([&](QWidget& modal) {
    auto& box = dynamic_cast<QMessageBox&>(modal);
    informative = box.informativeText();
    icon = box.icon();
    SaveScreenshot(box, "admission_prompt_other_computer");
    box.close();
  });
  EXPECT_FALSE(AskAdmission(nullptr, "Game", "conn-7", "usr_1", "Ann", "SHA256:new", true).admit);
  EXPECT_EQ(icon, QMessageBox::Warning);
  EXPECT_EQ(informative,
            "Claims to be Ann in VRChat (usr_1) from a computer you have not let in before. If it "
            "isn't them, someone else is using their id: let them in only if you know it's them.");
}

TEST(SessionAllowlist, DuplicateIdsKeepTheFirstNameAndEveryKey) {
  const session::Allowlist allowlist = SessionAllowlistOf(
      {{"usr_a", "first", {"SHA256:1"}}, {"usr_b", "Bob", {}}, {"usr_a", "second", {"SHA256:2", "SHA256:1"}}});
  ASSERT_EQ(allowlist.size(), 2u);
  EXPECT_EQ(allowlist.at("usr_a").name, "first");
  EXPECT_EQ(allowlist.at("usr_a").key_fingerprints, (std::vector<std::string>{"SHA256:1", "SHA256:2"}));
  EXPECT_FALSE(allowlist.at("usr_a").by_claim_only);
  EXPECT_TRUE(allowlist.at("usr_b").key_fingerprints.empty());
}

TEST(AllowlistDialogTest, AWrongIdIsFramedRedAndKeptAndARightOneIsListed) {
  TestApplication();
  AllowlistDialog dialog(std::vector<settings::AllowlistEntry>{{"4KxR2TmqZa", "", {}}});
  dialog.show();
  EXPECT_EQ(dialog.windowTitle(), "Who can watch without being asked");
  auto* list = dialog.findChild<QListWidget*>();
  const QList<QLineEdit*> edits = dialog.findChildren<QLineEdit*>();
  ASSERT_EQ(edits.size(), 2);
  ASSERT_EQ(list->count(), 1);
  EXPECT_EQ(list->item(0)->text(), "4KxR2TmqZa");
  EXPECT_FALSE(ButtonNamed(dialog, "Remove selected")->isEnabled());

  edits[0]->setText("usr_nope");
  ButtonNamed(dialog, "Add")->click();
  EXPECT_EQ(edits[0]->text(), "usr_nope") << "kept to be corrected";
  EXPECT_EQ(edits[0]->styleSheet(), "QLineEdit { border: 1px solid red; }");
  EXPECT_TRUE(edits[0]->toolTip().startsWith("That isn't a VRChat user id."));
  EXPECT_EQ(list->count(), 1);

  edits[0]->setText("  usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413 ");
  edits[1]->setText("Ann");
  ButtonNamed(dialog, "Add")->click();
  EXPECT_TRUE(edits[0]->text().isEmpty());
  EXPECT_TRUE(edits[0]->styleSheet().isEmpty());
  ASSERT_EQ(list->count(), 2);
  EXPECT_EQ(list->item(1)->text(), "Ann (usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413)");
  SaveScreenshot(dialog, "allowlist_dialog");

  list->item(0)->setSelected(true);
  ASSERT_TRUE(ButtonNamed(dialog, "Remove selected")->isEnabled());
  ButtonNamed(dialog, "Remove selected")->click();
  ASSERT_EQ(dialog.entries().size(), 1u);
  EXPECT_EQ(dialog.entries()[0].name, "Ann");
  EXPECT_FALSE(ButtonNamed(dialog, "Remove selected")->isEnabled());
}

TEST(QualityDialogTest, BitratesInTwoSignificantDigits) {
  TestApplication();
  EXPECT_EQ(BitrateText(900), "900 kbit/s");
  EXPECT_EQ(BitrateText(1500), "1.5 Mbit/s");
  EXPECT_EQ(BitrateText(6000), "6 Mbit/s");
  EXPECT_EQ(BitrateText(16000), "16 Mbit/s");
  EXPECT_EQ(BitrateText(99400), "99 Mbit/s");
  EXPECT_EQ(BitrateText(100512), "100 Mbit/s") << "never \"1e+02\"";
  EXPECT_EQ(BitrateText(126000), "130 Mbit/s");
}

TEST(QualityDialogTest, TheDefaultsEstimateAboutSixMegabitsAViewer) {
  TestApplication();
  QualityDialog dialog(encode::ShareQuality{}, false);
  dialog.show();
  EXPECT_EQ(dialog.windowTitle(), "Quality");
  EXPECT_EQ(LabelStartingWith(dialog, "About "),
            "About 6.1 Mbit/s of upload for each person watching, so 25 Mbit/s for four.");
  EXPECT_TRUE(LabelStartingWith(dialog, "You're sharing now").isEmpty());
  const QList<QComboBox*> combos = dialog.findChildren<QComboBox*>();
  ASSERT_EQ(combos.size(), 4);
  EXPECT_EQ(combos[0]->currentText(), "1280 x 720");
  EXPECT_EQ(combos[1]->currentText(), "30 per second");
  EXPECT_EQ(combos[2]->currentText(), "6 Mbit/s");
  EXPECT_EQ(combos[3]->currentText(), "128 kbit/s");
  combos[2]->setCurrentIndex(combos[2]->findData(25000u));
  EXPECT_EQ(LabelStartingWith(dialog, "About "),
            "About 25 Mbit/s of upload for each person watching, so 100 Mbit/s for four.");
  SaveScreenshot(dialog, "quality_dialog");
}

TEST(QualityDialogTest, HandSetValuesSurviveAsExtraChoicesAndOkReturnsTheChoice) {
  TestApplication();
  QualityDialog dialog(encode::ShareQuality{1366, 768, 25, 7000, 96, true}, true);
  dialog.show();
  const QList<QComboBox*> combos = dialog.findChildren<QComboBox*>();
  ASSERT_EQ(combos.size(), 4);
  EXPECT_EQ(combos[0]->currentText(), "1366 x 768");
  EXPECT_EQ(combos[0]->count(), 6);
  EXPECT_EQ(combos[1]->currentText(), "25 per second");
  EXPECT_EQ(combos[2]->currentText(), "7 Mbit/s");
  EXPECT_EQ(combos[2]->count(), 7);
  EXPECT_TRUE(dialog.findChild<QCheckBox*>()->isChecked());
  EXPECT_EQ(LabelStartingWith(dialog, "You're sharing now"),
            "You're sharing now, so this applies to the next share. The one running keeps what "
            "it started with.");
  combos[0]->setCurrentIndex(3);  // 1920 x 1080
  combos[1]->setCurrentIndex(2);  // 60 per second
  dialog.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok)->click();
  EXPECT_EQ(dialog.result(), QDialog::Accepted);
  EXPECT_EQ(dialog.settings().width, 1920u);
  EXPECT_EQ(dialog.settings().height, 1080u);
  EXPECT_EQ(dialog.settings().fps, 60u);
  EXPECT_EQ(dialog.settings().video_kbps, 7000u);
  EXPECT_EQ(dialog.settings().audio_kbps, 96u);
  EXPECT_TRUE(dialog.settings().mono);
}

TEST_F(MainWindowTest, TheVRChatAccountOfItsLogIsShownWithTheLogsName) {
  // VRChat under Proton, signed in, with a log in its prefix under the temporary home.
  const std::filesystem::path vrchat =
      home_.path() / ".local/share/Steam/steamapps/compatdata/438100/pfx/drive_c/users/steamuser/"
                     "AppData/LocalLow/VRChat/VRChat";
  std::filesystem::create_directories(vrchat);
  std::ofstream(vrchat / "output_log_2026-11-24_10-00-00.txt")
      << "2026.11.24 10:00:01 Log        -  User Authenticated: Ann (usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413)\n";
  host_->Poll();  // The process's heartbeat reads the log; the window shows what it found.
  MainWindow window(host_.get());
  const QLabel* account = nullptr;
  for (const QLabel* label : window.findChildren<QLabel*>()) {
    if (label->text().startsWith("VRChat account:")) account = label;
  }
  ASSERT_NE(account, nullptr);
  EXPECT_EQ(account->text(), "VRChat account: Ann (usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413)");
  EXPECT_EQ(account->toolTip(),
            "Read from output_log_2026-11-24_10-00-00.txt.\n\nThis is who you show up as when you "
            "watch someone else's share.");
  EXPECT_TRUE(account->textInteractionFlags() & Qt::TextSelectableByMouse);
}

TEST_F(MainWindowTest, LettingSomeoneInForGoodStoresThemWithTheirComputersKey) {
  MainWindow window(host_.get());
  settings::SaveAllowlist({});
  WhenModalOpens([](QWidget& modal) {
    dynamic_cast<QMessageBox&>(modal).checkBox()->setChecked(true);
    ButtonNamed(modal, "Let them watch")->click();
  });
  window.PromptAdmission("conn-1", "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413", "Ann", "SHA256:ann");
  ASSERT_TRUE(AnsweredWithin(window));
  const std::vector<settings::AllowlistEntry> stored = settings::LoadAllowlist();
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored[0].user_id, "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413");
  EXPECT_EQ(stored[0].name, "Ann");
  EXPECT_EQ(stored[0].key_fingerprints, std::vector<std::string>{"SHA256:ann"});

  WhenModalOpens([](QWidget& modal) {
    dynamic_cast<QMessageBox&>(modal).checkBox()->setChecked(true);
    ButtonNamed(modal, "No")->click();
  });
  window.PromptAdmission("conn-2", "usr_0a1b2c3d-4e5f-6789-abcd-ef0123456789", "Bob", "SHA256:bob");
  ASSERT_TRUE(AnsweredWithin(window));
  EXPECT_EQ(settings::LoadAllowlist().size(), 1u) << "someone turned away is not remembered";
  settings::SaveAllowlist({});
}

// A list from before computers were checked: the first visit let in binds the entry to that
// computer, ticked or not; a listed id from another computer is let in once without changing it.
TEST_F(MainWindowTest, AnEntryWithoutAKeyTakesTheKeyOfTheVisitLetIn) {
  MainWindow window(host_.get());
  const std::string ann = "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413";
  settings::SaveAllowlist({{ann, "Ann", {}}});
  WhenModalOpens([](QWidget& modal) { ButtonNamed(modal, "Let them watch")->click(); });
  window.PromptAdmission("conn-1", QString::fromStdString(ann), "Ann", "SHA256:first");
  ASSERT_TRUE(AnsweredWithin(window));
  EXPECT_EQ(settings::LoadAllowlist().at(0).key_fingerprints, std::vector<std::string>{"SHA256:first"});

  WhenModalOpens([](QWidget& modal) { ButtonNamed(modal, "Let them watch")->click(); });
  window.PromptAdmission("conn-2", QString::fromStdString(ann), "Ann", "SHA256:other", true);
  ASSERT_TRUE(AnsweredWithin(window));
  EXPECT_EQ(settings::LoadAllowlist().at(0).key_fingerprints, std::vector<std::string>{"SHA256:first"});
  settings::SaveAllowlist({});
}

// Each waiting viewer has one box; asking again replaces it, and leaving closes it unanswered.
TEST_F(MainWindowTest, OneBoxPerWaitingViewerClosedWhenTheyLeave) {
  MainWindow window(host_.get());
  window.show();
  settings::SaveAllowlist({});
  window.PromptAdmission("conn-1", "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413", "Ann");
  window.PromptAdmission("conn-2", "", "");
  window.PromptAdmission("conn-1", "usr_3f1e7c20-9b4d-4e6a-8c15-7a2d90b6e413", "Ann");
  QApplication::processEvents();
  EXPECT_EQ(window.open_prompts(), 2u);
  const auto visible_boxes = [] {
    int count = 0;
    for (QWidget* widget : QApplication::topLevelWidgets()) {
      if (qobject_cast<QMessageBox*>(widget) != nullptr && widget->isVisible()) ++count;
    }
    return count;
  };
  EXPECT_EQ(visible_boxes(), 2);
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (qobject_cast<QMessageBox*>(widget) != nullptr && widget->isVisible()) {
      SaveScreenshot(*widget, "admission_prompt_window_modal");
      break;
    }
  }

  window.WithdrawAdmissionPrompt("conn-1");
  window.WithdrawAdmissionPrompt("conn-9");  // Never asked about: nothing.
  QApplication::processEvents();
  EXPECT_EQ(window.open_prompts(), 1u);
  EXPECT_EQ(visible_boxes(), 1);
  EXPECT_TRUE(settings::LoadAllowlist().empty()) << "a box closed because they left decides nothing";

  window.WithdrawAdmissionPrompt("conn-2");
  QApplication::processEvents();
  EXPECT_EQ(window.open_prompts(), 0u);
  EXPECT_EQ(visible_boxes(), 0);
}

TEST_F(MainWindowTest, NetworkSavesTheChoiceAndHandsItsServersToTheHost) {
  MainWindow window(host_.get());
  window.show();
  QPushButton* network = ButtonNamed(window, "Network...");
  ASSERT_NE(network, nullptr);
  EXPECT_TRUE(network->isVisible());
  QStringList menu;
  for (const QAction* action : window.tray()->contextMenu()->actions()) {
    if (!action->isSeparator() && action->isVisible()) menu << action->text();
  }
  EXPECT_EQ(menu, (QStringList{"Show", "Share something...", "Stop sharing", "Who can watch...",
                               "Quality...", "Network...", "Quit Mirell"}));

  WhenModalOpens([](QWidget& modal) {
    auto* combo = modal.findChild<QComboBox*>();
    combo->setCurrentIndex(combo->findData("google"));
    for (QLineEdit* edit : modal.findChildren<QLineEdit*>()) {
      if (edit->placeholderText().startsWith("turn:")) edit->setText(" turn:relay.example:3478 ");
    }
    modal.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Save)->click();
  });
  network->click();
  EXPECT_EQ(QSettings().value("network/stun").toString(), "google");
  EXPECT_EQ(QSettings().value("network/turnUrl").toString(), "turn:relay.example:3478");
  const std::vector<transport::IceServer>& servers = host_->config().ice_servers;
  ASSERT_EQ(servers.size(), 2u);
  EXPECT_EQ(servers[0].url, "stun:stun.l.google.com:19302");
  EXPECT_EQ(servers[1].url, "turn:relay.example:3478");
  EXPECT_EQ(host_->config().ice_policy, 0u);

  WhenModalOpens([](QWidget& modal) { dynamic_cast<QDialog&>(modal).reject(); });
  network->click();
  EXPECT_EQ(host_->config().ice_servers.size(), 2u) << "Cancel changes nothing";
  QSettings().remove("network");
}

TEST(PickerDialogTest, NothingToPickLeavesShareDisabledAndCancelLeavesNoResult) {
  TestApplication();
  // A Wayland session without XWayland: no monitor and no window for the capture layer.
  const QByteArray display = qgetenv("DISPLAY");
  const QByteArray wayland = qgetenv("WAYLAND_DISPLAY");
  qunsetenv("DISPLAY");
  qputenv("WAYLAND_DISPLAY", "wayland-0");
  PickerDialog picker;
  if (!display.isEmpty()) qputenv("DISPLAY", display);
  if (wayland.isEmpty()) qunsetenv("WAYLAND_DISPLAY"); else qputenv("WAYLAND_DISPLAY", wayland);
  EXPECT_TRUE(LabelStartingWith(picker, "Can't share from here: window and screen capture need an "
                                        "X11 session or XWayland for now")
                  .endsWith("."))
      << "the picker says why the list is empty";
  EXPECT_EQ(picker.windowTitle(), "Share a screen or a window");
  EXPECT_EQ(picker.list()->count(), 0);
  QPushButton* share = ButtonNamed(picker, "Share");
  ASSERT_NE(share, nullptr);
  EXPECT_FALSE(share->isEnabled());
  EXPECT_FALSE(share->isDefault());
  EXPECT_FALSE(share->autoDefault());
  WhenModalOpens([](QWidget& modal) { dynamic_cast<QDialog&>(modal).reject(); });
  EXPECT_EQ(picker.exec(), QDialog::Rejected);
  EXPECT_FALSE(picker.result().has_value());
}

TEST(PickerDialogTest, BlankMeansEveryFourthPixelEqualsTheFirst) {
  TestApplication();
  EXPECT_TRUE(IsBlankImage(QImage()));
  QImage black(64, 36, QImage::Format_RGB32);
  black.fill(Qt::black);
  EXPECT_TRUE(IsBlankImage(black)) << "a fully black screen has nothing to show";
  QImage off_grid = black;
  off_grid.setPixel(1, 1, qRgb(255, 255, 255));
  EXPECT_TRUE(IsBlankImage(off_grid)) << "only one pixel in sixteen is looked at";
  QImage on_grid = black;
  on_grid.setPixel(8, 4, qRgb(255, 255, 255));
  EXPECT_FALSE(IsBlankImage(on_grid));
}

TEST(PickerDialogTest, ThePlaceholderIsKeptForItsSize) {
  TestApplication();
  const QPixmap first = PlaceholderIcon(QSize(256, 144));
  EXPECT_EQ(first.size(), QSize(256, 144));
  EXPECT_EQ(PlaceholderIcon(QSize(256, 144)).cacheKey(), first.cacheKey());
  EXPECT_EQ(PlaceholderIcon(QSize(64, 36)).size(), QSize(64, 36));
}

}  // namespace
}  // namespace mirell::ui
