// The network dialog and the update prompt in-process, on Qt's offscreen platform; the update
// check against a real HTTPS server on loopback with a certificate of the tests' own authority.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QLineEdit>
#include <QLabel>
#include <QMainWindow>
#include <QRadioButton>
#include <QMessageBox>
#include <QSettings>
#include <QTimer>
#include <QUrl>
#include <chrono>
#include <thread>

#include "mirell/testsupport/https_test_server.h"
#include "meeting_place_chooser.h"
#include "meeting_place_dialog.h"
#include "network_dialog.h"
#include "qt_test_application.h"
#include "update_prompt.h"
#include "url_catcher.h"

namespace mirell::ui {
namespace {

using namespace std::chrono_literals;

QLineEdit* EditWithPlaceholderStarting(const QWidget& widget, const QString& prefix) {
  for (QLineEdit* edit : widget.findChildren<QLineEdit*>()) {
    if (!edit->placeholderText().isEmpty() && edit->placeholderText().startsWith(prefix)) {
      return edit;
    }
  }
  return nullptr;
}

QLineEdit* PasswordEdit(const QWidget& widget) {
  for (QLineEdit* edit : widget.findChildren<QLineEdit*>()) {
    if (edit->echoMode() == QLineEdit::Password) return edit;
  }
  return nullptr;
}

struct DialogParts {
  QComboBox* combo;
  QLineEdit* custom;
  QLineEdit* turn_url;
  QLineEdit* password;
};

DialogParts PartsOf(const NetworkDialog& dialog) {
  DialogParts parts{dialog.findChild<QComboBox*>(), EditWithPlaceholderStarting(dialog, "stun:"),
                    EditWithPlaceholderStarting(dialog, "turn:"), PasswordEdit(dialog)};
  EXPECT_NE(parts.combo, nullptr);
  EXPECT_NE(parts.custom, nullptr);
  EXPECT_NE(parts.turn_url, nullptr);
  EXPECT_NE(parts.password, nullptr);
  return parts;
}

void Save(QDialog& dialog) {
  dialog.findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Save)->click();
}

TEST(NetworkDialogTest, TheChoicesTheirNotesAndTheWordsAboutWhoLearnsWhat) {
  TestApplication();
  NetworkDialog dialog(settings::NetworkSettings{});
  EXPECT_EQ(dialog.windowTitle(), "Network");
  EXPECT_EQ(dialog.minimumWidth(), 560);
  const DialogParts parts = PartsOf(dialog);
  ASSERT_EQ(parts.combo->count(), 4);
  const QStringList labels{"Cloudflare", "Google", "None", "Custom..."};
  const QStringList ids{"cloudflare", "google", "none", "custom"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(parts.combo->itemText(i), labels[i]);
    EXPECT_EQ(parts.combo->itemData(i).toString(), ids[i]);
  }
  EXPECT_EQ(parts.combo->currentIndex(), 0);
  EXPECT_EQ(LabelStartingWith(dialog, "The default."),
            "The default. Tells Cloudflare when you start a connection, and nothing else.");
  EXPECT_FALSE(parts.custom->isEnabled());
  EXPECT_TRUE(parts.custom->placeholderText().endsWith(":3478"));
  EXPECT_TRUE(parts.turn_url->placeholderText().endsWith(":3478"));
  EXPECT_FALSE(LabelStartingWith(dialog, "To reach someone on another network").isEmpty());
  EXPECT_EQ(LabelStartingWith(dialog, "Some connections can't be made directly"),
            "Some connections can't be made directly, usually behind a strict router or on "
            "mobile. A TURN relay carries the video for those. Mirell doesn't provide one: a "
            "relay sees your traffic and pays for the bandwidth, so it has to be yours.");
  EXPECT_EQ(LabelStartingWith(dialog, "The password is"),
            "The password is kept in your desktop's keyring, readable only by your account.");
  EXPECT_EQ(LabelStartingWith(dialog, "Applies to your next share."),
            "Applies to your next share. Anything already connected keeps its current settings.");
  for (const char* form_label : {"Address lookup (STUN)", "Custom STUN", "Relay (TURN)",
                                 "Username", "Password"}) {
    EXPECT_FALSE(LabelStartingWith(dialog, form_label).isEmpty()) << form_label;
  }

  parts.combo->setCurrentIndex(1);
  EXPECT_EQ(LabelStartingWith(dialog, "Reachable"),
            "Reachable from almost anywhere. Tells Google when you start a connection.");
  parts.combo->setCurrentIndex(3);
  EXPECT_TRUE(parts.custom->isEnabled());
  EXPECT_EQ(LabelStartingWith(dialog, "A STUN server"), "A STUN server you run or trust.");
  dialog.show();
  SaveScreenshot(dialog, "network_dialog");
}

TEST(NetworkDialogTest, TheStoredChoiceIsSelectedAndAnUnknownOneShowsTheFirst) {
  TestApplication();
  NetworkDialog none(settings::NetworkSettings{"", "none", "", "", "", ""});
  EXPECT_EQ(PartsOf(none).combo->currentData().toString(), "none");
  EXPECT_EQ(LabelStartingWith(none, "Contacts nothing"),
            "Contacts nothing. Works on a LAN, won't connect between two homes.");
  NetworkDialog unknown(settings::NetworkSettings{"", "opendns", "", "", "", ""});
  EXPECT_EQ(PartsOf(unknown).combo->currentIndex(), 0);
}

TEST(NetworkDialogTest, LeavingCustomDisablesTheAddressButKeepsAndSavesIt) {
  TestApplication();
  NetworkDialog dialog(settings::NetworkSettings{"", "custom", "stun:mine.example:3478", "", "", ""});
  const DialogParts parts = PartsOf(dialog);
  EXPECT_TRUE(parts.custom->isEnabled());
  EXPECT_EQ(parts.custom->text(), "stun:mine.example:3478");
  parts.combo->setCurrentIndex(parts.combo->findData("google"));
  EXPECT_FALSE(parts.custom->isEnabled());
  EXPECT_EQ(parts.custom->text(), "stun:mine.example:3478");
  Save(dialog);
  EXPECT_EQ(dialog.result(), QDialog::Accepted);
  EXPECT_EQ(dialog.settings().stun, "google");
  EXPECT_EQ(dialog.settings().custom_stun, "stun:mine.example:3478");
}

TEST(NetworkDialogTest, AddressesAreTrimmedButNameAndPasswordKeepTheirBlanks) {
  TestApplication();
  NetworkDialog dialog(settings::NetworkSettings{});
  const DialogParts parts = PartsOf(dialog);
  parts.combo->setCurrentIndex(parts.combo->findData("custom"));
  parts.custom->setText("  stun:mine.example:3478 ");
  parts.turn_url->setText("  turn:relay.example:3478  ");
  QLineEdit* user = nullptr;
  for (QLineEdit* edit : dialog.findChildren<QLineEdit*>()) {
    if (edit != parts.custom && edit != parts.turn_url && edit != parts.password) user = edit;
  }
  ASSERT_NE(user, nullptr);
  user->setText(" bob");
  parts.password->setText("secret ");
  Save(dialog);
  const settings::NetworkSettings& chosen = dialog.settings();
  EXPECT_EQ(chosen.stun, "custom");
  EXPECT_EQ(chosen.custom_stun, "stun:mine.example:3478");
  EXPECT_EQ(chosen.turn_url, "turn:relay.example:3478");
  EXPECT_EQ(chosen.turn_user, " bob");
  EXPECT_EQ(chosen.turn_credential, "secret ");
}

TEST(NetworkDialogTest, AStoredPasswordIsShownHiddenAndAnEmptyOneAsAnEmptyField) {
  TestApplication();
  NetworkDialog with(settings::NetworkSettings{"", "none", "", "turn:r.example", "bob", "hunter2"});
  EXPECT_EQ(PartsOf(with).password->text(), "hunter2");
  EXPECT_EQ(PartsOf(with).password->echoMode(), QLineEdit::Password);
  NetworkDialog without(settings::NetworkSettings{"", "none", "", "turn:r.example", "bob", ""});
  EXPECT_TRUE(PartsOf(without).password->text().isEmpty());
}

// The words under each choice, as one text.
QString TextsOf(const QWidget& widget) {
  QString all;
  for (const QLabel* label : widget.findChildren<QLabel*>()) all += label->text() + "\n";
  return all;
}

// The first start's question: this computer is offered first, and each choice says what it means.
TEST(MeetingPlaceTest, TheFirstStartOffersThisComputerAndSaysWhatEachChoiceMeans) {
  TestApplication();
  MeetingPlaceDialog dialog;
  EXPECT_EQ(dialog.windowTitle(), "Where do your friends meet you?");
  MeetingPlaceChooser& chooser = *dialog.chooser();
  EXPECT_TRUE(chooser.local_button()->isChecked());
  EXPECT_EQ(chooser.place(), "local");
  const QString texts = TextsOf(dialog);
  EXPECT_TRUE(texts.contains("on port 8443")) << texts.toStdString();
  EXPECT_TRUE(texts.contains("forward port 8443 on your router")) << texts.toStdString();
  EXPECT_TRUE(texts.contains("not encrypted")) << texts.toStdString();
  EXPECT_TRUE(texts.contains("wss://share.example.org/signal")) << texts.toStdString();
  dialog.show();
  SaveScreenshot(dialog, "meeting-place-dialog");
  ASSERT_NE(ButtonNamed(dialog, "Continue"), nullptr);
  ButtonNamed(dialog, "Continue")->click();
  EXPECT_EQ(dialog.result(), QDialog::Accepted);
  EXPECT_EQ(dialog.place(), "local");
}

TEST(MeetingPlaceTest, ATypedServerIsChosenAndABadAddressKeepsTheDialogOpenWithTheReason) {
  TestApplication();
  MeetingPlaceDialog dialog;
  dialog.show();
  MeetingPlaceChooser& chooser = *dialog.chooser();
  chooser.server_button()->setChecked(true);
  ButtonNamed(dialog, "Continue")->click();
  EXPECT_NE(dialog.result(), QDialog::Accepted) << "nothing typed";
  EXPECT_TRUE(TextsOf(dialog).contains("Type the signal server's address"));
  chooser.server_edit()->setText("https://share.example.org/signal");
  ButtonNamed(dialog, "Continue")->click();
  EXPECT_NE(dialog.result(), QDialog::Accepted);
  EXPECT_TRUE(TextsOf(dialog).contains("is not a signal server's address")) << TextsOf(dialog).toStdString();
  SaveScreenshot(dialog, "meeting-place-dialog-bad-address");
  chooser.server_edit()->setText("  wss://share.example.org/signal ");
  ButtonNamed(dialog, "Continue")->click();
  EXPECT_EQ(dialog.result(), QDialog::Accepted);
  EXPECT_EQ(dialog.place(), "wss://share.example.org/signal");
}

TEST(MeetingPlaceTest, PuttingItOffChoosesNothing) {
  TestApplication();
  WhenModalOpens([](QWidget& modal) { ButtonNamed(modal, "Not now")->click(); });
  EXPECT_EQ(AskMeetingPlace(), "");
}

TEST(MeetingPlaceTest, NetworkShowsTheStoredPlaceAndSavesTheOneChosen) {
  TestApplication();
  settings::NetworkSettings local_port;
  local_port.meeting = "local:9443";
  NetworkDialog kept(local_port);
  EXPECT_TRUE(kept.meeting_chooser()->local_button()->isChecked());
  EXPECT_TRUE(TextsOf(kept).contains("on port 9443"));
  Save(kept);
  EXPECT_EQ(kept.settings().meeting, "local:9443");

  settings::NetworkSettings server;
  server.meeting = "wss://a.example/signal";
  NetworkDialog changed(server);
  EXPECT_TRUE(changed.meeting_chooser()->server_button()->isChecked());
  EXPECT_EQ(changed.meeting_chooser()->server_edit()->text(), "wss://a.example/signal");
  changed.show();
  SaveScreenshot(changed, "network-dialog-meeting-place");
  changed.meeting_chooser()->local_button()->setChecked(true);
  Save(changed);
  EXPECT_EQ(changed.settings().meeting, "local");

  NetworkDialog bad(server);
  bad.meeting_chooser()->server_edit()->setText("share.example.org");
  Save(bad);
  EXPECT_NE(bad.result(), QDialog::Accepted);
  EXPECT_EQ(bad.settings().meeting, "wss://a.example/signal") << "nothing saved";
}

class UpdatePromptTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TestApplication();
    QSettings().remove("update/skippedVersion");
    QDesktopServices::setUrlHandler("https", &catcher_, "Open");
  }
  void TearDown() override { QDesktopServices::unsetUrlHandler("https"); }

  UrlCatcher catcher_;
};

TEST_F(UpdatePromptTest, TickingTheBoxAndGetItOpensTheSiteAndSkipsThisVersion) {
  QString text;
  QString title;
  WhenModalOpens([&](QWidget& modal) {
    auto& box = dynamic_cast<QMessageBox&>(modal);
    title = box.windowTitle();
    text = box.text();
    EXPECT_EQ(box.icon(), QMessageBox::Information);
    ASSERT_NE(box.checkBox(), nullptr);
    EXPECT_EQ(box.checkBox()->text(), "Don't remind me about this version");
    EXPECT_NE(ButtonNamed(box, "Not now"), nullptr);
    SaveScreenshot(box, "update_prompt");
    box.checkBox()->setChecked(true);
    ButtonNamed(box, "Get it")->click();
  });
  ShowUpdatePrompt(nullptr, {"0.2", "https://mirell.example/get"}, "0.1.3");
  EXPECT_EQ(title, "Update available");
  EXPECT_EQ(text, "Mirell 0.2 is out. You have 0.1.3.");
  ASSERT_EQ(catcher_.opened.size(), 1);
  EXPECT_EQ(catcher_.opened[0], QUrl("https://mirell.example/get"));
  EXPECT_EQ(settings::LoadSkippedVersion(), "0.2");
  EXPECT_FALSE(settings::ShouldPrompt("0.1.3", {"0.2", "https://mirell.example/get"}, settings::LoadSkippedVersion()));
}

TEST_F(UpdatePromptTest, NotNowWithTheBoxTickedSkipsWithoutOpening) {
  WhenModalOpens([](QWidget& modal) {
    auto& box = dynamic_cast<QMessageBox&>(modal);
    box.checkBox()->setChecked(true);
    ButtonNamed(box, "Not now")->click();
  });
  ShowUpdatePrompt(nullptr, {"0.3", "https://mirell.example/get"}, "0.1.3");
  EXPECT_TRUE(catcher_.opened.isEmpty());
  EXPECT_EQ(settings::LoadSkippedVersion(), "0.3");
}

TEST_F(UpdatePromptTest, NotNowAloneChangesNothing) {
  WhenModalOpens([](QWidget& modal) { ButtonNamed(modal, "Not now")->click(); });
  ShowUpdatePrompt(nullptr, {"0.3", "https://mirell.example/get"}, "0.1.3");
  EXPECT_TRUE(catcher_.opened.isEmpty());
  EXPECT_EQ(settings::LoadSkippedVersion(), "");
}

// The whole check against a server: a prompt shows on the window exactly when it should.
class UpdateCheckTest : public UpdatePromptTest {
 protected:
  void SetUp() override {
    UpdatePromptTest::SetUp();
    setenv("SSL_CERT_FILE", testsupport::SharedHttpsTestSite().certificates.Path("ca.pem").c_str(),
           1);
  }
  void TearDown() override {
    unsetenv("SSL_CERT_FILE");
    UpdatePromptTest::TearDown();
  }

  // Runs the check on a window until it finishes, then a moment more for the queued prompt;
  // true when a prompt showed (it is answered "Not now").
  bool Prompted(const std::string& url) {
    QMainWindow window;
    window.show();
    bool prompted = false;
    QTimer answer;  // Ends with this call, whether a prompt came or not.
    QObject::connect(&answer, &QTimer::timeout, [&] {
      if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
        prompted = box->windowTitle() == "Update available";
        ButtonNamed(*box, "Not now")->click();
      }
    });
    answer.start(10);
    const auto start = std::chrono::steady_clock::now();
    UpdateCheck check(&window, "0.1.3", QString::fromStdString(url));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 100ms) << "the check never blocks";
    while (!check.finished() && std::chrono::steady_clock::now() - start < 20s) {
      QApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    EXPECT_TRUE(check.finished());
    // The prompt was posted before the pass finished; let it come.
    for (int i = 0; i < 20 && !prompted; ++i) {
      QApplication::processEvents(QEventLoop::AllEvents, 20);
      std::this_thread::sleep_for(5ms);
    }
    return prompted;
  }

  std::string Offer(const std::string& name, const std::string& body) {
    server_->Put(name, body);
    return server_->Url("/files/" + name);
  }

  testsupport::HttpsTestServer* server_ = &testsupport::SharedHttpsTestSite().server;
};

TEST_F(UpdateCheckTest, ANewerVersionPrompts) {
  EXPECT_TRUE(Prompted(Offer("newer", R"({"version":"0.2","url":"https://mirell.example/"})")));
  EXPECT_TRUE(Prompted(Offer("patch", R"({"version":"0.1.3.1","url":"https://mirell.example/"})")));
}

TEST_F(UpdateCheckTest, TheSameOrAnOlderVersionDoesNot) {
  EXPECT_FALSE(Prompted(Offer("same", R"({"version":"0.1.3","url":"https://mirell.example/"})")));
  EXPECT_FALSE(Prompted(Offer("older", R"({"version":"0.1.2","url":"https://mirell.example/"})")));
}

TEST_F(UpdateCheckTest, ASkippedVersionDoesNotButAnotherSpellingDoes) {
  settings::SaveSkippedVersion("0.2.0");
  EXPECT_FALSE(Prompted(Offer("skipped", R"({"version":"0.2.0","url":"https://mirell.example/"})")));
  EXPECT_TRUE(Prompted(Offer("spelled", R"({"version":"0.2","url":"https://mirell.example/"})")));
}

TEST_F(UpdateCheckTest, AnHttpLinkAnHttpEndpointABadStatusOrABigBodyDoNot) {
  EXPECT_FALSE(Prompted(Offer("plain", R"({"version":"9.0","url":"http://mirell.example/"})")));
  std::string plain_endpoint = server_->Url("/files/newer");
  plain_endpoint.replace(0, 5, "http");
  Offer("newer", R"({"version":"0.2","url":"https://mirell.example/"})");
  EXPECT_FALSE(Prompted(plain_endpoint));
  EXPECT_FALSE(Prompted(server_->Url("/status/404")));
  std::string big = R"({"version":"0.2","url":"https://mirell.example/","pad":")";
  big += std::string(8193 - big.size() - 2, 'x') + "\"}";
  ASSERT_EQ(big.size(), 8193u);
  EXPECT_FALSE(Prompted(Offer("big", big)));
  big.erase(big.size() - 3, 1);  // 8192 bytes: still taken.
  EXPECT_TRUE(Prompted(Offer("big", big)));
}

TEST_F(UpdateCheckTest, AnEmptyUrlChecksNothing) {
  QMainWindow window;
  UpdateCheck check(&window, "0.1.3", "");
  EXPECT_TRUE(check.finished());
}

TEST_F(UpdateCheckTest, AServerThatNeverAnswersEndsWithinTheTimeoutsAndShowsNothing) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(Prompted(server_->Url("/silent")));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(seconds, 4.5);
  EXPECT_LT(seconds, 12.0);
}

TEST_F(UpdateCheckTest, AWindowGoneBeforeTheAnswerShowsNothing) {
  Offer("newer", R"({"version":"0.2","url":"https://mirell.example/"})");
  auto window = std::make_unique<QMainWindow>();
  auto check = std::make_unique<UpdateCheck>(window.get(), "0.1.3", QString::fromStdString(server_->Url("/files/newer")));
  check.reset();
  window.reset();
  std::this_thread::sleep_for(500ms);
  QApplication::processEvents();
  EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
}

}  // namespace
}  // namespace mirell::ui
