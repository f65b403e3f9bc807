#include "admission_prompt.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QCoreApplication>
#include <QMessageBox>
#include <QPushButton>
#include <memory>

namespace mirell::ui {
namespace {

QString Tr(const char* text) {
  return QCoreApplication::translate("mirell::ui::MainWindow", text);
}

QString InformativeText(const QString& connection_id, const QString& user_id,
                        const QString& display_name, const QString& key_fingerprint,
                        bool other_computer) {
  if (user_id.isEmpty()) {
    return Tr("They didn't say who they are. Mirell only knows them as %1.").arg(connection_id);
  }
  const QString who = display_name.isEmpty() ? user_id : Tr("%1 in VRChat (%2)").arg(display_name, user_id);
  if (other_computer) {
    return Tr("Claims to be %1 from a computer you have not let in before. If it isn't them, "
              "someone else is using their id: let them in only if you know it's them.")
        .arg(who);
  }
  if (!key_fingerprint.isEmpty()) {
    return Tr("Says they're %1. Mirell can't check a VRChat id, but it knows this computer by its "
              "key: let them in from now on, and only this computer gets in unasked.")
        .arg(who);
  }
  return Tr("Says they're %1. Mirell can't check that: their computer proved no key.").arg(who);
}

// The box with its texts, buttons and check box; the "Let them watch" button is the default.
QMessageBox* MakeBox(QWidget* parent, const QString& share_label, const QString& connection_id,
                     const QString& user_id, const QString& display_name,
                     const QString& key_fingerprint, bool other_computer) {
  auto* box = new QMessageBox(parent);
  box->setWindowTitle(Tr("Let them watch?"));
  box->setIcon(other_computer ? QMessageBox::Warning : QMessageBox::Question);
  box->setText(Tr("Someone is asking to watch %1.").arg(share_label));
  box->setInformativeText(
      InformativeText(connection_id, user_id, display_name, key_fingerprint, other_computer));
  // Remembering needs an id and a key: an id alone is what anyone can claim.
  if (!user_id.isEmpty() && !key_fingerprint.isEmpty()) {
    auto* always = new QCheckBox(display_name.isEmpty()
                                     ? Tr("Let them in from now on without asking")
                                     : Tr("Always let %1 in without asking").arg(display_name),
                                 box);
    always->setToolTip(Tr("Adds them to Who can watch with this computer's key (%1), so they "
                          "skip this next time. From another computer they are asked again.")
                           .arg(key_fingerprint));
    box->setCheckBox(always);
  }
  QPushButton* let_in = box->addButton(Tr("Let them watch"), QMessageBox::AcceptRole);
  box->addButton(Tr("No"), QMessageBox::RejectRole);
  box->setDefaultButton(let_in);
  return box;
}

AdmissionAnswer AnswerOf(const QMessageBox& box) {
  AdmissionAnswer answer;
  QAbstractButton* clicked = box.clickedButton();
  answer.admit = clicked != nullptr && box.buttonRole(clicked) == QMessageBox::AcceptRole;
  answer.remember = answer.admit && box.checkBox() != nullptr && box.checkBox()->isChecked();
  return answer;
}

}  // namespace

AdmissionAnswer AskAdmission(QWidget* parent, const QString& share_label,
                             const QString& connection_id, const QString& user_id,
                             const QString& display_name, const QString& key_fingerprint,
                             bool other_computer) {
  std::unique_ptr<QMessageBox> box(MakeBox(parent, share_label, connection_id, user_id, display_name,
                                           key_fingerprint, other_computer));
  box->exec();
  return AnswerOf(*box);
}

QMessageBox* OpenAdmissionPrompt(QWidget* parent, const QString& share_label,
                                 const QString& connection_id, const QString& user_id,
                                 const QString& display_name, const QString& key_fingerprint,
                                 bool other_computer, std::function<void(AdmissionAnswer)> on_answer) {
  QMessageBox* box = MakeBox(parent, share_label, connection_id, user_id, display_name,
                             key_fingerprint, other_computer);
  box->setWindowModality(Qt::WindowModal);
  // `finished` comes from a click, Escape or the close button, not from deleting the box.
  QObject::connect(box, &QDialog::finished, box, [box, on_answer = std::move(on_answer)](int) {
    const AdmissionAnswer answer = AnswerOf(*box);
    box->deleteLater();
    on_answer(answer);
  });
  box->show();
  box->raise();
  box->activateWindow();
  return box;
}

}  // namespace mirell::ui
