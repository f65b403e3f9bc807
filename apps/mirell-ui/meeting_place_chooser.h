// The choice of where shares meet their viewers, as the first start and "Network..." show it:
// this computer, or a signal server by its address. Each choice says what it means for whom.
#pragma once

#include <QString>
#include <QWidget>
#include <string>

class QLabel;
class QLineEdit;
class QRadioButton;

namespace mirell::ui {

class MeetingPlaceChooser : public QWidget {
  Q_OBJECT

 public:
  // `current`: a stored place ("" for none yet, which starts on "This computer").
  explicit MeetingPlaceChooser(const std::string& current, QWidget* parent = nullptr);

  // "local" (or the "local:PORT" it was given), or the server's address as typed, trimmed.
  std::string place() const;
  // Empty when place() is usable; else a sentence for the person, also shown under the field.
  QString Check();

  QRadioButton* local_button() const { return local_button_; }
  QRadioButton* server_button() const { return server_button_; }
  QLineEdit* server_edit() const { return server_edit_; }

 private slots:
  void ChoiceChanged();

 private:
  std::string local_place_ = "local";
  QRadioButton* local_button_ = nullptr;
  QRadioButton* server_button_ = nullptr;
  QLineEdit* server_edit_ = nullptr;
  QLabel* error_label_ = nullptr;
};

}  // namespace mirell::ui
