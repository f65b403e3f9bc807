// "Let them watch?": the box that asks the user about one viewer. Modal, interface thread.
#pragma once

#include <QString>

class QWidget;

namespace mirell::ui {

struct AdmissionAnswer {
  bool admit = false;     // Only when "Let them watch" was clicked; closing the box is a no.
  bool remember = false;  // Admitted with "Always let ... in" ticked (offered only with a user id).
};

AdmissionAnswer AskAdmission(QWidget* parent, const QString& share_label,
                             const QString& connection_id, const QString& user_id,
                             const QString& display_name);

}  // namespace mirell::ui
