#include "admission_prompt.h"

#include <QAbstractButton>
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

bool AskAdmission(QWidget* parent, const QString& share_label, const QString& connection_id,
                  const QString& user_id, const QString& display_name) {
  QMessageBox box(parent);
  box.setWindowTitle(Tr("Let them watch?"));
  box.setIcon(QMessageBox::Question);
  box.setText(Tr("Someone is asking to watch %1.").arg(share_label));
  box.setInformativeText(InformativeText(connection_id, user_id, display_name));
  QPushButton* let_in = box.addButton(Tr("Let them watch"), QMessageBox::AcceptRole);
  box.addButton(Tr("No"), QMessageBox::RejectRole);
  box.exec();
  return box.clickedButton() == let_in;
}

}  // namespace mirell::ui
