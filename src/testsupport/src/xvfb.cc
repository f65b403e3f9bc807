#include "mirell/testsupport/xvfb.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
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

namespace mirell::testsupport {

std::optional<ScreenPoint> TrayIconPoint(const ProcessOptions& options) {
  const ProcessResult found = RunProcess({"xdotool", "search", "--onlyvisible", "--class", "trayer"}, options);
  std::optional<ScreenPoint> point;
  int right_edge = -1;
  std::istringstream windows(found.out);
  std::string window;
  while (windows >> window) {
    const ProcessResult geometry = RunProcess({"xdotool", "getwindowgeometry", "--shell", window}, options);
    std::map<std::string, int> values;
    std::istringstream lines(geometry.out);
    std::string line;
    while (std::getline(lines, line)) {
      const auto equals = line.find('=');
      if (equals == std::string::npos) continue;
      try {
        values[line.substr(0, equals)] = std::stoi(line.substr(equals + 1));
      } catch (const std::exception&) {
      }
    }
    const int height = values["HEIGHT"];
    const int right = values["X"] + values["WIDTH"];
    // The panel itself, not a window of its own it keeps for embedding.
    if (height < 16 || right <= right_edge) continue;
    right_edge = right;
    // Icons are squares as high as the panel; the first ends the right-aligned panel.
    point = ScreenPoint{right - height / 2, values["Y"] + height / 2};
  }
  return point;
}

}  // namespace mirell::testsupport
