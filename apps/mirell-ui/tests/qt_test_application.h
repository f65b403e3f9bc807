// One QApplication for in-process widget tests, on Qt's offscreen platform so that no display is
// needed for the widgets themselves; finding widgets by their text; screenshots kept as test
// artifacts. Test code only.
#pragma once

#include <QApplication>
#include <QImage>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QWidget>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

namespace mirell::ui {

inline QApplication& TestApplication() {
  static int argc = 1;
  static char name[] = "mirell_ui_window_tests";
  static char* argv[] = {name, nullptr};
  static QApplication* application = [] {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Stored settings go to a directory of the run's own, never the user's.
    static const std::filesystem::path config =
        std::filesystem::temp_directory_path() / ("mirell-window-tests-" + std::to_string(getpid()));
    std::filesystem::create_directories(config);
    qputenv("XDG_CONFIG_HOME", QByteArray::fromStdString(config.string()));
    QApplication::setOrganizationName("Mirell");
    QApplication::setApplicationName("Mirell");
    return new QApplication(argc, argv);
  }();
  return *application;
}

// Kept for people to look at: the tests' PNG artifacts.
inline std::filesystem::path SaveScreenshot(QWidget& widget, const std::string& name) {
  const std::filesystem::path directory = MIRELL_TEST_ARTIFACT_DIR;
  std::filesystem::create_directories(directory);
  const std::filesystem::path file = directory / (name + ".png");
  // Layouts follow a text change from the event loop, as they do on screen.
  QApplication::processEvents();
  widget.grab().save(QString::fromStdString(file.string()));
  return file;
}

// The text of the first label among `widget`'s children whose text starts with `prefix`.
inline QString LabelStartingWith(const QWidget& widget, const QString& prefix) {
  for (const QLabel* label : widget.findChildren<QLabel*>()) {
    if (label->text().startsWith(prefix)) return label->text();
  }
  return {};
}

inline QPushButton* ButtonNamed(const QWidget& widget, const QString& text) {
  for (QPushButton* button : widget.findChildren<QPushButton*>()) {
    if (button->text() == text) return button;
  }
  return nullptr;
}

// Runs `action` on the modal widget that `exec` opens next, from inside its event loop.
inline void WhenModalOpens(std::function<void(QWidget&)> action) {
  auto* poll = new QTimer;
  QObject::connect(poll, &QTimer::timeout, [poll, action] {
    if (QWidget* modal = QApplication::activeModalWidget()) {
      poll->stop();
      poll->deleteLater();
      action(*modal);
    }
  });
  poll->start(10);
}

}  // namespace mirell::ui
