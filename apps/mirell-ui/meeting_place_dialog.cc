#include "meeting_place_dialog.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "meeting_place_chooser.h"

namespace mirell::ui {

MeetingPlaceDialog::MeetingPlaceDialog(QWidget* parent) : QDialog(parent) {
  setWindowTitle(tr("Where do your friends meet you?"));
  setMinimumWidth(520);
  auto* layout = new QVBoxLayout(this);
  auto* intro = new QLabel(
      tr("Before a share link can play, your viewers' Mirell and yours have to find each other. "
         "Only the connection's set-up goes through the meeting place; the picture and sound go "
         "straight to each viewer."),
      this);
  intro->setWordWrap(true);
  layout->addWidget(intro);
  chooser_ = new MeetingPlaceChooser(std::string(), this);
  layout->addWidget(chooser_);
  auto* later = new QLabel(tr("Network... changes this later. Links other people give you play "
                              "whatever you choose."),
                           this);
  later->setWordWrap(true);
  layout->addWidget(later);
  layout->addStretch(1);
  auto* buttons = new QDialogButtonBox(this);
  buttons->addButton(tr("Continue"), QDialogButtonBox::AcceptRole);
  buttons->addButton(tr("Not now"), QDialogButtonBox::RejectRole);
  layout->addWidget(buttons);
  connect(buttons, &QDialogButtonBox::accepted, this, &MeetingPlaceDialog::Accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  resize(minimumWidth(), layout->heightForWidth(minimumWidth()));
}

void MeetingPlaceDialog::Accept() {
  if (!chooser_->Check().isEmpty()) return;  // Said under the field; the dialog stays.
  place_ = chooser_->place();
  QDialog::accept();
}

std::string AskMeetingPlace() {
  MeetingPlaceDialog dialog;
  if (dialog.exec() != QDialog::Accepted) return {};
  return dialog.place();
}

}  // namespace mirell::ui
