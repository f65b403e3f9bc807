// "Let them watch?": the box that asks the user about one viewer. Interface thread.
#pragma once

#include <QString>
#include <functional>

class QMessageBox;
class QWidget;

namespace mirell::ui {

struct AdmissionAnswer {
  bool admit = false;     // Only when "Let them watch" was clicked; closing the box is a no.
  bool remember = false;  // Admitted with "Always let ... in" ticked (offered only with a proved key).
};

// Asks and waits for the answer (a modal box with its own event loop). `key_fingerprint`: the
// key the viewer's computer proved, or empty; `other_computer`: its id is on the list with other
// keys only, so the box warns.
AdmissionAnswer AskAdmission(QWidget* parent, const QString& share_label,
                             const QString& connection_id, const QString& user_id,
                             const QString& display_name, const QString& key_fingerprint = {},
                             bool other_computer = false);

// Shows the same box window-modal and returns at once; `on_answer` runs once when the person
// answers or closes it, never when the box is destroyed unanswered (the viewer left and the
// caller deleted it). The box deletes itself once answered.
QMessageBox* OpenAdmissionPrompt(QWidget* parent, const QString& share_label,
                                 const QString& connection_id, const QString& user_id,
                                 const QString& display_name, const QString& key_fingerprint,
                                 bool other_computer, std::function<void(AdmissionAnswer)> on_answer);

}  // namespace mirell::ui
