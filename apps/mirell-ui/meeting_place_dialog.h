// The first start's question: where do your friends meet you? Asked once, before the window,
// when no place is stored and none is given on the command line.
#pragma once

#include <QDialog>
#include <string>

namespace mirell::ui {

class MeetingPlaceChooser;

class MeetingPlaceDialog : public QDialog {
  Q_OBJECT

 public:
  explicit MeetingPlaceDialog(QWidget* parent = nullptr);

  MeetingPlaceChooser* chooser() const { return chooser_; }
  // The usable place chosen, after Accept.
  const std::string& place() const { return place_; }

 private slots:
  void Accept();

 private:
  MeetingPlaceChooser* chooser_ = nullptr;
  std::string place_;
};

// Shows the dialog and waits: the place chosen, or "" when the person put it off.
std::string AskMeetingPlace();

}  // namespace mirell::ui
