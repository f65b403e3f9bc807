// "Network": where shares meet their viewers, which STUN server learns of this computer's connections, and the user's own TURN
// relay. The texts say what each choice tells whom; the relay password goes to the desktop's
// secret store when the caller saves.
#pragma once

#include <QDialog>

#include "mirell/settings/network_settings.h"

class QComboBox;
class QLabel;
class QLineEdit;

namespace mirell::ui {

class MeetingPlaceChooser;

class NetworkDialog : public QDialog {
  Q_OBJECT

 public:
  NetworkDialog(settings::NetworkSettings current, QWidget* parent = nullptr);

  // The chosen values, after Accept.
  const settings::NetworkSettings& settings() const { return settings_; }
  MeetingPlaceChooser* meeting_chooser() const { return meeting_chooser_; }

 private slots:
  void ChoiceChanged();
  void Accept();

 private:
  settings::NetworkSettings settings_;
  MeetingPlaceChooser* meeting_chooser_ = nullptr;
  QComboBox* stun_combo_ = nullptr;
  QLabel* stun_note_ = nullptr;
  QLineEdit* custom_stun_edit_ = nullptr;
  QLineEdit* turn_url_edit_ = nullptr;
  QLineEdit* turn_user_edit_ = nullptr;
  QLineEdit* turn_password_edit_ = nullptr;
};

}  // namespace mirell::ui
