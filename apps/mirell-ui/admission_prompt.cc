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
                        const QString& display_name) {
  if (user_id.isEmpty()) {
    return Tr("They didn't say who they are. Mirell only knows them as %1.").arg(connection_id);
  }
  if (!display_name.isEmpty()) {
    return Tr("Says they're %1 in VRChat (%2). Mirell can't check that.").arg(display_name, user_id);
  }
  return Tr("Says they're %1 in VRChat. Mirell can't check that.").arg(user_id);
}

// The box with its texts, buttons and check box; the "Let them watch" button is the default.
QMessageBox* MakeBox(QWidget* parent, const QString& share_label, const QString& connection_id,
                     const QString& user_id, const QString& display_name) {
  auto* box = new QMessageBox(parent);
  box->setWindowTitle(Tr("Let them watch?"));
  box->setIcon(QMessageBox::Question);
  box->setText(Tr("Someone is asking to watch %1.").arg(share_label));
  box->setInformativeText(InformativeText(connection_id, user_id, display_name));
  // Without a user id there is nothing to remember them by.
  if (!user_id.isEmpty()) {
    auto* always = new QCheckBox(display_name.isEmpty()
                                     ? Tr("Let them in from now on without asking")
                                     : Tr("Always let %1 in without asking").arg(display_name),
                                 box);
    always->setToolTip(Tr("Adds them to Who can watch, so they skip this next time. Anyone who "
                          "has your link and knows that user id gets in too."));
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
                             const QString& display_name) {
  std::unique_ptr<QMessageBox> box(MakeBox(parent, share_label, connection_id, user_id, display_name));
  box->exec();
  return AnswerOf(*box);
}

QMessageBox* OpenAdmissionPrompt(QWidget* parent, const QString& share_label,
                                 const QString& connection_id, const QString& user_id,
                                 const QString& display_name,
                                 std::function<void(AdmissionAnswer)> on_answer) {
  QMessageBox* box = MakeBox(parent, share_label, connection_id, user_id, display_name);
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
