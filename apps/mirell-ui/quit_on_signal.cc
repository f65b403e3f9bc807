// The handler only writes the signal's number into a pipe (the one thing a handler may safely
// do); the event loop reads it and quits on the interface thread.
#include "quit_on_signal.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"

namespace mirell::ui {
namespace {

int signal_pipe[2] = {-1, -1};

void OnStopSignal(int number) {
  const int saved_errno = errno;
  const auto byte = static_cast<unsigned char>(number);
  [[maybe_unused]] const auto written = write(signal_pipe[1], &byte, 1);
  errno = saved_errno;
}

}  // namespace

void QuitEventLoopOnSignals() {
  if (signal_pipe[0] >= 0) return;
  MIRELL_CHECK_HR(pipe2(signal_pipe, O_CLOEXEC | O_NONBLOCK) == 0 ? 0 : -errno);
  auto* notifier = new QSocketNotifier(signal_pipe[0], QSocketNotifier::Read,
                                       QCoreApplication::instance());
  QObject::connect(notifier, &QSocketNotifier::activated, [] {
    unsigned char number = 0;
    while (read(signal_pipe[0], &number, 1) == 1) {
      LOG_INFO("stopping on signal {}", number);
    }
    // exit, not quit: Qt 6's quit asks the windows to close first, and the main window's close
    // only hides it while there is a tray icon, which would cancel the stop.
    QCoreApplication::exit(0);
  });
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  MIRELL_CHECK_HR(sigaction(SIGINT, &action, nullptr) == 0 ? 0 : -errno);
  MIRELL_CHECK_HR(sigaction(SIGTERM, &action, nullptr) == 0 ? 0 : -errno);
}

}  // namespace mirell::ui
