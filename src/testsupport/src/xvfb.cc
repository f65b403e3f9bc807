#include "mirell/testsupport/xvfb.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace mirell::testsupport {

namespace {
// The process id an X server writes into its lock file, or -1.
int LockOwner(const std::filesystem::path& lock) {
  try {
    return std::stoi(ReadFileText(lock));
  } catch (const std::exception&) {
    return -1;
  }
}
}  // namespace

XvfbDisplay::XvfbDisplay(const XvfbOptions& options) {
  if (!HaveProgram("Xvfb")) return;
  const std::string screen = std::to_string(options.width) + "x" + std::to_string(options.height) + "x24";
  for (int number = 90; number < 190; ++number) {
    const std::filesystem::path lock = "/tmp/.X" + std::to_string(number) + "-lock";
    const std::filesystem::path socket = "/tmp/.X11-unix/X" + std::to_string(number);
    if (std::filesystem::exists(lock) || std::filesystem::exists(socket)) continue;
    name_ = ":" + std::to_string(number);
    server_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        "Xvfb", name_, "-screen", "0", screen, "-nolisten", "tcp", "-noreset"});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline && server_->Running()) {
      // Two tests may start a server on the same number at once; the lock file names the one
      // that won.
      if (std::filesystem::exists(socket) && LockOwner(lock) == server_->pid()) {
        if (!options.window_manager || StartWindowManager()) return;
        server_.reset();
        name_.clear();
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // It lost a race for this number or failed; try the next one.
    server_.reset();
  }
  name_.clear();
}

bool XvfbDisplay::StartWindowManager() {
  if (!HaveProgram("openbox")) return false;
  ProcessOptions options;
  options.environment["DISPLAY"] = name_;
  // Openbox runs the --startup command once it manages windows; a window mapped before that
  // (even after it has announced itself on the root window) can be lost.
  const auto ready = window_manager_dir_.path() / "ready";
  window_manager_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"openbox", "--sm-disable", "--startup", "touch " + ready.string()}, options);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline && window_manager_->Running()) {
    if (std::filesystem::exists(ready)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  window_manager_.reset();
  return false;
}

XvfbDisplay::~XvfbDisplay() {
  if (window_manager_) {
    window_manager_->Signal(SIGTERM);
    window_manager_->Wait(std::chrono::seconds(5));
  }
  if (server_) {
    server_->Signal(SIGTERM);
    server_->Wait(std::chrono::seconds(5));
  }
}

}  // namespace mirell::testsupport
