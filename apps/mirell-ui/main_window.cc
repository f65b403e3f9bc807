#include "main_window.h"

#include <QAction>
#include <QClipboard>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QFileInfo>
#include <QGroupBox>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTableWidget>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>
#include <exception>

#include "admission_prompt.h"
#include "allowlist_dialog.h"
#include "session_allowlist.h"
#include "daemon_host.h"
#include "network_dialog.h"
#include "picker_dialog.h"
#include "program_icon.h"
#include "quality_dialog.h"
#include "viewers_table.h"
#include "window_texts.h"

namespace mirell::ui {
namespace {

QString Q(const std::string& text) { return QString::fromStdString(text); }

constexpr int kRefreshMs = 500;
// VRChat's setting is slow to read: once, then every 21st refresh.
constexpr std::int32_t kUntrustedRefreshesBetweenReads = 20;
constexpr std::int32_t kExtendMinutes = 120;

}  // namespace

MainWindow::MainWindow(DaemonHost* host, QWidget* parent) : QMainWindow(parent), host_(host) {
  setWindowTitle(tr("Mirell"));
  setWindowIcon(ProgramIcon());
  resize(660, 620);
  BuildLayout();
  BuildTray();
  timer_ = new QTimer(this);
  connect(timer_, &QTimer::timeout, this, &MainWindow::Refresh);
  timer_->start(kRefreshMs);
  Refresh();
}

MainWindow::~MainWindow() = default;

void MainWindow::BuildLayout() {
  auto* central = new QWidget(this);
  auto* layout = new QVBoxLayout(central);

  untrusted_banner_ = new QLabel(central);
  untrusted_banner_->setTextFormat(Qt::PlainText);
  untrusted_banner_->setWordWrap(true);
  untrusted_banner_->setStyleSheet(
      "QLabel { background: palette(highlight); color: palette(highlighted-text);         "
      "border-radius: 4px; padding: 8px; }");
  untrusted_banner_->hide();
  layout->addWidget(untrusted_banner_);

  status_label_ = new QLabel(central);
  status_label_->setWordWrap(true);
  layout->addWidget(status_label_);
  sound_label_ = new QLabel(central);
  sound_label_->setWordWrap(true);
  layout->addWidget(sound_label_);
  signal_label_ = new QLabel(central);
  signal_label_->setWordWrap(true);
  layout->addWidget(signal_label_);

  auto* link_group = new QGroupBox(tr("Share link"), central);
  auto* link_layout = new QVBoxLayout(link_group);
  auto* link_row = new QHBoxLayout;
  link_edit_ = new QLineEdit(link_group);
  link_edit_->setReadOnly(true);
  link_edit_->setPlaceholderText(tr("Start sharing to get a link"));
  copy_button_ = new QPushButton(tr("Copy"), link_group);
  new_link_button_ = new QPushButton(tr("New link"), link_group);
  new_link_button_->setToolTip(
      tr("Gives you a new link. The old one stops working and anyone using it gets dropped."));
  link_row->addWidget(link_edit_, 1);
  link_row->addWidget(copy_button_);
  link_row->addWidget(new_link_button_);
  link_layout->addLayout(link_row);
  paste_hint_ = new QLabel(link_group);
  paste_hint_->setWordWrap(true);
  link_layout->addWidget(paste_hint_);
  auto* time_row = new QHBoxLayout;
  time_left_label_ = new QLabel(link_group);
  time_left_label_->setWordWrap(true);
  extend_button_ = new QPushButton(tr("Give it longer"), link_group);
  time_row->addWidget(time_left_label_, 1);
  time_row->addWidget(extend_button_);
  link_layout->addLayout(time_row);
  layout->addWidget(link_group);

  auto* viewers_group = new QGroupBox(tr("Who is watching"), central);
  auto* viewers_layout = new QVBoxLayout(viewers_group);
  viewers_table_ = new QTableWidget(viewers_group);
  SetUpViewersTable(*viewers_table_);
  viewers_layout->addWidget(viewers_table_);
  auto* remove_row = new QHBoxLayout;
  remove_button_ = new QPushButton(tr("Remove this viewer"), viewers_group);
  remove_button_->setToolTip(
      tr("Drops them now. They can ask again. To stop the link itself working, use New link."));
  remove_button_->setEnabled(false);
  remove_row->addWidget(remove_button_);
  remove_row->addStretch();
  viewers_layout->addLayout(remove_row);
  layout->addWidget(viewers_group, 1);

  watching_label_ = new QLabel(central);
  watching_label_->setWordWrap(true);
  layout->addWidget(watching_label_);
  identity_label_ = new QLabel(central);
  identity_label_->setWordWrap(true);
  identity_label_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  layout->addWidget(identity_label_);

  auto* button_row = new QHBoxLayout;
  share_button_ = new QPushButton(tr("Share something..."), central);
  stop_button_ = new QPushButton(tr("Stop sharing"), central);
  network_button_ = new QPushButton(tr("Network..."), central);
  quality_button_ = new QPushButton(tr("Quality..."), central);
  quality_button_->setToolTip(tr("Size, frame rate and bitrate. Applies to the next share."));
  allowlist_button_ = new QPushButton(tr("Who can watch..."), central);
  button_row->addWidget(share_button_);
  button_row->addWidget(stop_button_);
  button_row->addStretch();
  button_row->addWidget(quality_button_);
  button_row->addWidget(allowlist_button_);
  button_row->addWidget(network_button_);
  layout->addLayout(button_row);

  setCentralWidget(central);

  connect(share_button_, &QPushButton::clicked, this, &MainWindow::PickAndShare);
  connect(stop_button_, &QPushButton::clicked, this, &MainWindow::StopSharing);
  connect(copy_button_, &QPushButton::clicked, this, &MainWindow::CopyShareUrl);
  connect(quality_button_, &QPushButton::clicked, this, &MainWindow::EditQuality);
  connect(network_button_, &QPushButton::clicked, this, &MainWindow::EditNetwork);
  connect(allowlist_button_, &QPushButton::clicked, this, &MainWindow::EditAllowlist);
  connect(new_link_button_, &QPushButton::clicked, this, &MainWindow::NewLink);
  connect(remove_button_, &QPushButton::clicked, this, &MainWindow::RemoveViewer);
  connect(extend_button_, &QPushButton::clicked, this, &MainWindow::ExtendShare);
  connect(viewers_table_, &QTableWidget::itemSelectionChanged, this,
          &MainWindow::ViewerSelectionChanged);
}

void MainWindow::BuildTray() {
  tray_ = new QSystemTrayIcon(windowIcon(), this);
  tray_->setToolTip(tr("Mirell"));
  auto* menu = new QMenu(this);
  connect(menu->addAction(tr("Show")), &QAction::triggered, this, &MainWindow::ShowFromTray);
  connect(menu->addAction(tr("Share something...")), &QAction::triggered, this,
          &MainWindow::PickAndShare);
  connect(menu->addAction(tr("Stop sharing")), &QAction::triggered, this,
          &MainWindow::StopSharing);
  menu->addSeparator();
  connect(menu->addAction(tr("Who can watch...")), &QAction::triggered, this,
          &MainWindow::EditAllowlist);
  connect(menu->addAction(tr("Quality...")), &QAction::triggered, this, &MainWindow::EditQuality);
  connect(menu->addAction(tr("Network...")), &QAction::triggered, this, &MainWindow::EditNetwork);
  menu->addSeparator();
  // exit, not quit: Qt 6's quit first asks every window to close, and this window's close only
  // hides it while the tray is there, which would cancel the quit.
  connect(menu->addAction(tr("Quit Mirell")), &QAction::triggered, qApp, [] { QCoreApplication::exit(0); });
  tray_->setContextMenu(menu);
  connect(tray_, &QSystemTrayIcon::activated, this,
          [this](QSystemTrayIcon::ActivationReason reason) {
            if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) {
              ShowFromTray();
            }
          });
  tray_->show();
}

void MainWindow::ShowFromTray() {
  showNormal();
  raise();
  activateWindow();
}

void MainWindow::Refresh() {
  session::Sharing& sharing = host_->sharing();
  CheckUntrustedUrls();
  if (sharing.expired() && !limit_notified_) {
    limit_notified_ = true;
    tray_->showMessage(tr("Mirell stopped sharing"),
                       tr("Your share hit its time limit. Nothing is going out now."),
                       QSystemTrayIcon::Information, 6000);
  }
  RefreshShare();
  UpdateViewersTable(*viewers_table_, sharing.viewers());
  ViewerSelectionChanged();
  RefreshIdentity();
  const std::size_t watching = host_->viewing().WatchCount();
  watching_label_->setText(watching == 0
                               ? tr("Not watching anybody.")
                               : tr("Watching %1 other share(s).").arg(watching));
  // The tray says where the share meets, as the window does.
  tray_->setToolTip(sharing.active() ? tr("Mirell - sharing %1\n%2").arg(Q(sharing.label()), signal_label_->text())
                                     : tr("Mirell\n%1").arg(signal_label_->text()));
}

void MainWindow::RefreshShare() {
  const session::Sharing& sharing = host_->sharing();
  const bool active = sharing.active();
  share_button_->setText(active ? tr("Share something else...") : tr("Share something..."));
  stop_button_->setEnabled(active);
  copy_button_->setEnabled(active);
  new_link_button_->setEnabled(active);
  if (!active) {
    if (host_->stub_installed()) {
      status_label_->setText(tr("Not sharing. Links other people give you will still play."));
    } else if (!host_->config().install_stub) {
      // Asked for: not a failure to report.
      status_label_->setText(tr("Not sharing. Started with --no-stub: VRChat's own resolver stays "
                                "in place, so share links pasted in VRChat won't play."));
    } else {
      status_label_->setText(tr("Not sharing. Mirell couldn't replace VRChat's resolver, so share "
                                "links won't play. Check the log."));
    }
    link_edit_->clear();
    paste_hint_->setText(PasteHintText(false));
    sound_label_->clear();
    signal_label_->setText(IdleMeetingText(MeetingPlace()));
    time_left_label_->clear();
    extend_button_->setEnabled(false);
    return;
  }
  status_label_->setText(tr("Sharing %1. %2 watching, %3 going out.")
                             .arg(Q(sharing.label()))
                             .arg(sharing.viewer_count())
                             .arg(RateText(sharing.uplink_kbps())));
  link_edit_->setText(Q(sharing.link()));
  paste_hint_->setText(PasteHintText(sharing.is_public()));
  RefreshSignal();
  const std::int64_t seconds_left = sharing.seconds_left();
  if (seconds_left < 1) {
    time_left_label_->clear();
    extend_button_->setEnabled(false);
  } else {
    time_left_label_->setText(tr("Stops by itself in %1.").arg(DurationText(seconds_left)));
    extend_button_->setEnabled(true);
  }
  if (!sharing.audio_open()) {
    sound_label_->setText(tr("No sound: couldn't open the audio device."));
  } else if (sharing.audio_whole_mix()) {
    sound_label_->setText(tr("Sound: everything this computer plays, voice chat included."));
  } else {
    sound_label_->setText(tr("Sound: just this application."));
  }
}

QString MainWindow::MeetingPlace() const {
  const DaemonConfig& config = host_->config();
  return MeetingPlaceName(config.signal_url, config.local_signal_port, config.share_prefix);
}

void MainWindow::RefreshSignal() {
  const session::Sharing& sharing = host_->sharing();
  const session::SignalState state = sharing.signal_state();
  const QString server = MeetingPlace();
  const std::string reason = sharing.refusal();
  signal_label_->setText(SignalStateText(state, server, reason));
  // Once per share: a refusal is no passing state, and the person may be looking elsewhere.
  const std::string token = sharing.token();
  if (state != session::SignalState::kRefused || refusal_told_for_ == token) return;
  refusal_told_for_ = token;
  if (tray_ && tray_->isVisible()) {
    tray_->showMessage(tr("Nobody can join your share"), SignalStateText(state, server, reason),
                       QSystemTrayIcon::Warning, 8000);
  }
}

void MainWindow::RefreshIdentity() {
  const vrchat::VRChatIdentity identity = host_->identity().Identity();
  if (!identity.user_id.empty()) {
    identity_label_->setText(
        tr("VRChat account: %1 (%2)").arg(Q(identity.display_name), Q(identity.user_id)));
    identity_label_->setToolTip(
        tr("Read from %1.\n\nThis is who you show up as when you watch someone else's share.")
            .arg(QString::fromStdString(host_->identity().CurrentLog().filename().string())));
  } else {
    identity_label_->setText(tr("VRChat account: not detected. Start VRChat and sign in."));
    identity_label_->setToolTip(tr("Read from VRChat's log, which has no sign-in in it yet. "
                                   "This updates on its own once VRChat starts."));
  }
}

void MainWindow::CheckUntrustedUrls() {
  if (untrusted_countdown_ > 0) {
    --untrusted_countdown_;
    return;
  }
  untrusted_countdown_ = kUntrustedRefreshesBetweenReads;
  untrusted_state_ = vrchat::AllowUntrustedUrls();
  if (untrusted_state_ == vrchat::UntrustedUrls::kBlocked) {
    untrusted_banner_->setText(
        tr("VRChat has Allow Untrusted URLs switched off, so share links will load and then "
           "show nothing.\n\nTurn it on in %1. VRChat saves its settings when it exits, so this "
           "can take a moment to catch up.")
            .arg(QString::fromUtf8(vrchat::UntrustedUrlsSettingPath().data(),
                                   static_cast<qsizetype>(vrchat::UntrustedUrlsSettingPath().size()))));
    untrusted_banner_->show();
  } else {
    // No claim without knowledge.
    untrusted_banner_->hide();
  }
}

void MainWindow::PickAndShare() {
  session::Sharing& sharing = host_->sharing();
  PickerDialog picker(this, !sharing.active());
  if (picker.exec() != QDialog::Accepted || !picker.result()) return;
  if (sharing.active()) {
    try {
      sharing.Retarget(*picker.result());
    } catch (const std::exception& error) {
      QMessageBox::warning(this, tr("Couldn't switch to that"),
                           tr("%1\n\nStill sharing what you were.").arg(error.what()));
    }
  } else {
    try {
      sharing.SetPublic(picker.public_share());
      sharing.Start(*picker.result());
      limit_notified_ = false;
    } catch (const std::exception& error) {
      QMessageBox::warning(this, tr("Couldn't share that"), QString::fromUtf8(error.what()));
    }
  }
  Refresh();
}

void MainWindow::StopSharing() {
  host_->sharing().Stop();
  Refresh();
}

void MainWindow::CopyShareUrl() {
  if (!link_edit_->text().isEmpty()) QGuiApplication::clipboard()->setText(link_edit_->text());
}

void MainWindow::EditQuality() {
  QualityDialog dialog(settings::LoadQualitySettings(), host_->sharing().active(), this);
  if (dialog.exec() != QDialog::Accepted) return;
  const encode::ShareQuality& chosen = dialog.settings();
  settings::SaveQualitySettings(chosen);
  host_->SetQuality(chosen);
  Refresh();
}

void MainWindow::EditNetwork() {
  NetworkDialog dialog(settings::LoadNetworkSettings(), this);
  if (dialog.exec() != QDialog::Accepted) return;
  settings::SaveNetworkSettings(dialog.settings());
  host_->SetIceServers(settings::BuildIceServers(dialog.settings()), 0);
}

void MainWindow::EditAllowlist() {
  AllowlistDialog dialog(settings::LoadAllowlist(), this);
  if (dialog.exec() != QDialog::Accepted) return;
  settings::SaveAllowlist(dialog.entries());
  host_->SetAllowlist(SessionAllowlistOf(dialog.entries()));
}

void MainWindow::NewLink() {
  session::Sharing& sharing = host_->sharing();
  if (!sharing.active()) return;
  const int viewers = static_cast<int>(sharing.viewer_count());
  const QString consequence =
      viewers > 0 ? tr("The current link stops working straight away, and the %n person(s) "
                       "watching get dropped.",
                       nullptr, viewers)
                  : tr("The current link stops working straight away.");
  const auto answer = QMessageBox::question(
      this, tr("Issue a new link?"), consequence + "\n\n" + tr("Your screen keeps going out."),
      QMessageBox::Yes | QMessageBox::No, QMessageBox::No);
  if (answer != QMessageBox::Yes) return;
  sharing.Revoke();
  Refresh();
}

void MainWindow::RemoveViewer() {
  const QString id = SelectedConnectionId(*viewers_table_);
  if (id.isEmpty()) return;
  host_->sharing().Disconnect(id.toStdString());
  Refresh();
}

void MainWindow::ExtendShare() {
  host_->sharing().Extend(kExtendMinutes);
  Refresh();
}

void MainWindow::ViewerSelectionChanged() {
  remove_button_->setEnabled(!SelectedConnectionId(*viewers_table_).isEmpty());
}

void MainWindow::PromptAdmission(QString connection_id, QString user_id, QString display_name,
                                 QString key_fingerprint, bool other_computer) {
  // A box per person; each runs in this event loop (boxes nested in their own loops stacked up,
  // and the first could only be answered after the last).
  WithdrawAdmissionPrompt(connection_id);
  prompts_[connection_id] = OpenAdmissionPrompt(
      this, Q(host_->sharing().label()), connection_id, user_id, display_name, key_fingerprint,
      other_computer,
      [this, connection_id, user_id, display_name, key_fingerprint](AdmissionAnswer answer) {
        prompts_.erase(connection_id);
        Answer(connection_id, user_id, display_name, key_fingerprint, answer);
      });
}

void MainWindow::WithdrawAdmissionPrompt(QString connection_id) {
  const auto found = prompts_.find(connection_id);
  if (found == prompts_.end()) return;
  QPointer<QMessageBox> box = found->second;
  prompts_.erase(found);
  delete box.data();  // Deleting is not answering: no decision is sent.
}

void MainWindow::Answer(const QString& connection_id, const QString& user_id,
                        const QString& display_name, const QString& key_fingerprint,
                        AdmissionAnswer answer) {
  session::Sharing& sharing = host_->sharing();
  if (!answer.admit) {
    sharing.Deny(connection_id.toStdString());
    Refresh();
    return;
  }
  sharing.Admit(connection_id.toStdString());
  if (!user_id.isEmpty() && !key_fingerprint.isEmpty()) {
    std::vector<settings::AllowlistEntry> entries = settings::LoadAllowlist();
    bool changed = false;
    if (answer.remember) {
      changed = settings::AddToAllowlist(entries, user_id.toStdString(), display_name.toStdString(),
                               key_fingerprint.toStdString());
    } else {
      // An entry from before keys were checked takes the key of the first visit let in.
      const auto entry = std::find_if(entries.begin(), entries.end(), [&](const settings::AllowlistEntry& listed) {
        return listed.user_id == user_id.toStdString();
      });
      changed = entry != entries.end() && entry->key_fingerprints.empty() &&
                settings::AddKeyToAllowlist(entries, user_id.toStdString(), key_fingerprint.toStdString());
    }
    if (changed) {
      settings::SaveAllowlist(entries);
      host_->SetAllowlist(SessionAllowlistOf(entries));
    }
  }
  Refresh();
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (!tray_ || !tray_->isVisible()) {
    // Without a tray there is no way back to the window; the process runs on until ended.
    event->accept();
    return;
  }
  hide();
  event->ignore();
  if (!close_hint_shown_) {
    close_hint_shown_ = true;
    tray_->showMessage(tr("Mirell is still running"),
                       tr("Still sharing. Quit from the tray icon to stop."),
                       QSystemTrayIcon::Information, 4000);
  }
}

}  // namespace mirell::ui
