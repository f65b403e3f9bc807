// "Let them watch?": the box that asks the user about one viewer. Modal, interface thread.
#pragma once

#include <QString>

class QWidget;

namespace mirell::ui {

// True only when "Let them watch" was clicked; "No", closing the box or anything else is a no.
bool AskAdmission(QWidget* parent, const QString& share_label, const QString& connection_id,
                  const QString& user_id, const QString& display_name);

}  // namespace mirell::ui
