#include "meeting_place_chooser.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QRadioButton>
#include <QVBoxLayout>

#include "meeting_place.h"

namespace mirell::ui {
namespace {

QLabel* Note(const QString& text, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setWordWrap(true);
  label->setIndent(24);  // Under its choice's text, past the button.
  return label;
}

}  // namespace

MeetingPlaceChooser::MeetingPlaceChooser(const std::string& current, QWidget* parent)
    : QWidget(parent) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  const std::optional<std::uint16_t> local_port = LocalMeetingPort(current);
  if (local_port) local_place_ = current;
  const std::uint16_t port = local_port ? *local_port : kLocalMeetingPort;

  local_button_ = new QRadioButton(tr("This computer"), this);
  layout->addWidget(local_button_);
  layout->addWidget(Note(
      tr("Mirell meets your viewers itself, on port %1. Friends on your network can watch right "
         "away; for anyone else, forward port %1 on your router to this computer. This meeting "
         "is plain ws:// and http://, not encrypted (the picture and sound are, as always).")
          .arg(port),
      this));

  server_button_ = new QRadioButton(tr("A signal server"), this);
  layout->addWidget(server_button_);
  layout->addWidget(Note(tr("Yours or a friend's (mirell-signal). Its address looks like "
                            "wss://share.example.org/signal; share links then live on its host."),
                         this));
  server_edit_ = new QLineEdit(this);
  server_edit_->setPlaceholderText("wss://share.example.org/signal");
  auto* indented = new QHBoxLayout;
  indented->addSpacing(24);  // Under its choice, as the notes are.
  indented->addWidget(server_edit_);
  layout->addLayout(indented);
  error_label_ = new QLabel(this);
  error_label_->setWordWrap(true);
  error_label_->setIndent(24);
  error_label_->setStyleSheet("color: #c0392b;");
  error_label_->hide();
  layout->addWidget(error_label_);

  const bool server = !current.empty() && !local_port;
  (server ? server_button_ : local_button_)->setChecked(true);
  if (server) server_edit_->setText(QString::fromStdString(current));
  connect(local_button_, &QRadioButton::toggled, this, &MeetingPlaceChooser::ChoiceChanged);
  connect(server_edit_, &QLineEdit::textEdited, this, [this] {
    server_button_->setChecked(true);
    error_label_->hide();
  });
  ChoiceChanged();
}

std::string MeetingPlaceChooser::place() const {
  if (local_button_->isChecked()) return local_place_;
  return server_edit_->text().trimmed().toStdString();
}

QString MeetingPlaceChooser::Check() {
  const std::string chosen = place();
  QString error;
  if (chosen.empty()) {
    error = tr("Type the signal server's address, or choose this computer.");
  } else if (!MeetingPlaceError(chosen).empty()) {
    error = tr("\"%1\" is not a signal server's address: it starts with wss:// (or ws://), "
               "like wss://share.example.org/signal.")
                .arg(QString::fromStdString(chosen));
  }
  error_label_->setText(error);
  error_label_->setVisible(!error.isEmpty());
  return error;
}

void MeetingPlaceChooser::ChoiceChanged() {
  error_label_->hide();
  if (server_button_->isChecked()) server_edit_->setFocus();
}

}  // namespace mirell::ui
