#include "update_prompt.h"

#include <QCheckBox>
#include <QDesktopServices>
#include <QMainWindow>
#include <QMessageBox>
#include <QMetaObject>
#include <QPushButton>
#include <QUrl>
#include <mutex>
#include <thread>

#include "mirell/base/logging.h"
#include "mirell/base/thread_name.h"
#include "mirell/transport/https_get.h"

namespace mirell::ui {

// Shared by the handle and the thread. The window is posted to only under the lock, and the
// handle clears it under the same lock before the window goes, so the thread never posts to a
// window that is being destroyed.
struct UpdateCheck::Target {
  std::mutex mutex;
  QPointer<QMainWindow> window;
  std::atomic<bool> finished{false};
};

namespace {

// The thread's whole work: the answer, when it is worth a prompt.
std::optional<settings::UpdateInfo> AskForUpdate(const std::string& current, const std::string& url,
                                       const std::string& skipped) {
  const std::optional<std::string> body = transport::HttpsGet(url);
  if (!body) {
    LOG_DEBUG("no answer");
    return std::nullopt;
  }
  std::optional<settings::UpdateInfo> info = settings::ParseUpdateInfo(*body);
  if (!info || !settings::ShouldPrompt(current, *info, skipped)) return std::nullopt;
  LOG_INFO("{} is available", info->version);
  return info;
}

}  // namespace

UpdateCheck::UpdateCheck(QMainWindow* window, const QString& current_version, const QString& url)
    : target_(std::make_shared<Target>()) {
  if (url.isEmpty()) {
    target_->finished = true;
    return;
  }
  target_->window = window;
  // The skipped version is read here, so that past this point the thread touches nothing of Qt
  // unless the window still stands: it may outlive QApplication.
  std::thread([target = target_, current = current_version.toStdString(),
               address = url.toStdString(), skipped = settings::LoadSkippedVersion()] {
    NameThisThread("update-check");
    if (const std::optional<settings::UpdateInfo> info = AskForUpdate(current, address, skipped)) {
      std::lock_guard hold(target->mutex);
      if (QMainWindow* shown_on = target->window.data()) {
        QMetaObject::invokeMethod(
            shown_on,
            [shown_on, shown = *info, current_text = QString::fromStdString(current)] {
              ShowUpdatePrompt(shown_on, shown, current_text);
            },
            Qt::QueuedConnection);
      }
    }
    target->finished = true;
  }).detach();
}

bool UpdateCheck::finished() const { return target_->finished; }

UpdateCheck::~UpdateCheck() {
  std::lock_guard hold(target_->mutex);
  target_->window = nullptr;
}

void ShowUpdatePrompt(QWidget* parent, const settings::UpdateInfo& info, const QString& current_version) {
  QMessageBox box(parent);
  box.setWindowTitle(QObject::tr("Update available"));
  box.setIcon(QMessageBox::Information);
  box.setText(QObject::tr("Mirell %1 is out. You have %2.")
                  .arg(QString::fromStdString(info.version), current_version));
  auto* skip = new QCheckBox(QObject::tr("Don't remind me about this version"), &box);
  box.setCheckBox(skip);
  QPushButton* get = box.addButton(QObject::tr("Get it"), QMessageBox::AcceptRole);
  box.addButton(QObject::tr("Not now"), QMessageBox::RejectRole);
  box.exec();
  if (skip->isChecked()) settings::SaveSkippedVersion(info.version);
  if (box.clickedButton() == get) QDesktopServices::openUrl(QUrl(QString::fromStdString(info.url)));
}

}  // namespace mirell::ui
