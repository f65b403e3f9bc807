// The quiet start-up question "is there a newer version?": one HTTPS request on a thread of its
// own, and a box only when the answer passes every rule. Any failure ends silently.
#pragma once

#include <QPointer>
#include <QString>
#include <atomic>
#include <memory>

#include "mirell/settings/update_check.h"

class QMainWindow;
class QWidget;

namespace mirell::ui {

// Starts the check and returns at once; an empty `url` does nothing. Destroy the handle before the
// window: from then on a late answer shows nothing. The thread itself is detached and may still be
// waiting on the network when the process ends; nothing waits for it.
class UpdateCheck {
 public:
  UpdateCheck(QMainWindow* window, const QString& current_version, const QString& url);
  ~UpdateCheck();
  UpdateCheck(const UpdateCheck&) = delete;
  UpdateCheck& operator=(const UpdateCheck&) = delete;

  // The thread's one pass is over (a prompt it found worth showing is posted by then).
  bool finished() const;

  struct Target;

 private:
  std::shared_ptr<Target> target_;
};

// "Update available", modal on `parent`: remembers the version as skipped when the box is
// ticked, whichever button, and opens `info.url` on "Get it".
void ShowUpdatePrompt(QWidget* parent, const settings::UpdateInfo& info, const QString& current_version);

}  // namespace mirell::ui
