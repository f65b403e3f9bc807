// Mirell's one process. For now it brings up the log beside the executable and waits for
// SIGINT or SIGTERM; the services join it as they are built.
#include <signal.h>
#include <unistd.h>

#include <exception>
#include <filesystem>

#include "mirell/base/error.h"
#include "mirell/base/logging.h"

namespace {

std::filesystem::path ExecutableDirectory() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

int Run() {
  // The log file is optional: a read-only install directory costs only the file.
  mirell::SetLogFile(ExecutableDirectory() / "mirell-ui.log");
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  MIRELL_CHECK_HR(-pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr));
  LOG_WARN("mirell-ui started (pid {}); stop it with Ctrl+C", getpid());
  int received = 0;
  MIRELL_CHECK_HR(-sigwait(&stop_signals, &received));
  LOG_WARN("mirell-ui stopping on signal {}", received);
  return 0;
}

}  // namespace

int main() {
  try {
    return Run();
  } catch (const std::exception& error) {
    LOG_ERROR("{}", error.what());
    return 1;
  }
}
