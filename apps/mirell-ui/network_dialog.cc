#include "network_dialog.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QVBoxLayout>

#include "meeting_place_chooser.h"
#include "mirell/transport/stun_choices.h"

namespace mirell::ui {
namespace {

constexpr const char* kCustom = "custom";

QLabel* WrappedLabel(const QString& text, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setWordWrap(true);
  return label;
}

}  // namespace

NetworkDialog::NetworkDialog(settings::NetworkSettings current, QWidget* parent)
    : QDialog(parent), settings_(std::move(current)) {
  setWindowTitle(tr("Network"));
  setMinimumWidth(560);
  auto* layout = new QVBoxLayout(this);
  auto* meeting_heading = new QLabel(tr("<b>Where your viewers meet you</b> (from the next start)"), this);
  layout->addWidget(meeting_heading);
  meeting_chooser_ = new MeetingPlaceChooser(settings_.meeting, this);
  layout->addWidget(meeting_chooser_);
  layout->addWidget(WrappedLabel(
      tr("To reach someone on another network, Mirell needs this computer's public address. A "
         "STUN server tells it. That server sees that you are connecting, and nothing else."),
      this));

  auto* stun_form = new QFormLayout;
  stun_combo_ = new QComboBox(this);
  for (const transport::StunChoice& choice : transport::StunChoices()) {
    stun_combo_->addItem(QString::fromStdString(choice.label), QString::fromStdString(choice.id));
  }
  stun_combo_->addItem(tr("Custom..."), QString(kCustom));
  const int stored = stun_combo_->findData(QString::fromStdString(settings_.stun));
  stun_combo_->setCurrentIndex(stored >= 0 ? stored : 0);
  stun_note_ = WrappedLabel(QString(), this);
  custom_stun_edit_ = new QLineEdit(QString::fromStdString(settings_.custom_stun), this);
  custom_stun_edit_->setPlaceholderText("stun:stun.example.net:3478");
  stun_form->addRow(tr("Address lookup (STUN)"), stun_combo_);
  stun_form->addRow(stun_note_);
  stun_form->addRow(tr("Custom STUN"), custom_stun_edit_);
  layout->addLayout(stun_form);

  layout->addWidget(WrappedLabel(
      tr("Some connections can't be made directly, usually behind a strict router or on mobile. "
         "A TURN relay carries the video for those. Mirell doesn't provide one: a relay sees your "
         "traffic and pays for the bandwidth, so it has to be yours."),
      this));
  auto* turn_form = new QFormLayout;
  turn_url_edit_ = new QLineEdit(QString::fromStdString(settings_.turn_url), this);
  turn_url_edit_->setPlaceholderText("turn:relay.example.net:3478");
  turn_user_edit_ = new QLineEdit(QString::fromStdString(settings_.turn_user), this);
  turn_password_edit_ = new QLineEdit(QString::fromStdString(settings_.turn_credential), this);
  turn_password_edit_->setEchoMode(QLineEdit::Password);
  turn_form->addRow(tr("Relay (TURN)"), turn_url_edit_);
  turn_form->addRow(tr("Username"), turn_user_edit_);
  turn_form->addRow(tr("Password"), turn_password_edit_);
  layout->addLayout(turn_form);

  // This platform's store: the desktop's keyring, opened by the user's login.
  layout->addWidget(WrappedLabel(
      tr("The password is kept in your desktop's keyring, readable only by your account."),
      this));
  layout->addWidget(WrappedLabel(
      tr("Applies to your next share. Anything already connected keeps its current settings."),
      this));
  layout->addStretch(1);  // Spare height goes here, not between the paragraphs.
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Cancel, this);
  layout->addWidget(buttons);

  connect(stun_combo_, &QComboBox::currentIndexChanged, this, &NetworkDialog::ChoiceChanged);
  connect(buttons, &QDialogButtonBox::accepted, this, &NetworkDialog::Accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  ChoiceChanged();
  // Wrapped paragraphs ask for height at a narrower width than the dialog's; measure at its own.
  resize(minimumWidth(), layout->heightForWidth(minimumWidth()));
}

void NetworkDialog::ChoiceChanged() {
  const std::string id = stun_combo_->currentData().toString().toStdString();
  // Disabled, not cleared: a custom address kept aside is still saved.
  custom_stun_edit_->setEnabled(id == kCustom);
  if (id == kCustom) {
    stun_note_->setText(tr("A STUN server you run or trust."));
    return;
  }
  const std::optional<transport::StunChoice> choice = transport::FindStunChoice(id);
  stun_note_->setText(choice ? QString::fromStdString(choice->note) : QString());
}

void NetworkDialog::Accept() {
  if (!meeting_chooser_->Check().isEmpty()) return;  // Said under the field; the dialog stays.
  settings_.meeting = meeting_chooser_->place();
  settings_.stun = stun_combo_->currentData().toString().toStdString();
  settings_.custom_stun = custom_stun_edit_->text().trimmed().toStdString();
  settings_.turn_url = turn_url_edit_->text().trimmed().toStdString();
  // As typed: blanks can belong to a user name or a password.
  settings_.turn_user = turn_user_edit_->text().toStdString();
  settings_.turn_credential = turn_password_edit_->text().toStdString();
  QDialog::accept();
}

}  // namespace mirell::ui
