#include "admission_prompt.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QCoreApplication>
#include <QMessageBox>
#include <QPushButton>

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

}  // namespace

AdmissionAnswer AskAdmission(QWidget* parent, const QString& share_label,
                             const QString& connection_id, const QString& user_id,
                             const QString& display_name) {
  QMessageBox box(parent);
  box.setWindowTitle(Tr("Let them watch?"));
  box.setIcon(QMessageBox::Question);
  box.setText(Tr("Someone is asking to watch %1.").arg(share_label));
  box.setInformativeText(InformativeText(connection_id, user_id, display_name));
  // Without a user id there is nothing to remember them by.
  QCheckBox* always = nullptr;
  if (!user_id.isEmpty()) {
    always = new QCheckBox(display_name.isEmpty()
                               ? Tr("Let them in from now on without asking")
                               : Tr("Always let %1 in without asking").arg(display_name),
                           &box);
    always->setToolTip(Tr("Adds them to Who can watch, so they skip this next time. Anyone who "
                          "has your link and knows that user id gets in too."));
    box.setCheckBox(always);
  }
  QPushButton* let_in = box.addButton(Tr("Let them watch"), QMessageBox::AcceptRole);
  box.addButton(Tr("No"), QMessageBox::RejectRole);
  box.exec();
  AdmissionAnswer answer;
  answer.admit = box.clickedButton() == let_in;
  answer.remember = answer.admit && always != nullptr && always->isChecked();
  return answer;
}

}  // namespace mirell::ui
