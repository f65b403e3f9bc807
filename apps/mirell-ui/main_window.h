// The one window of the program and its heartbeat: a 500 ms timer drives DaemonHost::Poll and
// redraws everything from what the services report. There is no model and no signal from the
// services; the window asks and shows. Closing the window only hides it while a tray icon is
// there; the tray's menu quits. Interface thread only.
#pragma once

#include <QMainWindow>
#include <QPointer>
#include <QString>
#include <map>
#include <string>
#include <cstdint>

#include "mirell/vrchat/vrchat_settings.h"

class QCloseEvent;
class QLabel;
class QLineEdit;
class QMessageBox;
class QPushButton;
class QSystemTrayIcon;
class QTableWidget;
class QTimer;

namespace mirell::ui {

struct AdmissionAnswer;
class DaemonHost;

class MainWindow : public QMainWindow {
  Q_OBJECT

 public:
  MainWindow(DaemonHost* host, QWidget* parent = nullptr);
  ~MainWindow() override;

  // The admission prompt for one viewer; reached as a queued call from a session thread's
  // callback. Returns at once: one box per waiting viewer, answered in any order; a viewer who
  // asks again replaces their box.
  // `key_fingerprint`: the key the viewer proved, or empty; `other_computer`: its id is on the
  // list with other keys only.
  Q_INVOKABLE void PromptAdmission(QString connection_id, QString user_id, QString display_name,
                                   QString key_fingerprint = {}, bool other_computer = false);
  // The viewer left while waiting: their box closes unanswered.
  Q_INVOKABLE void WithdrawAdmissionPrompt(QString connection_id);
  std::size_t open_prompts() const { return prompts_.size(); }

  QSystemTrayIcon* tray() const { return tray_; }

 protected:
  void closeEvent(QCloseEvent* event) override;

 private slots:
  void PickAndShare();
  void StopSharing();
  void CopyShareUrl();
  void EditQuality();
  void EditNetwork();
  void EditAllowlist();
  void NewLink();
  void RemoveViewer();
  void ExtendShare();
  void ViewerSelectionChanged();
  void Refresh();

 private:
  void BuildLayout();
  void BuildTray();
  void CheckUntrustedUrls();
  void RefreshShare();
  void RefreshIdentity();
  // The line about the signal server, and the tray's word once when it refused the share.
  void RefreshSignal();
  // The meeting place as the window names it (MeetingPlaceName).
  QString MeetingPlace() const;
  void ShowFromTray();
  // Carries out the person's answer about one waiting viewer.
  void Answer(const QString& connection_id, const QString& user_id, const QString& display_name,
              const QString& key_fingerprint, AdmissionAnswer answer);

  DaemonHost* host_;
  QLabel* untrusted_banner_ = nullptr;
  QLabel* status_label_ = nullptr;
  QLabel* sound_label_ = nullptr;
  QLabel* signal_label_ = nullptr;
  std::string refusal_told_for_;  // The token whose refusal the tray has told of.
  QLineEdit* link_edit_ = nullptr;
  QPushButton* copy_button_ = nullptr;
  QPushButton* new_link_button_ = nullptr;
  QLabel* time_left_label_ = nullptr;
  QLabel* paste_hint_ = nullptr;  // How the link is used; for a public share, who gets in.
  QPushButton* extend_button_ = nullptr;
  QTableWidget* viewers_table_ = nullptr;
  QPushButton* remove_button_ = nullptr;
  QLabel* watching_label_ = nullptr;
  QLabel* identity_label_ = nullptr;
  QPushButton* share_button_ = nullptr;
  QPushButton* stop_button_ = nullptr;
  QPushButton* network_button_ = nullptr;
  QPushButton* quality_button_ = nullptr;
  QPushButton* allowlist_button_ = nullptr;
  std::map<QString, QPointer<QMessageBox>> prompts_;  // Open admission boxes by connection id.
  QSystemTrayIcon* tray_ = nullptr;
  QTimer* timer_ = nullptr;
  bool close_hint_shown_ = false;
  bool limit_notified_ = false;
  std::int32_t untrusted_countdown_ = 0;
  vrchat::UntrustedUrls untrusted_state_ = vrchat::UntrustedUrls::kUnknown;
};

}  // namespace mirell::ui
